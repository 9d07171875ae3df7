// Trajectories as text: one line a pose, as the TUM RGB-D benchmark writes them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/RigidMatrix.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// A pose from camera to model or world coordinates (mm) and its time in seconds.
struct TimedPose {
    double time = 0.0;
    RigidMatrix cameraToWorld;
};

/// "time tx ty tz qx qy qz qw" a line, translation in metres, unit quaternion with qw >= 0; the first line is a comment
/// that says so. Fixed decimals: 0.1 micrometre and 1e-9 in the quaternion.
std::string trajectory_text(const std::vector<TimedPose>& poses);

/// Reads what `trajectory_text` writes and what other programs write in that form: lines that begin with '#' and empty
/// lines are skipped. Times must rise; quaternions may be off unit length by what rounding to three decimals does. The
/// reason of a failure is the cause alone, with the line's number, without a file name.
Outcome<std::vector<TimedPose>> parse_trajectory(std::string_view text);
/// The same from a file of at most 64 MiB; the reason names the file.
Outcome<std::vector<TimedPose>> read_trajectory(const std::filesystem::path& path);

}  // namespace VexelAlgorithm
