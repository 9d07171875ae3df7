// Parallel loops for builds with the thread sanitizer, VEXEL_THREAD_SANITIZER being defined there.
//
// The sanitizer sees neither how TBB's binary hands tasks over nor how it waits for them, and takes the code of its
// headers for races. In these builds loops run on plain threads, which it understands; their bodies are the same.
#pragma once

#if defined(__SANITIZE_THREAD__)
#    define VEXEL_THREAD_SANITIZER
#elif defined(__has_feature)
#    if __has_feature(thread_sanitizer)
#        define VEXEL_THREAD_SANITIZER
#    endif
#endif

#if defined(VEXEL_THREAD_SANITIZER)

#    include <algorithm>
#    include <atomic>
#    include <cstddef>
#    include <exception>
#    include <mutex>
#    include <thread>
#    include <vector>

namespace VexelAlgorithm {

/// `parallel_ranges` on threads that are made for the loop; the first exception of a body is thrown behind it.
template <class Body>
void sanitized_ranges(int threads, std::size_t count, std::size_t grain, const Body& body) {
    std::atomic<std::size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureMutex;
    const auto work = [&] {
        try {
            for (std::size_t begin = next.fetch_add(grain); begin < count; begin = next.fetch_add(grain)) {
                body(begin, std::min(begin + grain, count));
            }
        } catch (...) {
            const std::lock_guard<std::mutex> lock(failureMutex);
            failure = std::current_exception();
        }
    };
    const std::size_t pieces = (count + grain - 1) / grain;
    std::vector<std::thread> workers;
    for (std::size_t i = 1; i < std::min(pieces, static_cast<std::size_t>(threads)); ++i) workers.emplace_back(work);
    work();
    for (std::thread& worker : workers) worker.join();
    if (failure) std::rethrow_exception(failure);
}

}  // namespace VexelAlgorithm

#endif
