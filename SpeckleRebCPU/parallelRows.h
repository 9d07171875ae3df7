// Loops over the rows of an image on several threads.
#pragma once

#include <cstddef>

#include "foundation/parallel.h"

namespace VexelAlgorithm {

/// `body(y)` for every row, in pieces of 16 and more.
template <class Body>
void for_each_row(int height, int threads, const Body& body) {
    constexpr std::size_t GRAIN = 16;
    parallel_ranges(threads, static_cast<std::size_t>(height), GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y) body(static_cast<int>(y));
    });
}

}  // namespace VexelAlgorithm
