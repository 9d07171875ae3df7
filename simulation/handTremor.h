// The unsteadiness of a hand that holds the scanner.
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm::Simulation {

/// Each of the six degrees of freedom is a stationary, band-limited random function of time: a sum of sinusoids with
/// random phases, one in each of eight equal bands of frequency (Shinozuka and Jan, "Digital simulation of random
/// processes and its applications", 1972). A hand that is meant to be at rest or to move evenly wanders below some
/// 2 Hz; at 15 frames a second that is below 0.15 cycles a frame. The physiological tremor of 8 to 12 Hz is far
/// smaller than a pixel of a scanner at arm's length and left out.
struct HandTremor {
    std::uint64_t seed = 1;
    double translation = 1.0;       ///< mm, root mean square of each axis
    double rotation = 0.2;          ///< degrees, root mean square about each axis
    double highestFrequency = 0.1;  ///< cycles a frame; the lowest is a tenth of it
};

/// The motion of the scanner in its own coordinates at a time (frames, fractions too): to be multiplied onto the pose
/// of a steady scanner from the right. Deterministic and smooth in time.
RigidMatrix tremor_motion(const HandTremor& tremor, double time);

/// The path as a hand would walk it: pose i times the motion at time i.
std::vector<RigidMatrix> shaken(const std::vector<RigidMatrix>& poses, const HandTremor& tremor);

/// How fast a path is: between neighbouring poses.
struct PathSpeed {
    double meanTranslation = 0.0;  ///< mm a frame
    double largestTranslation = 0.0;
    double meanRotation = 0.0;  ///< degrees a frame
    double largestRotation = 0.0;
};
/// All zero for fewer than two poses.
PathSpeed path_speed(const std::vector<RigidMatrix>& poses);

}  // namespace VexelAlgorithm::Simulation
