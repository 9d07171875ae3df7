// What the tests of the particle tracker look at.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/track/trackScenes.h"
#include "track/ParticleTrack.h"

namespace VexelTest {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kFailed = Track::ParticleTrack::FailedResidual;

inline std::string printed(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/// Mean distance (mm) between where the two poses put the frame's points.
inline double mean_displacement(const PointImage& frame, const RigidMatrix& a, const RigidMatrix& b) {
    double sum = 0.0;
    int count = 0;
    for (std::size_t i = 0; i < frame.get_vn(); i += 11) {
        if (!frame.has_point(i)) continue;
        sum += distance_between(a, b, frame.get_vCoord(i).cast<double>());
        ++count;
    }
    return sum / count;
}

/// The middle of the desk in the coordinates of its first view, mm.
const Vector3d kDeskCentre{0, 0, 400};

/// Things on a table, from a camera moved by `motion` out of a first view from 400 mm.
inline PointImage desk_view(const RigidMatrix& motion, int width = 160, const Vector2f& viewRadial = Vector2f::Zero()) {
    static const Simulation::ShapePtr desk = Simulation::smooth_union(
        {Simulation::half_space({0, 0, 0}, {0, 0, 1}), Simulation::sphere({-60, 20, 30}, 40),
         Simulation::box({50, 50, 30}, {35, 25, 30}), Simulation::torus({30, -60, 15}, 45, 15)},
        0.0);
    static const RigidMatrix first = Simulation::look_at({60, -300, 258}, {0, 0, 0});
    return render_view(*desk, first * motion, width, viewRadial);
}

constexpr double kWallDepth = 100.0;  // mm

/// A wall that faces the camera and fills its image, 1 mm a pixel.
inline PointImage wall(int width, int height, const Vector2f& viewRadial) {
    Simulation::RenderSettings settings;
    settings.viewRadial = viewRadial;
    return Simulation::render(*Simulation::half_space({0, 0, kWallDepth}, {0, 0, -1}),
                              {kWallDepth, kWallDepth, 0.5 * width, 0.5 * height}, width, height, RigidMatrix(),
                              settings);
}

}  // namespace VexelTest
