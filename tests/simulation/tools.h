// What the tests of the virtual world share.
#pragma once

#include <Eigen/Geometry>

#include "simulation/combinations.h"
#include "simulation/primitives.h"
#include "tests/common.h"

namespace VexelAlgorithm::Simulation {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

/// The same throws in every run.
class Dice {
public:
    double within(double reach) { return std::uniform_real_distribution<double>(-reach, reach)(_engine); }
    Vector3d point(double reach) { return {within(reach), within(reach), within(reach)}; }
    Vector3d direction() { return point(1).normalized(); }

private:
    std::mt19937 _engine{42};
};

inline RigidMatrix tilted() {
    return {Eigen::AngleAxisd(0.7, Vector3d(1, -2, 0.5).normalized()).toRotationMatrix(), {5, -3, 8}};
}

struct NamedShape {
    const char* name;
    ShapePtr shape;
    bool isExact;  ///< distance is the true one
};

/// One of every kind, each around the origin and within 120 mm of it.
inline std::vector<NamedShape> all_kinds() {
    const ShapePtr cross = smooth_union({box({0, 0, 0}, {50, 12, 12}), round_cone({0, -50, 0}, 9, {0, 50, 5}, 16)}, 8);
    return {
        {"sphere", sphere({1, 2, 3}, 40), true},
        {"half-space", half_space({0, 0, -5}, {1, 2, 9}), true},
        {"box", box({2, 0, 1}, {30, 20, 45}), true},
        {"rounded box", box({0, 3, 0}, {30, 20, 45}, 7), true},
        {"torus", torus({0, 0, 4}, 45, 14), true},
        {"ellipsoid", ellipsoid({0, 1, 0}, {50, 30, 9}), true},
        {"ball as ellipsoid", ellipsoid({0, 0, 0}, {33, 33, 33}), true},
        {"round cone", round_cone({-30, 0, 0}, 25, {40, 10, 5}, 8), true},
        {"moved torus", moved(torus({0, 0, 0}, 45, 14), tilted()), true},
        {"smooth union", cross, false},
        {"moved union in union", smooth_union({moved(cross, tilted()), sphere({0, 0, 40}, 20)}, 5), false},
        {"sharp union", smooth_union({sphere({-20, 0, 0}, 30), torus({25, 0, 0}, 40, 10)}, 0), false},
        {"sharp difference", smooth_difference(sphere({0, 0, 0}, 45), box({20, 0, 0}, {40, 15, 15}), 0), false},
        {"smooth difference", smooth_difference(box({0, 0, 0}, {40, 40, 40}), sphere({40, 0, 40}, 35), 6), false},
    };
}

template <class Call>
void expect_one_line(const Call& call, const std::string& what = "") {
    const std::string text = VexelTest::printed(call);
    EXPECT_TRUE(text.size() > 10 && text.find('\n') == text.size() - 1) << what << ": " << text;
}

}  // namespace VexelAlgorithm::Simulation
