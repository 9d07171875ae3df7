// What the session's worker does with the frames of the threaded input.
#include <utility>

#include "foundation/handle.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/refusal.h"

namespace VexelAlgorithm {
namespace {

/// Calls the application's function, if there is one. No lock and no lines are held meanwhile.
template <class... Parameters, class... Arguments>
void call_application(const char* setter, void (*callback)(Parameters...), Arguments&&... arguments) noexcept {
    if (callback == nullptr) return;
    try {
        callback(std::forward<Arguments>(arguments)...);
    } catch (...) {
        handle_detail::report_current_exception(setter);
    }
}

bool is_illegal(FrameOutcome outcome) {
    return outcome == FrameOutcome::MissingAttributes || outcome == FrameOutcome::BadFrame;
}

}  // namespace

RetVal FusionTrack::load_color(const char* function, const ColorImage& color, std::int64_t frameId) {
    const auto reason = color.is_legal() && _colorCamera.is_there() ? _colorCamera.find_unusable(color) : std::nullopt;
    if (reason) {
        refuse(function, *reason);
        return RET_INPUT_ERROR;
    }
    return _parallelInput.load_color(function, frameId, color);
}

void FusionTrack::work_on(QueuedFrame& queued, bool isGivenUp) noexcept {
    QueuedStep result;
    queued.data.outcome = isGivenUp ? FrameOutcome::GivenUp
                                    : guarded<FrameOutcome>("fusion_and_track_parallel", FrameOutcome::Failed,
                                                            [&] { return step_queued(queued, result); });
    report_frame(queued, result);
}

void FusionTrack::report_frame(QueuedFrame& queued, const QueuedStep& result) {
    if (is_accepted(queued.data.outcome)) {
        if (const auto onSuccess = stored(&FusionTrack::_onSuccess)) report_success(queued, result, onSuccess);
    } else if (is_illegal(queued.data.outcome)) {
        call_application("the function given to set_illegal_input_call_back", stored(&FusionTrack::_onIllegalInput),
                         &queued.data);
    } else {
        call_application("the function given to set_fusion_fail_call_back", stored(&FusionTrack::_onFail), queued.frame,
                         &queued.data);
    }
}

void FusionTrack::report_success(QueuedFrame& queued, const QueuedStep& result, FusionSuccessCallBack onSuccess) {
    const Cloud none;
    const Cloud* shown = &none;
    std::vector<int> changedLeaves;
    if (queued.data.showData) {
        guarded("fusion_and_track_parallel", [&] { shown = &get_show_data(changedLeaves); });
    }
    call_application("the function given to set_fusion_success_call_back", onSuccess, *shown, changedLeaves,
                     result.acceptedFrames, queued.frame, result.relative, result.pose, &queued.data,
                     static_cast<int>(queued.data.outcome));
}

const Cloud& FusionTrack::get_show_data(std::vector<int>& changedLeaves) {
    const std::lock_guard<std::mutex> inner(_innerMutex);
    changedLeaves.assign(_changedLeaves.begin(), _changedLeaves.end());
    _display.update(_volume, _changedLeaves);
    return _display.points();
}

template <class Callback>
Callback FusionTrack::stored(Callback FusionTrack::*callback) const {
    const std::lock_guard<std::mutex> callbacks(_callbackMutex);
    return this->*callback;
}

bool FusionTrack::may_stop_worker(const char* function) const {
    return !_parallelInput.is_worker_thread() || refuse(function, "a callback of the session is calling it");
}

}  // namespace VexelAlgorithm
