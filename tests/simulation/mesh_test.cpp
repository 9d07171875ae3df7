// Meshes as solids: against every triangle looked at, and against the solids that they stand for.
#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <array>
#include <cmath>
#include <random>

#include "simulation/DistortedCamera.h"
#include "simulation/SurfaceView.h"
#include "simulation/TriangleTree.h"
#include "simulation/cameraPaths.h"
#include "simulation/combinations.h"
#include "simulation/meshShape.h"
#include "simulation/primitives.h"

namespace VexelAlgorithm::Simulation {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct Mesh {
    std::vector<Vector3f> points;
    std::vector<Vector3i> triangles;

    void add_quad(int a, int b, int c, int d) {
        triangles.emplace_back(a, b, c);
        triangles.emplace_back(a, c, d);
    }
};

/// Rings from pole to pole; neighbours have their own copies of the points along the seam, as files do.
Mesh ball(double radius, int rings, int columns) {
    Mesh mesh;
    for (int ring = 0; ring <= rings; ++ring)
        for (int column = 0; column <= columns; ++column) {
            const double polar = kPi * ring / rings, azimuth = 2 * kPi * (column % columns) / columns;
            const double flat = ring % rings == 0 ? 0.0 : std::sin(polar);
            mesh.points.push_back(
                Vector3d(radius * flat * std::cos(azimuth), radius * flat * std::sin(azimuth), radius * std::cos(polar))
                    .cast<float>());
        }
    for (int ring = 0; ring < rings; ++ring)
        for (int column = 0; column < columns; ++column) {
            const int a = ring * (columns + 1) + column;
            mesh.add_quad(a, a + columns + 1, a + columns + 2, a + 1);
        }
    return mesh;
}

Mesh brick(const Vector3f& half) {
    Mesh mesh;
    for (int i = 0; i < 8; ++i)
        mesh.points.emplace_back((i & 1 ? 1 : -1) * half.x(), (i & 2 ? 1 : -1) * half.y(), (i & 4 ? 1 : -1) * half.z());
    const int sides[6][4] = {{0, 4, 6, 2}, {1, 3, 7, 5}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 2, 3, 1}, {4, 5, 7, 6}};
    for (const auto& side : sides) mesh.add_quad(side[0], side[1], side[2], side[3]);
    return mesh;
}

class Dice {
public:
    double within(double reach) { return std::uniform_real_distribution<double>(-reach, reach)(_engine); }
    Vector3d point(double reach) { return {within(reach), within(reach), within(reach)}; }
    Vector3d direction() { return point(1).normalized(); }

private:
    std::mt19937 _engine{5};
};

/// Scattered ones, a heap in one place, and sizes over many powers of ten.
Mesh heap(int count) {
    Dice dice;
    Mesh mesh;
    for (int i = 0; i < count; ++i) {
        const Vector3d centre = i % 3 == 0 ? Vector3d(1, 2, 3) : dice.point(50);
        const double size = i % 3 == 1 ? std::pow(10.0, dice.within(6) - 5) : 8.0;
        for (int corner = 0; corner < 3; ++corner) mesh.points.push_back((centre + dice.point(size)).cast<float>());
        mesh.triangles.emplace_back(3 * i, 3 * i + 1, 3 * i + 2);
    }
    return mesh;
}

TEST(TriangleTree, FindsWhatLookingAtEveryTriangleFinds) {
    for (const int count : {1, 5, 700}) {
        const Mesh mesh = heap(count);
        const TriangleTree tree(mesh.points, mesh.triangles);
        Dice dice;
        for (int n = 0; n < 400; ++n) {
            const Vector3d query = dice.point(70);
            Ray ray{query, dice.direction()};
            if (n % 4 == 0) ray.direction = Vector3d::Unit(n / 4 % 3);
            double nearest = kNoLimit, first = kNoLimit;
            for (const Vector3i& triangle : mesh.triangles) {
                const TriangleTree alone(mesh.points, {triangle});
                nearest = std::min(nearest, (alone.nearest_to(query).point - query).norm());
                if (const auto hit = alone.first_hit(ray, 1e-6, 60)) first = std::min(first, hit->range);
            }
            EXPECT_DOUBLE_EQ((tree.nearest_to(query).point - query).norm(), nearest);
            const auto hit = tree.first_hit(ray, 1e-6, 60);
            EXPECT_DOUBLE_EQ(hit ? hit->range : kNoLimit, first);
        }
    }
}

TEST(TriangleTree, SingleTriangleAgainstDenseSamples) {
    Dice dice;
    for (int n = 0; n < 200; ++n) {
        std::array<Vector3d, 3> corners;  // which floats hold exactly
        for (Vector3d& corner : corners) corner = (1024 * dice.point(10)).array().round() / 1024;
        const auto single = [&](int i) -> Vector3f { return corners[static_cast<std::size_t>(i)].cast<float>(); };
        const TriangleTree tree({single(0), single(1), single(2)}, {{0, 1, 2}});
        const Vector3d query = dice.point(20);
        double sampled = kNoLimit;
        for (int i = 0; i <= 60; ++i)
            for (int j = 0; i + j <= 60; ++j) {
                const Vector3d point =
                    corners[0] + (corners[1] - corners[0]) * (i / 60.0) + (corners[2] - corners[0]) * (j / 60.0);
                sampled = std::min(sampled, (point - query).norm());
                if (i == 0 || j == 0 || i + j == 60) continue;
                const Ray ray{query, (point - query).normalized()};
                const auto hit = tree.first_hit(ray, 1e-6, 100);
                ASSERT_TRUE(hit.has_value());
                ASSERT_LT((ray.at(hit->range) - point).norm(), 1e-9);
            }
        const double distance = (tree.nearest_to(query).point - query).norm();
        EXPECT_LE(distance, sampled + 1e-5);
        EXPECT_GE(distance, sampled - 0.5);
    }
}

TEST(TriangleMesh, BallIsTheBallUpToTheSagitta) {
    constexpr double radius = 40;
    const Mesh mesh = ball(radius, 90, 180);
    Mesh turned = mesh;
    for (Vector3i& triangle : turned.triangles) std::swap(triangle[0], triangle[1]);
    const double sagitta = radius * (1 - std::cos(kPi / 90)) + 1e-4;
    for (const Mesh& form : {mesh, turned}) {
        const ShapePtr shape = triangle_mesh(form.points, form.triangles);
        const ShapePtr truth = sphere({0, 0, 0}, radius);
        Dice dice;
        for (int n = 0; n < 3000; ++n) {
            const Vector3d point = dice.point(60);
            EXPECT_NEAR(shape->distance(point), truth->distance(point), sagitta);
            EXPECT_LE(shape->at_least(point), shape->distance(point));
            EXPECT_GT(shape->gradient(point).dot(truth->gradient(point)), point.norm() < 10 ? -1 : 0.9);
            // From within, no ray finds a gap; aimed at corners and edges as well.
            const Vector3d aim = form.points[static_cast<std::size_t>(n * 5)].cast<double>();
            const Vector3d inner = dice.point(15);
            const Ray ray{inner, n % 2 == 0 ? dice.direction() : Vector3d((aim - inner).normalized())};
            const std::optional<Hit> hit = shape->hit(ray), expected = truth->hit(ray);
            ASSERT_TRUE(hit.has_value());
            EXPECT_NEAR(hit->range, expected->range, 1.2 * sagitta);
            EXPECT_GT(hit->normal.dot(expected->normal), 0.999);
        }
    }
}

TEST(TriangleMesh, BrickIsTheBoxExactly) {
    const Mesh mesh = brick({30, 20, 10});
    const ShapePtr shape = triangle_mesh(mesh.points, mesh.triangles);
    const ShapePtr truth = box({0, 0, 0}, {30, 20, 10});
    Dice dice;
    for (int n = 0; n < 5000; ++n) {
        const Vector3d point = dice.point(50);
        ASSERT_NEAR(shape->distance(point), truth->distance(point), 1e-5) << point.transpose();
        ASSERT_LE(shape->at_least(point), truth->distance(point) + 1e-5);
        const Ray ray{point, dice.direction()};
        const std::optional<Hit> hit = shape->hit(ray), expected = truth->hit(ray);
        ASSERT_EQ(hit.has_value(), expected.has_value());
        EXPECT_NEAR(hit ? hit->range : 0, expected ? expected->range : 0, 1e-5);
    }
}

TEST(TriangleMesh, CameraSeesItOnATable) {
    const Mesh mesh = ball(40, 60, 120);
    const RigidMatrix lifted(Matrix3d::Identity(), {0, 0, 40});
    const ShapePtr scene =
        smooth_union({half_space({0, 0, 0}, {0, 0, 1}), moved(triangle_mesh(mesh.points, mesh.triangles), lifted)}, 0);
    const RigidMatrix pose = look_at({-40, -380, 190}, {0, 0, 40});
    const Vector3d lamp = pose * Vector3d(60, -20, 0);
    DistortedCamera camera{160, 128, 250, 250, 79.5, 63.5, {}, {}};
    const PixelRays rays = rays_of(camera);
    const SurfaceView view = view_surface(*scene, rays, pose, 500, lamp);
    int wrong = 0, seen = 0;
    for (int y = 0; y < 128; ++y)
        for (int x = 0; x < 160; ++x) {
            const double length = rays.at(x, y).norm();
            const Ray ray{pose.get_translation(), pose.get_rotation() * rays.at(x, y) / length};
            const std::optional<Hit> hit = scene->hit(ray, 500 * length);
            const float depth = view.depth[view.index_of(x, y)];
            seen += hit ? 1 : 0;
            wrong += hit.has_value() != (depth > 0) || (hit && std::abs(hit->range / length - depth) > 5e-3) ? 1 : 0;
        }
    EXPECT_GT(seen, 10000);
    EXPECT_LT(wrong, 0.005 * seen);
}

TEST(TriangleMesh, WhatIsNoSurfaceGivesNothing) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::vector<Vector3f> corners{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 0, 0}};
    const struct {
        std::vector<Vector3f> points;
        std::vector<Vector3i> triangles;
        const char* line;
    } cases[] = {{{}, {}, "mesh: no triangle has an area\n"},
                 {corners, {{0, 1, 3}, {2, 2, 1}}, "mesh: no triangle has an area\n"},
                 {corners, {{0, 1, 4}}, "mesh: a triangle has a corner that does not exist\n"},
                 {corners, {{0, -1, 2}}, "mesh: a triangle has a corner that does not exist\n"},
                 {{{0, 0, 0}, {1, 0, nan}, {0, 1, 0}}, {{0, 1, 2}}, "mesh: a point is not finite\n"}};
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        EXPECT_TRUE(triangle_mesh(c.points, c.triangles)->bounds().empty());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.line);
    }
    const ShapePtr sheet = triangle_mesh(corners, {{0, 1, 2}, {0, 1, 3}, {1, 1, 1}});
    EXPECT_NEAR(sheet->distance({0.2, 0.2, -1}), -1, 1e-12) << "open surfaces: as the triangle faces";
    EXPECT_TRUE(sheet->hit({{0.2, 0.2, -1}, {0, 0, 1}}).has_value()) << "from both sides";
}

}  // namespace
}  // namespace VexelAlgorithm::Simulation
