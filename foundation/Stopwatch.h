// Time on the clock.
#pragma once

#include <algorithm>
#include <chrono>
#include <limits>

namespace VexelAlgorithm {

/// Whole microseconds; the largest int after half an hour.
inline int microseconds_since(std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double, std::micro> passed = std::chrono::steady_clock::now() - start;
    return static_cast<int>(std::min(passed.count(), double{std::numeric_limits<int>::max()}));
}

class Stopwatch {
public:
    void restart() { _start = Clock::now(); }
    double milliseconds() const { return std::chrono::duration<double, std::milli>(Clock::now() - _start).count(); }
    int microseconds() const { return microseconds_since(_start); }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point _start = Clock::now();
};

}  // namespace VexelAlgorithm
