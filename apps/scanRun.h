// A scan from the first frame to the last file, whatever its frames are made of.
#pragma once

#include "apps/ScanSession.h"
#include "apps/scanOptions.h"

namespace VexelAlgorithm::Apps {

/// What a scan works with. `settings` are complete and usable, the output folder exists.
struct ScanRun {
    const ScanOptions& options;
    const ScanSettings& settings;
    const GivenPoses& given;
    std::size_t frames = 0;
    FrameSource source;
    CameraInParam camera;  ///< of the session's frames; the preview is seen through it
    /// Takes coordinates of the session's frames to those of the camera whose poses the recording gives. Mesh,
    /// trajectory and comparison are said in the latter; their world is that of its first pose.
    RigidMatrix toRecorded;
};

/// Makes the session, scans until the last frame or Ctrl-C, writes mesh, preview, trajectory, plot and reports and
/// prints the summary. `report` is what `begin_report` and the command know. Returns the exit code.
int run_scan(const ScanRun& run, TrackReport& report);

}  // namespace VexelAlgorithm::Apps
