#include "fusiontrackoperation/ParallelInput.h"

#include <algorithm>
#include <string>
#include <utility>

#include "foundation/diagnostics.h"
#include "fusiontrackoperation/refusal.h"

namespace VexelAlgorithm {
namespace {

using std::chrono::milliseconds;

constexpr int MAX_QUEUED = 256;
constexpr int MAX_WAIT = 60000;  // ms
constexpr std::size_t MAX_EARLY_COLORS = 16;
constexpr milliseconds PAUSE_LIMIT(5000);

/// The input whose worker the running thread is.
thread_local const ParallelInput* ownInput = nullptr;

bool is_wait(int wait) {
    return wait >= 0 && wait <= MAX_WAIT;
}

const char* find_unusable(const FusionparallelInputData& data) {
    if (data.maxQueued < 1 || data.maxQueued > MAX_QUEUED) return "maxQueued is not between 1 and 256";
    if (!is_wait(data.waitMilliseconds)) return "waitMilliseconds is not between 0 and 60000";
    if (!is_wait(data.colorWaitMilliseconds)) return "colorWaitMilliseconds is not between 0 and 60000";
    return nullptr;
}

RetVal refused(RetVal result, const char* function, const std::string& reason) {
    refuse(function, reason);
    return result;
}

}  // namespace

bool ParallelInput::is_worker_thread() const {
    return ownInput == this;
}

// ---- producers --------------------------------------------------------------------------------------

RetVal ParallelInput::load(const char* function, const PointImage& frame, const FusionparallelInputData& data,
                           Color color) {
    Queue::Node node = arriving(data, color);
    if (data.waitMilliseconds == 0 && find_unusable(data) == nullptr) {
        // A frame that will be refused need not be copied first; a closed queue will be opened.
        const Queue::Offered preview = _queue.preview(static_cast<std::size_t>(data.maxQueued));
        if (preview == Queue::Offered::Full || preview == Queue::Offered::Paused) {
            return refused_offer(function, data.maxQueued, preview);
        }
    }
    PointImage copy = _spares.copy_of(frame);
    node.front().isCopy = true;
    return queue(function, copy, node);
}

RetVal ParallelInput::load(const char* function, PointImage&& frame, const FusionparallelInputData& data, Color color) {
    Queue::Node node = arriving(data, color);
    return queue(function, frame, node);
}

FrameQueue<QueuedFrame>::Node ParallelInput::arriving(const FusionparallelInputData& data, Color color) {
    Queue::Node node(1);
    QueuedFrame& queued = node.front();
    queued.data = data;
    queued.data.color = ColorImage();
    queued.arrival = Queue::Clock::now();
    queued.awaitsColor = color == Color::Awaited;
    return node;
}

RetVal ParallelInput::queue(const char* function, PointImage& frame, Queue::Node& node) {
    QueuedFrame& queued = node.front();
    const FusionparallelInputData& data = queued.data;
    if (const char* reason = find_unusable(data)) return refused(RET_INPUT_ERROR, function, reason);
    const auto maxQueued = static_cast<std::size_t>(data.maxQueued);
    // The worker cannot wait for the room that only it makes.
    const milliseconds wait(is_worker_thread() ? 0 : data.waitMilliseconds);
    if (!ensure_worker()) return refused_offer(function, data.maxQueued, Queue::Offered::Closed);
    queued.frame = std::move(frame);
    const Queue::Offered offered = _queue.offer(node, maxQueued, wait);
    if (offered == Queue::Offered::Taken) return RET_SUCCESS;
    frame = std::move(queued.frame);
    return refused_offer(function, data.maxQueued, offered);
}

RetVal ParallelInput::refused_offer(const char* function, int maxQueued, Queue::Offered offered) {
    switch (offered) {
        case Queue::Offered::Paused:
            print_line("illegal data input because _isPause == true ");
            return RET_PAUSED;
        case Queue::Offered::Full:
            return refused(RET_STATE_ERROR, function, format_text("%d frames are waiting already", maxQueued));
        default:
            return refused(RET_STATE_ERROR, function, "the session is being reset or released");
    }
}

RetVal ParallelInput::load_color(const char* function, std::int64_t frameId, ColorImage color) {
    if (!color.is_legal()) {
        return refused(RET_INPUT_ERROR, function, "width, height and bytes of the colour image do not fit");
    }
    std::deque<EarlyColor> forgotten;
    _queue.change([&] {
        _colors.push_back({frameId, std::move(color)});
        if (_colors.size() <= MAX_EARLY_COLORS) return;
        forgotten.push_back(std::move(_colors.front()));
        _colors.pop_front();
    });
    for (const EarlyColor& lost : forgotten) {
        print_line(format_text("%s: the colour of frame %lld is dropped because no frame has taken it", function,
                               static_cast<long long>(lost.frameId)));
    }
    return RET_SUCCESS;
}

RetVal ParallelInput::pause() {
    if (is_worker_thread()) {
        _queue.pause();
        return RET_SUCCESS;
    }
    if (_queue.pause(PAUSE_LIMIT)) return RET_SUCCESS;
    print_line("fusion_pause fail ");
    return RET_RUN_FAIL;
}

// ---- the worker -------------------------------------------------------------------------------------

bool ParallelInput::ensure_worker() {
    if (is_worker_thread()) return true;
    const std::lock_guard<std::mutex> life(_lifeMutex);
    if (_isStopping) return false;
    if (_worker.joinable()) return true;
    _queue.open();
    try {
        _worker = std::thread([this] { work_off(); });
    } catch (...) {
        _queue.close();
        throw;
    }
    return true;
}

void ParallelInput::stop() {
    std::unique_lock<std::mutex> life(_lifeMutex);
    _isStopped.wait(life, [&] { return !_isStopping; });
    _isStopping = true;
    life.unlock();
    _queue.close();
    if (_worker.joinable()) _worker.join();
    _queue.change([&] { _colors.clear(); });
    _spares.clear();
    life.lock();
    _isStopping = false;
    _isStopped.notify_all();
}

void ParallelInput::work_off() {
    ownInput = this;
    Queue::Node taken;
    for (;;) {
        taken.clear();
        const Queue::Given given = _queue.take(taken, [&](const QueuedFrame& frame) { return due(frame); });
        if (given == Queue::Given::End) return;
        attach_color(taken.front());
        QueuedFrame& queued = taken.front();
        _work(queued, given == Queue::Given::GivenUp);
        if (queued.isCopy) _spares.give_back(std::move(queued.frame));
    }
}

std::deque<ParallelInput::EarlyColor>::const_iterator ParallelInput::find_color(std::int64_t frameId) const {
    return std::find_if(_colors.begin(), _colors.end(),
                        [&](const EarlyColor& early) { return early.frameId == frameId; });
}

FrameQueue<QueuedFrame>::Clock::time_point ParallelInput::due(const QueuedFrame& frame) const {
    if (!frame.awaitsColor || find_color(frame.data.frameId) != _colors.end()) return Queue::Clock::time_point::min();
    return frame.arrival + milliseconds(frame.data.colorWaitMilliseconds);
}

void ParallelInput::attach_color(QueuedFrame& frame) {
    _queue.change([&] {
        const auto found = find_color(frame.data.frameId);
        if (found == _colors.end()) return;
        const auto offset = found - _colors.cbegin();
        frame.data.color = std::move(_colors[static_cast<std::size_t>(offset)].image);
        _colors.erase(found);
    });
}

}  // namespace VexelAlgorithm
