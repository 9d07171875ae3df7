#include "simulation/StereoRig.h"

#include <Eigen/Geometry>

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kRadians = 3.14159265358979323846 / 180.0;
constexpr double kMadeForWidth = 1280.0;

/// The pose of something that stands at `place` in the rig, turned by these angles (degrees) about its own y, x and z.
RigidMatrix mounted(const Vector3d& place, double yaw, double pitch, double roll) {
    const Matrix3d toRig =
        (Eigen::AngleAxisd(yaw * kRadians, Vector3d::UnitY()) * Eigen::AngleAxisd(pitch * kRadians, Vector3d::UnitX()) *
         Eigen::AngleAxisd(roll * kRadians, Vector3d::UnitZ()))
            .toRotationMatrix();
    return RigidMatrix(toRig, place).inverse();
}

/// The same view with another number of pixels.
DistortedCamera resized(DistortedCamera camera, int width, int height) {
    const double scale = width / kMadeForWidth;
    camera.cx = (camera.cx - 0.5 * (camera.width - 1)) * scale + 0.5 * (width - 1);
    camera.cy = (camera.cy - 0.5 * (camera.height - 1)) * scale + 0.5 * (height - 1);
    camera.fx *= scale;
    camera.fy *= scale;
    camera.width = width;
    camera.height = height;
    return camera;
}

}  // namespace

StereoRig make_stereo_rig(int width, int height) {
    // The axes of the cameras meet 400 mm in front of the rig's origin: atan(55 / 400) = 7.8 degrees each.
    StereoRig rig;
    rig.left = {1280, 1024, 2012.4, 2014.1, 648.3, 505.9, {-0.118, 0.142, 4.1e-4, -2.7e-4, -0.03}, {}};
    rig.left.rigToCamera = mounted({-55.0, 0.0, 0.0}, 7.6, 0.2, 0.35);
    rig.right = {1280, 1024, 1993.7, 1992.2, 631.8, 519.4, {-0.109, 0.117, -3.2e-4, 5.5e-4, 0.02}, {}};
    rig.right.rigToCamera = mounted({54.6, 0.9, 1.3}, -8.0, -0.3, -0.45);
    rig.projector.rigToProjector = mounted({5.0, -12.0, -4.0}, -0.7, -1.7, 0.0);

    const double scale = width / kMadeForWidth;
    rig.left = resized(rig.left, width, height);
    rig.right = resized(rig.right, width, height);
    rig.projector.pattern.spotSize /= scale;  // as many camera pixels as before
    return rig;
}

RigidMatrix left_to_right(const StereoRig& rig) {
    return rig.right.rigToCamera * rig.left.rigToCamera.inverse();
}

}  // namespace VexelAlgorithm::Simulation
