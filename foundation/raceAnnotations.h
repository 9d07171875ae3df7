// Tells the thread sanitizer what it cannot see in libraries that are not built with it: that a parallel loop's tasks
// begin after the loop was entered and end before it is left. Nothing in any other build.
#pragma once

#if defined(__SANITIZE_THREAD__)
#    define VEXEL_THREAD_SANITIZER
#elif defined(__has_feature)
#    if __has_feature(thread_sanitizer)
#        define VEXEL_THREAD_SANITIZER
#    endif
#endif

#if defined(VEXEL_THREAD_SANITIZER)
#    include <sanitizer/tsan_interface.h>
#endif

namespace VexelAlgorithm {

#if defined(VEXEL_THREAD_SANITIZER)

/// Made where a loop is entered; lives until it is left.
class ForkJoin {
public:
    ForkJoin() { __tsan_release(&_fork); }
    ~ForkJoin() { __tsan_acquire(&_join); }
    ForkJoin(const ForkJoin&) = delete;
    ForkJoin& operator=(const ForkJoin&) = delete;

    /// Lives while a task of the loop runs.
    class Task {
    public:
        explicit Task(ForkJoin& loop) : _loop(loop) { __tsan_acquire(&_loop._fork); }
        ~Task() { __tsan_release(&_loop._join); }
        Task(const Task&) = delete;
        Task& operator=(const Task&) = delete;

    private:
        ForkJoin& _loop;
    };

private:
    char _fork = 0, _join = 0;
};

#else

struct ForkJoin {
    struct Task {
        explicit Task(ForkJoin&) {}
    };
};

#endif

}  // namespace VexelAlgorithm
