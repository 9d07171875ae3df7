// A scan as an application runs it: frame after frame into a session, then the mesh.
#pragma once

#include <functional>

#include "apps/ScanSettings.h"
#include "apps/TrackReport.h"
#include "foundation/BaseTriMesh.h"
#include "foundation/PointImage.h"
#include "recording/Outcome.h"
#include "recording/trajectoryEvaluation.h"

namespace VexelAlgorithm::Apps {

/// The session's handle; released when it goes.
class ScanSession {
public:
    /// Without a handle when the session refuses the settings; its lines say why.
    explicit ScanSession(const ScanSettings& settings);
    ~ScanSession();
    ScanSession(const ScanSession&) = delete;
    ScanSession& operator=(const ScanSession&) = delete;

    void* handle() const { return _handle; }

private:
    void* _handle;
};

/// A frame on its way into the session, in the coordinates of its camera.
struct ScanFrame {
    int number = 0;
    PointImage points;
    double readMs = 0.0;
    double pointsMs = 0.0;
};

/// Gives the frame of an index, counted from 0 and asked for in this order.
using FrameSource = std::function<Outcome<ScanFrame>(std::size_t)>;

/// Scans `count` frames until the last one or an interrupt. Fails when a frame cannot be had. The report gets the
/// frames and their times, `compared` their numbers, found poses and points.
Outcome<Done> scan_frames(const ScanSession& session, std::size_t count, const FrameSource& source, TrackReport& report,
                          std::vector<ComparedFrame>& compared);

/// The model so far, in the session's coordinates.
Outcome<BaseTriMesh> extract_mesh(const ScanSession& session, float pointDis, TrackReport& report);

/// Runs the work; adds its time to the stage and writes it to `milliseconds`.
template <class Work>
auto timed(StageClock& clock, const char* stage, double& milliseconds, Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    auto result = clock.time(stage, work);
    milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    return result;
}

}  // namespace VexelAlgorithm::Apps
