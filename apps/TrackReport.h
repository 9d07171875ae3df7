// What a tracking run did, for people and for programs.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "apps/reportParts.h"
#include "fusiontrackoperation/FusionScanState.h"
#include "recording/DepthImage.h"
#include "recording/trajectoryEvaluation.h"
#include "recording/trajectoryText.h"

namespace VexelAlgorithm::Apps {

/// One frame on its way through the session.
struct TrackedFrame {
    int number = 0;
    bool isAccepted = false;
    FusionScanState state;   ///< right after the frame step
    RigidMatrix pose;        ///< camera to model, mm; of an accepted frame
    int displayPoints = 0;   ///< in the display cloud after the frame
    double readMs = 0.0;     ///< reading the images
    double pointsMs = 0.0;   ///< from the images to points with normals
    double stepMs = 0.0;     ///< the frame step as its caller sees it
    double displayMs = 0.0;  ///< fetching the display cloud
};

/// The stereo scanner of a recording of pairs.
struct RigSummary {
    double baseline = 0.0;     ///< mm
    double focalLength = 0.0;  ///< of the rectified cameras, pixels
    Vector2i findRange = Vector2i::Zero();
    Vector2f depthRange = Vector2f::Zero();  ///< mm; zero when the search range was given in pixels
    int sampleRatio = 1;
};

/// "fused", "residual too large", ...
std::string outcome_text(FrameOutcome outcome);

struct FrameStage {
    const char* name;
    double (*milliseconds)(const TrackedFrame&);
};

struct TrackReport {
    // input
    std::string recording;
    std::string preset;
    std::string settingsFile;  ///< empty without one
    std::string resumed;       ///< project of the scan that went on; empty for a new one
    ImageSize imageSize;
    int framesSelected = 0;
    int step = 1;
    int threads = 1;
    double rate = 30.0;  ///< frames a second, as the trajectory's times go
    float voxel = 0.0f;  ///< mm
    bool isInterrupted = false;
    const char* pointsStage = "points";  ///< how the points of a frame come about
    std::optional<RigSummary> rig;

    std::vector<TrackedFrame> frames;

    // comparison, with a truth
    std::string truth;  ///< where it is from; empty without one
    std::vector<TrajectoryErrors> errors;

    MeshFigures mesh;

    // differs from run to run, and so do the times of the frames
    StageClock clock;
    double peakMemoryMib = 0.0;

    int accepted() const;
    /// The stages of a frame in their order; the time of the whole is not among them.
    std::array<FrameStage, 9> frame_stages() const;
    /// The accepted poses at frame number / rate seconds.
    std::vector<TimedPose> trajectory() const;
};

/// Times and memory stand in objects "timing" and "memory" of their own, those of the frames under "timing" too.
std::string json_text(const TrackReport& report);
/// A summary, the comparison, times, and a line for every frame.
std::string plain_text(const TrackReport& report);
/// The part of `plain_text` before the lines of the frames.
std::string summary_text(const TrackReport& report);

}  // namespace VexelAlgorithm::Apps
