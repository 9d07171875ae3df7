// What happened to the last frame of a session, and why.
#pragma once

#include <cstdint>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {

/// The fate of a frame. Numbers are part of the interface.
enum class FrameOutcome : std::int32_t {
    NoFrameYet = 0,
    FirstFrame = 1,         ///< fused as the beginning of the model
    Fused = 2,              ///< tracked and fused
    TrackedOnly = 3,        ///< tracked; it added too little to be fused, or only tracking was asked for
    MissingAttributes = 4,  ///< no normals, weights or flags
    BadFrame = 5,           ///< of another size, no usable camera, not consistent in itself
    TooFewPoints = 6,       ///< the frame has fewer valid points than the limit
    EmptyPrediction = 7,    ///< the model as seen from the last pose has fewer points than the limit
    NoCorrespondences = 8,
    ResidualTooLarge = 9,
    TooFewValid = 10,  ///< too small a share of frame or prediction ended as correspondences
    NotConverged = 11,
    TooFast = 12,
    Failed = 13,   ///< anything else: memory, singular system; a line says what
    GivenUp = 14,  ///< only of the threaded input: reset or release came before the frame's turn
    // Only where recovery is on (`set_feature_recovery`).
    Recovered = 15,     ///< lost and found again by its features; not fused
    Contradicted = 16,  ///< tracked to a pose from where the model looks otherwise
};

/// Whether the frame's pose joined the pose list.
inline bool is_accepted(FrameOutcome outcome) {
    return outcome == FrameOutcome::FirstFrame || outcome == FrameOutcome::Fused ||
           outcome == FrameOutcome::TrackedOnly || outcome == FrameOutcome::Recovered;
}

/// Milliseconds on the clock of the stages of the last frame step; 0 for stages that were not reached.
struct FrameStepTimes {
    double prepare = 0.0;
    double particles = 0.0;
    double icp = 0.0;
    double contribution = 0.0;
    double integrate = 0.0;
    double predict = 0.0;
    double whole = 0.0;
};

struct FusionScanState {
    FrameOutcome outcome = FrameOutcome::NoFrameYet;
    bool isStable = true;     ///< false: the geometry leaves the pose free in some direction (a bare plane)
    bool isLost = false;      ///< the last frame was rejected; the session waits near the last accepted pose
    float residual = 0.0F;    ///< mean point-to-plane distance of the ICP's result, mm
    int correspondences = 0;  ///< of the ICP's last iteration
    int frameValid = 0;       ///< valid points of the frame
    int predictionValid = 0;  ///< valid points of the prediction that the frame was tracked against
    int acceptedFrames = 0;   ///< length of the pose list
    RigidMatrix relative;     ///< motion of the last tracked frame relative to the pose before
    FrameStepTimes times;
};

}  // namespace VexelAlgorithm
