// Time on the clock.
#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace VexelAlgorithm {

class Stopwatch {
public:
    void restart() { _start = Clock::now(); }
    double milliseconds() const { return std::chrono::duration<double, std::milli>(Clock::now() - _start).count(); }
    /// Whole microseconds; the largest int after half an hour.
    int microseconds() const {
        return static_cast<int>(std::min(1000.0 * milliseconds(), double{std::numeric_limits<int>::max()}));
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point _start = Clock::now();
};

}  // namespace VexelAlgorithm
