// Frames of the virtual world for registration.
#pragma once

#include "foundation/PointImage.h"
#include "simulation/cameraPaths.h"
#include "simulation/combinations.h"
#include "simulation/primitives.h"
#include "simulation/render.h"
#include "simulation/scenes.h"
#include "tests/common.h"

namespace VexelTest {

using namespace VexelAlgorithm;

inline CameraInParam test_camera(int width) {
    return CameraInParam(1.4 * width, 1.4 * width, 0.5 * width - 0.5, 0.375 * width - 0.5);
}

inline PointImage render_view(const Simulation::Shape& scene, const RigidMatrix& cameraToWorld, int width = 160,
                              const Vector2f& viewRadial = Vector2f::Zero()) {
    Simulation::RenderSettings settings;
    settings.viewRadial = viewRadial;
    return Simulation::render(scene, test_camera(width), width, width * 3 / 4, cameraToWorld, settings);
}

/// The demo object from the front, from 400 mm.
inline RigidMatrix front_view() {
    const Vector3d target = Simulation::owl_centre();
    return Simulation::look_at(target + Vector3d(60.0, -390.0, 70.0), target);
}

inline RigidMatrix motion(const Vector3d& axisAngle, const Vector3d& translation) {
    return {turned(axisAngle), translation};
}

/// How far (mm) the two poses move the point apart.
inline double distance_between(const RigidMatrix& a, const RigidMatrix& b, const Vector3d& at) {
    return (a * at - b * at).norm();
}

/// Largest distance (mm) by which the poses move points of the object apart.
inline double pose_error(const RigidMatrix& found, const RigidMatrix& truth) {
    return std::max(distance_between(found, truth, {0, 0, 300}), distance_between(found, truth, {50, 50, 450}));
}

}  // namespace VexelTest
