// Times of a stretch of the program.
#pragma once

#include <chrono>
#include <ctime>

namespace VexelBench {

constexpr double Milli = 1e-3;

/// Seconds on the wall clock, and of processor time of all threads (where std::clock counts that), which other
/// work on the machine spoils less.
struct TimeSum {
    double wall = 0.0, cpu = 0.0;

    TimeSum& operator+=(const TimeSum& other) {
        wall += other.wall;
        cpu += other.cpu;
        return *this;
    }
    TimeSum& operator-=(const TimeSum& other) {
        wall -= other.wall;
        cpu -= other.cpu;
        return *this;
    }
};

/// Runs from its construction.
class Stopwatch {
public:
    TimeSum sum() const {
        const double wall = std::chrono::duration<double>(Clock::now() - _start).count();
        return {wall, static_cast<double>(std::clock() - _cpuStart) / CLOCKS_PER_SEC};
    }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point _start = Clock::now();
    std::clock_t _cpuStart = std::clock();
};

}  // namespace VexelBench
