// The number of threads that a command works on.
#pragma once

#include <tbb/global_control.h>

namespace VexelAlgorithm::Apps {

/// While it lives, the process's parallel loops, OpenCV's included, keep to the number of threads; 0 takes all
/// processors.
class ThreadLimit {
public:
    explicit ThreadLimit(int threads);

    int count() const { return _count; }

private:
    int _count;
    tbb::global_control _limit;
};

}  // namespace VexelAlgorithm::Apps
