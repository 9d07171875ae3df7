// The text files of a recording: a frame's pose, the camera's intrinsics and the step of its depths.
#pragma once

#include <string>
#include <string_view>

#include "foundation/CameraInParam.h"
#include "foundation/RigidMatrix.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// How far an entry of R^T R may be from the identity's before a matrix is no rotation: what rounding to
/// three decimals can do. Real trackers write matrices that are off by up to some 2e-4.
constexpr double rotationTolerance = 2e-3;

/// A 4 x 4 camera-to-world matrix, row by row, with the translation in metres; the result is in millimetres
/// and its rotation re-orthonormalised. A matrix that holds NaN, is scaled, sheared or mirrored, or whose
/// last row is not 0 0 0 1, is refused. The reason of a failure is the cause alone, without a file name.
Outcome<RigidMatrix> parse_pose(std::string_view text);
/// What `parse_pose` reads.
std::string pose_text(const RigidMatrix& cameraToWorld);

/// A 3 x 3 camera matrix in pixels without skew. The reason of a failure is the cause alone.
Outcome<CameraInParam> parse_intrinsics(std::string_view text);
std::string intrinsics_text(const CameraInParam& camera);

/// One number from 1e-6 to 1000: millimetres. The reason of a failure is the cause alone.
Outcome<double> parse_depth_step(std::string_view text);
std::string depth_step_text(double step);

}  // namespace VexelAlgorithm
