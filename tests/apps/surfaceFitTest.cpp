// Spheres and planes through points of known surfaces with known noise.
#include <Eigen/Geometry>

#include "apps/surfaceFit.h"
#include "tests/common.h"

namespace VexelAlgorithm::Apps {
namespace {

class Dice {
public:
    double normal() { return _normal(_engine); }
    double within(double reach) { return std::uniform_real_distribution<double>(-reach, reach)(_engine); }

private:
    std::mt19937 _engine{3};
    std::normal_distribution<double> _normal;
};

/// Evenly over a cap about the z axis of so many degrees, seen from -z.
std::vector<Vector3d> cap(const Vector3d& centre, double radius, double degrees, int count, double noise) {
    Dice dice;
    std::vector<Vector3d> points;
    const double least = std::cos(degrees / 57.29577951308232);
    for (int i = 0; i < count; ++i) {
        const double height = least + (1.0 - least) * (i + 0.5) / count, azimuth = 2.399963 * i;
        const double flat = std::sqrt(1.0 - height * height);
        const Vector3d direction(flat * std::cos(azimuth), flat * std::sin(azimuth), -height);
        points.push_back(centre + (radius + noise * dice.normal()) * direction);
    }
    return points;
}

std::vector<Vector3d> plate(const Matrix3d& pose, const Vector3d& middle, int count, double noise) {
    Dice dice;
    std::vector<Vector3d> points;
    for (int i = 0; i < count; ++i)
        points.push_back(middle + pose * Vector3d(dice.within(75), dice.within(50), noise * dice.normal()));
    return points;
}

TEST(SurfaceFit, SpheresAreFoundAsWellAsTheNoiseAllows) {
    const std::tuple<Vector3d, double, double, double> cases[] = {
        {{0, 0, 400}, 25, 60, 0},      {{-60, 45, 340}, 25, 60, 0.02}, {{60, -45, 460}, 25, 60, 0.2},
        {{1e4, -2e4, 3e4}, 25, 60, 0}, {{0, 0, 400}, 25, 180, 0.02},   {{3, 2, 1}, 1e-3, 60, 0},
        {{0, 0, 2000}, 1500, 3, 0}};
    for (const auto& [centre, radius, degrees, noise] : cases) {
        constexpr int count = 10000;
        const auto sphere = fit_sphere(cap(centre, radius, degrees, count, noise));
        ASSERT_TRUE(sphere) << radius;
        // Five times the standard deviation that the normal equations of such a cap promise.
        const double spread = (1 - std::cos(degrees / 57.29577951308232)) / std::sqrt(12.0);
        const double sigma = noise / std::sqrt(count) / spread;
        EXPECT_NEAR(sphere->radius, radius, 5 * sigma + 1e-7 * radius) << degrees;
        EXPECT_LT((sphere->centre - centre).norm(), 7 * sigma + 1e-7 * radius) << degrees;
    }
}

TEST(SurfaceFit, TheSphereIsThatOfLeastSquaresOfDistances) {
    const std::vector<Vector3d> points = cap({10, 20, 300}, 20, 50, 500, 0.5);
    const auto best = fit_sphere(points);
    ASSERT_TRUE(best);
    double slopes[4] = {};  // of half the sum of squares
    for (const Vector3d& point : points) {
        const Vector3d away = (best->centre - point).normalized();
        for (int i = 0; i < 4; ++i) slopes[i] += best->deviation(point) * (i < 3 ? away[i] : -1.0);
    }
    for (const double slope : slopes) EXPECT_NEAR(slope, 0, 1e-6);
}

TEST(SurfaceFit, PlanesAreFoundAsWellAsTheNoiseAllows) {
    const Matrix3d tilted = Eigen::AngleAxisd(0.5, Vector3d(1, 2, 0.3).normalized()).toRotationMatrix();
    for (const double noise : {0.0, 0.02, 1.0}) {
        const auto plane = fit_plane(plate(tilted, {30, -20, 400}, 10000, noise));
        ASSERT_TRUE(plane);
        EXPECT_GT(plane->normal.dot(-tilted.col(2)), std::cos(5 * noise / 100 / 28.9 + 1e-7));
        EXPECT_NEAR(plane->deviation({30, -20, 400}), 0, 5 * noise / 100 + 1e-9);
    }
}

TEST(SurfaceFit, TheWorstPointsAreLeftOut) {
    std::vector<Vector3d> ball = cap({0, 0, 400}, 25, 60, 10000, 0.02),
                          wall = plate(Matrix3d::Identity(), {0, 0, 400}, 10000, 0.02);
    for (std::size_t i = 0; i < 30; ++i) {
        ball[100 + 300 * i].z() -= 5;
        wall[100 + 300 * i].z() -= 5;
    }
    const auto sphere = fit_sphere_without_worst(ball, 0.003);
    const auto plane = fit_plane_without_worst(wall, 0.003);
    ASSERT_TRUE(sphere && plane);
    EXPECT_EQ(sphere->leftOut, 30U);
    EXPECT_EQ(plane->leftOut, 30U);
    EXPECT_EQ(std::count(plane->isKept.begin(), plane->isKept.end(), 0), 30);
    EXPECT_EQ(plane->isKept[100], 0);
    EXPECT_NEAR(sphere->surface.radius, 25, 0.01);
    // The range of 9970 normal values is 7.7 standard deviations on average, spread by 0.5.
    EXPECT_NEAR(sphere->form_error(), 7.7 * 0.02, 0.05);
    EXPECT_NEAR(plane->form_error(), 7.7 * 0.02, 0.05);
    EXPECT_NEAR(plane->rms, 0.02, 0.001);
    EXPECT_GT(fit_plane_without_worst(wall, 0.0)->form_error(), 4.9);
}

TEST(SurfaceFit, WhatDeterminesNoSurfaceGivesNothing) {
    const double nan = std::nan("");
    const std::vector<Vector3d> none, line{{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {3, 3, 3}, {4, 4, 4}};
    const std::vector<Vector3d> flat{{0, 0, 5}, {1, 0, 5}, {0, 1, 5}, {1, 1, 5}, {3, 2, 5}};
    const std::vector<Vector3d> same(9, Vector3d(1, 2, 3));
    const std::vector<Vector3d> bad{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {nan, 0, 0}};
    for (const auto& points : {none, line, flat, same, bad}) EXPECT_FALSE(fit_sphere(points));
    for (const auto& points : {none, line, same, bad}) EXPECT_FALSE(fit_plane(points));
    EXPECT_FALSE(fit_sphere_without_worst(cap({0, 0, 0}, 1, 60, 10, 0), 0.9));
}

}  // namespace
}  // namespace VexelAlgorithm::Apps
