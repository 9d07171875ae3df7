// A bounded queue of frames between producers and one worker.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>

namespace VexelAlgorithm {

/// First in, first out. Items travel as the only node of a list, so that neither side allocates or copies under the
/// lock, and what is refused stays with its producer. At first closed. All methods are for any thread but `take`, which
/// is for the worker.
template <class Item>
class FrameQueue {
public:
    using Clock = std::chrono::steady_clock;
    using Node = std::list<Item>;

    enum class Offered { Taken, Full, Paused, Closed };
    enum class Given { ToWork, GivenUp, End };

    /// Appends the item as soon as fewer than `maxQueued` wait, for which it waits so long. A pause or the queue's
    /// close ends the wait.
    Offered offer(Node& item, std::size_t maxQueued, std::chrono::milliseconds wait) {
        std::unique_lock<std::mutex> lock(_mutex);
        _room.wait_for(lock, wait, [&] { return _isClosed || _isPaused || _items.size() < maxQueued; });
        const Offered offered = answer(maxQueued);
        if (offered != Offered::Taken) return offered;
        _items.splice(_items.end(), item);
        _work.notify_one();
        return offered;
    }
    /// What an offer that does not wait would be answered.
    Offered preview(std::size_t maxQueued) const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return answer(maxQueued);
    }

    /// Moves the next item into the empty list, for which it waits. `due(item)` is the time until which the item may be
    /// held back, itself and all behind it; it is asked under the lock. From a closed queue items come at once, as
    /// given up, and then the end. The worker counts as at rest until it has an item, and from the next call on.
    template <class Due>
    Given take(Node& item, const Due& due) {
        std::unique_lock<std::mutex> lock(_mutex);
        _isWorking = false;
        _rest.notify_all();
        while (!_isClosed) {
            if (_isPaused || _items.empty()) {
                _work.wait(lock);
                continue;
            }
            const Clock::time_point until = due(_items.front());
            if (Clock::now() >= until) break;
            _work.wait_until(lock, until);
        }
        if (_items.empty()) return Given::End;
        item.splice(item.end(), _items, _items.begin());
        _isWorking = true;
        _room.notify_all();
        return _isClosed ? Given::GivenUp : Given::ToWork;
    }

    /// Runs `change` under the lock; what `due` says may depend on it.
    template <class Change>
    void change(const Change& change) {
        const std::lock_guard<std::mutex> lock(_mutex);
        change();
        _work.notify_one();
    }

    /// No item goes in or out until `resume`. Waits for the worker to come to rest; when it does not within the limit,
    /// all is as before and the answer false.
    bool pause(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(_mutex);
        const bool wasPaused = _isPaused;
        _isPaused = true;
        _room.notify_all();
        if (_rest.wait_for(lock, limit, [&] { return !_isWorking; })) return true;
        _isPaused = wasPaused;
        return false;
    }
    /// The same without waiting, for the worker itself.
    void pause() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _isPaused = true;
        _room.notify_all();
    }
    void resume() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _isPaused = false;
        _work.notify_one();
    }

    void open() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _isClosed = false;
    }
    void close() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _isClosed = true;
        _work.notify_one();
        _room.notify_all();
    }

private:
    Offered answer(std::size_t maxQueued) const {
        if (_isPaused) return Offered::Paused;
        if (_isClosed) return Offered::Closed;
        return _items.size() < maxQueued ? Offered::Taken : Offered::Full;
    }

    Node _items;
    bool _isClosed = true;
    bool _isPaused = false;
    bool _isWorking = false;
    mutable std::mutex _mutex;
    std::condition_variable _room;  // for producers: an item less, a pause, the close
    std::condition_variable _work;  // for the worker: an item more, a change, no pause any more, the close
    std::condition_variable _rest;  // for those who pause
};

}  // namespace VexelAlgorithm
