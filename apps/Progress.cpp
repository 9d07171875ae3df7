#include "apps/Progress.h"

#include <cstdio>

#include "foundation/diagnostics.h"

#if defined(_WIN32)
#    include <io.h>
#else
#    include <unistd.h>
#endif

namespace VexelAlgorithm::Apps {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds redrawInterval(100);

bool output_is_terminal() {
#if defined(_WIN32)
    return _isatty(_fileno(stdout)) != 0;
#else
    return isatty(STDOUT_FILENO) != 0;
#endif
}

std::string duration_text(double seconds) {
    const int whole = static_cast<int>(seconds + 0.5);
    return whole < 100 ? format_text("%d s", whole) : format_text("%d min %02d s", whole / 60, whole % 60);
}

}  // namespace

Progress::Progress(std::string what, int total)
    : _what(std::move(what)),
      _total(total),
      _isTerminal(output_is_terminal()),
      _start(Clock::now()),
      _lastShown(_start) {}

Progress::~Progress() {
    if (_isTerminal && _done > 0) print_text("\n");
}

void Progress::advance() {
    ++_done;
    if (_isTerminal) {
        const Clock::time_point now = Clock::now();
        if (now - _lastShown < redrawInterval && _done < _total) return;
        _lastShown = now;
        print_text("\r" + line() + "\x1b[K");
        return;
    }
    const int tenths = static_cast<int>(10LL * _done / _total);
    if (tenths == _tenthsShown) return;
    _tenthsShown = tenths;
    print_line(line());
}

std::string Progress::line() const {
    const double seconds = std::chrono::duration<double>(Clock::now() - _start).count();
    const std::string state = format_text("%s %d of %d frames", _what.c_str(), _done, _total);
    if (_done >= _total) return state + " in " + duration_text(seconds);
    return state + ", " + duration_text(seconds / _done * (_total - _done)) + " left";
}

}  // namespace VexelAlgorithm::Apps
