// Questions about a pose that would follow a history of poses.
#pragma once

#include <vector>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {

// Poses take camera to model coordinates; the step to a pose is the motion relative to the pose before, its turn the
// axis-angle vector of the rotation. Thresholds are those of a hand-held scanner at 10 to 30 frames a second.

/// Two steps are one motion when they differ by no more than this share of the larger one, or by this much.
constexpr double UNIFORM_SHARE = 0.25;
constexpr double UNIFORM_TRANSLATION = 1.0;  // mm
constexpr double UNIFORM_ANGLE = 0.01;       // radians
/// Turns below this have no direction that could be told from noise.
constexpr double TURN_ANGLE = 0.01;  // radians
/// Turns are opposite when the cosine between them is below this: more than 120 degrees apart.
constexpr double OPPOSITE_COSINE = -0.5;
/// How far back the last turn is looked for.
constexpr int TURN_HISTORY = 30;  // poses
/// What a step may be at most for the frame before to tell where the surface is.
constexpr double SEQUENCE_TRANSLATION = 20.0;  // mm
constexpr double SEQUENCE_ANGLE = 0.2;         // radians

/// Whether the step to `pose` repeats the last step of the history, as at constant speed. False when that has no step.
bool is_uniform_motion(const std::vector<RigidMatrix>& history, const RigidMatrix& pose);
/// Whether the step to `pose` turns against the last step of the history that turned.
bool is_rotation_inversed(const std::vector<RigidMatrix>& history, const RigidMatrix& pose);
/// Whether the step to `pose` is too large for a sequence to go on from the last pose; true without a history.
bool is_need_seq_rebuild(const std::vector<RigidMatrix>& history, const RigidMatrix& pose);

}  // namespace VexelAlgorithm
