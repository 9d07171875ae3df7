// A one-byte lock for data that is held for a few instructions.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#if defined(_M_X64) || defined(__x86_64__)
#    include <emmintrin.h>
#endif

namespace VexelOctree {

/// Spin lock in one byte, usable with std::lock_guard. A copy is an unlocked lock of its own, so that records
/// holding one can be copied while nobody uses them.
class SpinLock {
public:
    SpinLock() = default;
    SpinLock(const SpinLock&) noexcept {}
    SpinLock& operator=(const SpinLock&) noexcept { return *this; }

    void lock() noexcept {
        // Pause 1, 2, 4, 8, 16 times, then let another thread run on every further failed attempt.
        for (int pauses = 1; !try_lock();) {
            if (pauses <= 16) {
                for (int i = 0; i < pauses; ++i) pause();
                pauses *= 2;
            } else {
                std::this_thread::yield();
            }
        }
    }
    bool try_lock() noexcept {
        std::uint8_t expected = 0;
        return _byte.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void unlock() noexcept { _byte.store(0, std::memory_order_release); }

private:
    static void pause() noexcept {
#if defined(_M_X64) || defined(__x86_64__)
        _mm_pause();
#endif
    }

    std::atomic<std::uint8_t> _byte{0};
};

static_assert(sizeof(SpinLock) == 1, "the lock is one byte of a leaf record");

}  // namespace VexelOctree
