// Poses of a virtual scanner on its way around an object.
#pragma once

#include <vector>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm::Simulation {

// Poses are camera to world: x right, y down, z forward in the camera; mm. The world's z axis points up.
// Angles in degrees. Arguments that are not finite give poses that are not finite, which `render` refuses.

/// The camera stands at `eye` and looks at `target`, the world's up direction upwards in its image (any
/// direction upwards when it looks straight up or down). `eye` must not be `target`.
RigidMatrix look_at(const Vector3d& eye, const Vector3d& target);

/// A walk around the target.
struct Orbit {
    Vector3d target = Vector3d::Zero();  ///< looked at from every pose
    double radius = 400.0;               ///< mm from the target
    double startAzimuth = -90.0;         ///< from the x axis towards the y axis; -90 looks from the front along y
    double turns = 1.0;                  ///< of the whole walk; negative for clockwise seen from above
    double startElevation = 20.0;        ///< above the horizon
    double endElevation = 20.0;          ///< a value other than the start makes it a spiral
};
/// `count` poses evenly spaced over the walk; the last one stands one step before its end, so that a full
/// turn repeats no pose. None when count is below 1.
std::vector<RigidMatrix> orbit_poses(const Orbit& orbit, int count);

/// Poses spread evenly over the whole sphere around the target, neighbours far apart (Fibonacci lattice).
std::vector<RigidMatrix> sphere_poses(const Vector3d& target, double radius, int count);

}  // namespace VexelAlgorithm::Simulation
