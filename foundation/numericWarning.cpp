#include "foundation/numericWarning.h"

#include <chrono>

#ifdef _WIN32
#    define GLOG_NO_ABBREVIATED_SEVERITIES  // ERROR is a macro of the Windows headers
#endif
#include <glog/logging.h>

namespace VexelAlgorithm {
namespace {

constexpr std::int64_t QuietMilliseconds = 1000;

std::int64_t steady_milliseconds() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

}  // namespace

void NumericWarning::log() noexcept {
    try {
        const std::int64_t now = steady_milliseconds();
        std::int64_t quietUntil = _quietUntil.load();
        if (now < quietUntil || !_quietUntil.compare_exchange_strong(quietUntil, now + QuietMilliseconds)) {
            ++_repeats;
            return;
        }
        const std::int64_t repeats = _repeats.exchange(0);
        if (repeats > 0) {
            LOG(WARNING) << _line << " (and " << repeats << " times since the last such line)";
        } else {
            LOG(WARNING) << _line;
        }
    } catch (...) {
        // A log that cannot be written must not end a scan.
    }
}

}  // namespace VexelAlgorithm
