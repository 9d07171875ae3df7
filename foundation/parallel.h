// Parallel loops of the library: a task arena of a configured width around TBB's loops.
#pragma once

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <cstddef>

#include "foundation/heldLines.h"
#include "foundation/sanitizedThreads.h"

namespace VexelAlgorithm {

/// The widest arena that makes sense; larger thread numbers count as this one.
constexpr int MaxThreads = 256;

/// A configured thread number as a width for loops: at least 1, at most `MaxThreads`.
inline int usable_threads(int threads) {
    return std::clamp(threads, 1, MaxThreads);
}

/// Runs `body(begin, end)` over pieces of [0, count) on at most `threads` workers, the calling thread
/// included; one thread takes the pieces in order. `grain` is the smallest piece worth a task.
template <class Body>
void parallel_ranges(int threads, std::size_t count, std::size_t grain, const Body& body) {
    if (count == 0) return;
    if (threads <= 1) {
        body(std::size_t{0}, count);
        return;
    }
    const auto piece = [&body](std::size_t begin, std::size_t end) {
        const WorkerLines lines;  // the caller may hold locks
        body(begin, end);
    };
#if defined(VEXEL_THREAD_SANITIZER)
    sanitized_ranges(usable_threads(threads), count, std::max<std::size_t>(grain, 1), piece);
#else
    tbb::task_arena arena(usable_threads(threads));
    arena.execute([&] {
        tbb::parallel_for(tbb::blocked_range<std::size_t>(0, count, std::max<std::size_t>(grain, 1)),
                          [&](const tbb::blocked_range<std::size_t>& range) { piece(range.begin(), range.end()); });
    });
#endif
}

/// The number of processors that the library uses where no thread number is configured; at least 1.
inline int default_thread_number() {
    return std::max(1, tbb::this_task_arena::max_concurrency());
}

}  // namespace VexelAlgorithm
