// The threaded input of a session: a queue of frames and the thread that works it off.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "fusiontrackoperation/FrameQueue.h"
#include "fusiontrackoperation/FusionparallelInputData.h"
#include "fusiontrackoperation/SpareFrames.h"

namespace VexelAlgorithm {

/// A frame on its way to the worker.
struct QueuedFrame {
    PointImage frame;
    FusionparallelInputData data;
    std::chrono::steady_clock::time_point arrival;
    bool awaitsColor = false;
    bool isCopy = false;
};

/// Frames go to `work` on a thread of its own, one at a time, in the order in which they came. The thread begins with
/// the first frame and ends with `stop`, and begins anew with the next one. What is refused costs one line that names
/// the function. Everything may be called from any thread, also from inside `work`, but for `stop`.
class ParallelInput {
public:
    /// Deals with a frame that is its own to use; with `isGivenUp` only to report it. Must not throw.
    using Work = std::function<void(QueuedFrame& frame, bool isGivenUp)>;

    explicit ParallelInput(Work work) : _work(std::move(work)) {}
    ~ParallelInput() { stop(); }
    ParallelInput(const ParallelInput&) = delete;
    ParallelInput& operator=(const ParallelInput&) = delete;

    enum class Color { NotAwaited, Awaited };

    /// Queues a copy of the frame.
    RetVal load(const char* function, const PointImage& frame, const FusionparallelInputData& data, Color color);
    /// Queues the frame itself; one that is refused is left as it was.
    RetVal load(const char* function, PointImage&& frame, const FusionparallelInputData& data, Color color);
    /// For the frame of this id that waits or is still to come.
    RetVal load_color(const char* function, std::int64_t frameId, ColorImage color);

    /// Inside `work` takes effect when it returns; elsewhere waits for that.
    RetVal pause();
    void resume() { _queue.resume(); }

    /// Waits for the frame in work, has all others reported as given up, in order, and ends the thread.
    void stop();
    /// Whether the caller is inside `work`.
    bool is_worker_thread() const;

private:
    using Queue = FrameQueue<QueuedFrame>;
    struct EarlyColor {
        std::int64_t frameId;
        ColorImage image;
    };

    /// A frame of now, but for its image.
    static Queue::Node arriving(const FusionparallelInputData& data, Color color);
    /// Takes the image over unless the frame is refused.
    RetVal queue(const char* function, PointImage& frame, Queue::Node& node);
    bool ensure_worker();
    static RetVal refused_offer(const char* function, int maxQueued, Queue::Offered offered);
    void work_off();
    Queue::Clock::time_point due(const QueuedFrame& frame) const;
    std::deque<EarlyColor>::const_iterator find_color(std::int64_t frameId) const;
    void attach_color(QueuedFrame& frame);

    const Work _work;
    Queue _queue;
    std::deque<EarlyColor> _colors;  // under the queue's lock; bounded
    SpareFrames _spares;

    std::mutex _lifeMutex;  // never held together with the queue's
    std::condition_variable _isStopped;
    bool _isStopping = false;
    std::thread _worker;
};

}  // namespace VexelAlgorithm
