#include "apps/ScanSession.h"

#include "algorithmQorInclude.h"
#include "apps/Progress.h"
#include "apps/interrupt.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

void scan_frame(void* handle, const PointImage& frame, TrackedFrame& tracked, StageClock& clock) {
    int elapsedMicroseconds = 0;
    tracked.isAccepted = timed(clock, "frame step", tracked.stepMs,
                               [&] { return fusion_and_track(handle, frame, elapsedMicroseconds); });
    get_fusion_scan_state(handle, tracked.state);
    tracked.displayPoints =
        timed(clock, "display", tracked.displayMs, [&] { return static_cast<int>(get_show_data(handle).get_vn()); });
    if (tracked.isAccepted) tracked.pose = get_current_rt(handle);
}

}  // namespace

ScanSession::ScanSession(const ScanSettings& settings)
    : _handle(settings.texture.isUsed ? fusion_and_track_ini(settings.common, settings.track, settings.fusion,
                                                             settings.texture.param, settings.texture.leftToTexture)
                                      : fusion_and_track_ini(settings.common, settings.track, settings.fusion)) {
    if (_handle == nullptr) return;
    set_icpStableThreadhold(_handle, settings.session.icpStableThreadhold);
    set_icpKeepRatio(_handle, settings.session.icpKeepRatio);
    if (settings.session.recovery) set_feature_recovery(_handle, true);
}

ScanSession::~ScanSession() {
    if (_handle != nullptr) fusiontrack_release(_handle);
}

Outcome<Done> scan_frames(const ScanSession& session, std::size_t count, const FrameSource& source, TrackReport& report,
                          std::vector<ComparedFrame>& compared) {
    const InterruptGuard interrupt;
    Progress progress("tracking", static_cast<int>(count));
    for (std::size_t index = 0; index < count; ++index) {
        const Outcome<ScanFrame> frame = source(index);
        if (!frame) return frame.failure();
        TrackedFrame tracked;
        tracked.number = frame->number;
        tracked.readMs = frame->readMs;
        tracked.pointsMs = frame->pointsMs;
        scan_frame(session.handle(), frame->points, tracked, report.clock);
        report.frames.push_back(tracked);
        compared.push_back({tracked.number, std::nullopt, std::nullopt, point_moments(frame->points)});
        if (tracked.isAccepted) compared.back().found = tracked.pose;
        progress.advance();
        if (interrupt.is_interrupted()) {
            report.isInterrupted = true;
            return Done{};
        }
    }
    return Done{};
}

Outcome<BaseTriMesh> extract_mesh(const ScanSession& session, float pointDis, TrackReport& report) {
    if (report.accepted() == 0 && report.resumed.empty()) {
        return Failure{format_text("no frame was accepted; frame %d: ", report.frames.front().number) +
                       outcome_text(report.frames.front().state.outcome)};
    }
    BaseTriMesh mesh;
    const RetVal result =
        report.clock.time("extract", [&] { return get_fusion_result_tbb(session.handle(), pointDis, mesh); });
    if (result != RET_SUCCESS) return Failure{"the mesh could not be extracted; take a larger fusion.pointDis"};
    if (mesh.get_fn() == 0) return Failure{"no surface came out; scan more frames"};
    return mesh;
}

}  // namespace VexelAlgorithm::Apps
