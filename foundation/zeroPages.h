// Large zeroed memory straight from the operating system.
#pragma once

#include <cstddef>
#include <memory>

#include "foundation/export.h"

namespace VexelAlgorithm {

enum class PageHint {
    Sparse,  ///< touched here and there: pages cost memory only once they are written
    Dense,   ///< touched everywhere: large pages are asked for where the system has them
};

struct VEXEL_API ZeroPagesRelease {
    std::size_t bytes = 0;
    void operator()(void* memory) const noexcept;
};

using ZeroPages = std::unique_ptr<void, ZeroPagesRelease>;

/// Zeroed memory, aligned to 4 KiB at least. Throws std::bad_alloc when there is none.
VEXEL_API ZeroPages allocate_zero_pages(std::size_t bytes, PageHint hint);

}  // namespace VexelAlgorithm
