// Warnings of numerical routines, for the host's log.
#pragma once

#include <atomic>
#include <cstdint>

namespace VexelAlgorithm {

/// One kind of warning, logged through glog at most once a second, however often an inner routine meets it. The host
/// decides where its log goes; before it has initialised glog, warnings go to standard error, never to standard output.
/// To be declared static where it is used; safe from several threads. Internal to the library.
class NumericWarning {
public:
    explicit constexpr NumericWarning(const char* line) : _line(line) {}
    void log() noexcept;

private:
    const char* _line;
    std::atomic<std::int64_t> _quietUntil{0};  ///< milliseconds of the steady clock
    std::atomic<std::int64_t> _repeats{0};     ///< since the last line
};

}  // namespace VexelAlgorithm
