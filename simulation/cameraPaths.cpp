#include "simulation/cameraPaths.h"

#include <Eigen/Geometry>
#include <cmath>
#include <limits>

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kRadians = kPi / 180.0;

Vector3d direction_of(double azimuth, double elevation) {
    return {std::cos(elevation) * std::cos(azimuth), std::cos(elevation) * std::sin(azimuth), std::sin(elevation)};
}

}  // namespace

RigidMatrix look_at(const Vector3d& eye, const Vector3d& target) {
    const Vector3d sight = target - eye;
    if (!(sight.norm() > 0.0) || !sight.allFinite()) {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        return {Matrix3d::Constant(nan), eye};
    }
    const Vector3d forward = sight.normalized();
    const bool isSteep = std::abs(forward.z()) > 1.0 - 1e-9;
    const Vector3d up = isSteep ? Vector3d::UnitY() : Vector3d::UnitZ();
    const Vector3d right = forward.cross(up).normalized();
    Matrix3d rotation;
    rotation << right, forward.cross(right), forward;
    return {rotation, eye};
}

std::vector<RigidMatrix> orbit_poses(const Orbit& orbit, int count) {
    std::vector<RigidMatrix> poses;
    for (int i = 0; i < count; ++i) {
        const double progress = static_cast<double>(i) / count;
        const double azimuth = (orbit.startAzimuth + 360.0 * orbit.turns * progress) * kRadians;
        const double elevation =
            (orbit.startElevation + (orbit.endElevation - orbit.startElevation) * progress) * kRadians;
        poses.push_back(look_at(orbit.target + orbit.radius * direction_of(azimuth, elevation), orbit.target));
    }
    return poses;
}

std::vector<RigidMatrix> sphere_poses(const Vector3d& target, double radius, int count) {
    const double goldenAngle = kPi * (3.0 - std::sqrt(5.0));
    std::vector<RigidMatrix> poses;
    for (int i = 0; i < count; ++i) {
        const double height = 1.0 - (2.0 * i + 1.0) / count;
        poses.push_back(look_at(target + radius * direction_of(goldenAngle * i, std::asin(height)), target));
    }
    return poses;
}

}  // namespace VexelAlgorithm::Simulation
