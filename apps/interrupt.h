// Ctrl-C as a request instead of an end.
#pragma once

namespace VexelAlgorithm::Apps {

/// While it lives, the first Ctrl-C only sets a mark that the work looks at between frames; the second one
/// ends the program at once. One at a time.
class InterruptGuard {
public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

    bool is_interrupted() const;
};

}  // namespace VexelAlgorithm::Apps
