#include "apps/interrupt.h"

#include <csignal>

namespace VexelAlgorithm::Apps {
namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void note_interrupt(int) {
    interrupted = 1;
    std::signal(SIGINT, SIG_DFL);
}

}  // namespace

InterruptGuard::InterruptGuard() {
    interrupted = 0;
    std::signal(SIGINT, note_interrupt);
}

InterruptGuard::~InterruptGuard() {
    std::signal(SIGINT, SIG_DFL);
}

bool InterruptGuard::is_interrupted() const {
    return interrupted != 0;
}

}  // namespace VexelAlgorithm::Apps
