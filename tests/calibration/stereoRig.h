// A stereo rig that the tests know to the last digit, as text file and as vector.
#pragma once

#include <cstdio>

#include "tests/common.h"

namespace VexelTest {

using namespace VexelAlgorithm;

struct Camera {
    double fx, fy, cx, cy, alpha;
    double k[5];
    RigidMatrix worldToCamera;

    Matrix3d K() const { return (Matrix3d() << fx, alpha * fx, cx, 0, fy, cy, 0, 0, 1).finished(); }

    std::vector<double> values() const {
        const Matrix3d& R = worldToCamera.get_rotation();
        const Vector3d& T = worldToCamera.get_translation();
        return {fx,    fy,    cx,      cy,      alpha,   k[0],    k[1],    k[2],    k[3],    k[4],    T.x(),
                T.y(), T.z(), R(0, 0), R(0, 1), R(0, 2), R(1, 0), R(1, 1), R(1, 2), R(2, 0), R(2, 1), R(2, 2)};
    }
    std::vector<float> vector() const {
        const std::vector<double> wide = values();
        std::vector<float> narrow;
        for (const double value : wide) narrow.push_back(static_cast<float>(value));
        return narrow;
    }
    std::string text() const {
        const std::vector<double> v = values();
        char text[2000];
        std::snprintf(text, sizeof text,
                      "Focal Length:          fc = [%.17g %.17g]\n"
                      "                            [0.5 0.25]\n"
                      "Principal point:       cc = [%.17g %.17g]\n"
                      "                            [0.5 0.25\n\n]alpha:              alpha = [%.17g] [0.001]\n"
                      "Distortion:            kc = [%.17g %.17g %.17g %.17g %.17g]\n"
                      "                            [0 0 1e-3 0 0]\n"
                      "Translation vector:     T = [%.17g %.17g %.17g]\n"
                      "Rotation Matrix:        R = [%.17g %.17g %.17g %.17g %.17g %.17g %.17g %.17g %.17g]\n"
                      "Standard Error:     error = [0.125]\n",
                      v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8], v[9], v[10], v[11], v[12], v[13], v[14],
                      v[15], v[16], v[17], v[18], v[19], v[20], v[21]);
        return text;
    }
};

constexpr int RIG_WIDTH = 331;  // no multiple of any vector length
constexpr int RIG_HEIGHT = 203;
const Vector2i RIG_SIZE(RIG_WIDTH, RIG_HEIGHT);

/// Converging cameras of different focal length, with distortion, in a world that is neither camera's.
struct Rig {
    Camera left{
        410, 405, 160, 98, 0, {-0.12, 0.08, 0.001, -0.002, 0.02}, RigidMatrix(turned({0.3, -0.2, 0.1}), {5, 9, 40})};
    Camera right{395, 398, 171, 104, 0, {0.09, -0.11, -0.001, 0.0015, 0}, RigidMatrix()};

    Rig() { set_pose(RigidMatrix(turned({0.02, 0.24, -0.03}), {-80, 2, 6})); }
    void set_pose(const RigidMatrix& leftToRight) { right.worldToCamera = leftToRight * left.worldToCamera; }
    RigidMatrix left_to_right() const { return right.worldToCamera * left.worldToCamera.inverse(); }
};

}  // namespace VexelTest
