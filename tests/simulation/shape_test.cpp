// Distances, gradients and ray hits of the solids, against closed forms, central differences and brute force; meshes
// against the ball that one stands for.
#include <Eigen/Geometry>

#include "simulation/meshShape.h"
#include "tools.h"

namespace VexelAlgorithm::Simulation {
namespace {

TEST(Shape, DistanceMatchesClosedForms) {
    const ShapePtr ring = torus({0, 0, 0}, 30, 10);
    const ShapePtr block = box({0, 0, 0}, {10, 20, 30});
    const ShapePtr rounded = box({0, 0, 0}, {10, 20, 30}, 4);
    const ShapePtr egg = ellipsoid({0, 0, 0}, {30, 20, 10});
    const ShapePtr cone = round_cone({0, 0, 0}, 10, {0, 0, 20}, 10);
    const ShapePtr plane = half_space({0, 0, 5}, {0, 0, 3});
    const std::tuple<const char*, ShapePtr, Vector3d, double> cases[] = {
        {"sphere outside", sphere({1, 1, 1}, 2), {1, 1, 6}, 3},
        {"plane above", plane, {7, -9, 8}, 3},
        {"box corner", block, {-12, -23, -36}, 7},
        {"box inside", block, {1, 18, 2}, -2},
        {"rounded corner", rounded, {6 + 2, 16 + 3, 26 + 6}, 3},
        {"torus above tube", ring, {30, 0, 14}, 4},
        {"torus core", ring, {0, -30, 0}, -10},
        {"ellipsoid centre", egg, {0, 0, 0}, -10},
        {"ellipsoid inner disc", egg, {8, 0, 0}, -10 * std::sqrt(1 - 64.0 / (900 - 100))},
        {"capsule end", cone, {0, 3, 34}, std::sqrt(9 + 196) - 10},
        {"cone inside ball", round_cone({0, 0, 0}, 10, {0, 0, 3}, 5), {0, 0, 15}, 5},
        {"carved away", smooth_difference(sphere({0, 0, 0}, 10), sphere({0, 0, 0}, 4), 0), {1, 0, 0}, 3},
        {"blend out of reach", smooth_union({sphere({0, 0, 0}, 10), sphere({60, 0, 0}, 10)}, 5), {12, 0, 0}, 2},
    };
    for (const auto& [what, shape, point, distance] : cases)
        EXPECT_NEAR(shape->distance(point), distance, 1e-9) << what;
}

// Two perpendicular faces are joined by a quarter circle of the blend radius.
TEST(Shape, SmoothUnionRoundsACornerWithACircle) {
    const double blend = 6;
    const ShapePtr floor = half_space({0, 0, 0}, {0, 0, 1});
    const ShapePtr wall = half_space({0, 0, 0}, {1, 0, 0});
    const ShapePtr corner = smooth_union({floor, wall}, blend);
    for (double angle = 0.05; angle < 1.55; angle += 0.1) {
        const Vector3d onFillet(blend - blend * std::cos(angle), 4, blend - blend * std::sin(angle));
        EXPECT_NEAR(corner->distance(onFillet), 0.0, 1e-12);
        EXPECT_NEAR(corner->gradient(onFillet).normalized().dot(Vector3d(std::cos(angle), 0, std::sin(angle))), 1,
                    1e-9);
    }
}

// No surface nearer than the distance, and for the exact ones a surface point at that distance.
TEST(Shape, DistanceIsTheNearestSurfaceOrABoundOfItAndItsGradientTheCentralDifference) {
    Dice dice;
    const double h = 1e-4;
    for (const NamedShape& kind : all_kinds()) {
        SCOPED_TRACE(kind.name);
        const Shape& shape = *kind.shape;
        int compared = 0;
        for (int i = 0; i < 400; ++i) {
            const Vector3d point = dice.point(70), other = dice.point(80);
            const double distance = shape.distance(point);
            ASSERT_LE(std::abs(distance - shape.distance(other)), (point - other).norm() + 1e-9);
            const double upper = distance_by_descent(shape, point);
            if (!std::isnan(upper)) {
                ASSERT_LE(std::abs(distance), std::abs(upper) + 1e-8);
                ASSERT_EQ(distance < 0.0, upper < 0.0);
                ASSERT_NEAR(distance, upper, kind.isExact ? 1e-6 : 1e3) << point.transpose();
            }
            Vector3d central, oneSided;
            for (int axis = 0; axis < 3; ++axis) {
                const Vector3d step = h * Vector3d::Unit(axis);
                central[axis] = (shape.distance(point + step) - shape.distance(point - step)) / (2 * h);
                oneSided[axis] = (shape.distance(point + step) - distance) / h;
            }
            if ((central - oneSided).norm() > 1e-3) continue;  // next to a kink
            ++compared;
            ASSERT_LT((shape.gradient(point) - central).norm(), 1e-6) << point.transpose();
        }
        EXPECT_GT(compared, 300);
        EXPECT_FALSE(shape.bounds().empty());
    }
}

TEST(Shape, RaysHitTheSurfaceFirst) {
    Dice dice;
    for (const NamedShape& kind : all_kinds()) {
        SCOPED_TRACE(kind.name);
        const Shape& shape = *kind.shape;
        int hits = 0, misses = 0;
        for (int i = 0; i < 500; ++i) {
            const Ray ray{dice.point(70), (dice.point(70) - dice.point(70)).normalized()};
            const bool isInside = shape.distance(ray.origin) < 0.0;
            double sampled = 0.2;  // of the first sign change
            while (sampled < 200 && (shape.distance(ray.at(sampled)) < 0.0) == isInside) sampled += 0.2;
            const std::optional<Hit> hit = shape.hit(ray, 200);
            if (!hit) {
                ++misses;
                ASSERT_GE(sampled, 200) << "missed from " << ray.origin.transpose();
                continue;
            }
            ++hits;
            ASSERT_LT(std::abs(shape.distance(hit->point)), 1e-9);
            ASSERT_NEAR(hit->normal.norm(), 1.0, 1e-9);
            ASSERT_LE(hit->range, sampled + 1e-6);
            // A crossing and no mere touch, so that an earlier hit than the sampled one is a chord between two samples.
            const double before = shape.distance(ray.at(hit->range - 1e-5));
            const double after = shape.distance(ray.at(hit->range + 1e-5));
            ASSERT_LT(before * after, 0.0);
        }
        EXPECT_GT(hits, 20);
        EXPECT_GT(misses, 10);
    }
}

TEST(Shape, GrazingParallelAndBorderlineRays) {
    const auto range = [](const ShapePtr& shape, const Vector3d& origin, const Vector3d& direction,
                          double farthest = 1e4) {
        const std::optional<Hit> hit = shape->hit({origin, direction}, farthest);
        return hit ? hit->range : -1.0;
    };
    const Vector3d x = Vector3d::UnitX(), z = Vector3d::UnitZ();
    const ShapePtr ball = sphere({0, 0, 0}, 10), cube = box({0, 0, 0}, {10, 10, 10}), ring = torus({0, 0, 0}, 30, 10);
    const ShapePtr plane = half_space({0, 0, 0}, z);
    EXPECT_EQ(range(plane, {0, 0, 0}, x), -1) << "parallel within the surface";
    EXPECT_EQ(range(plane, {0, 0, 5}, z), -1) << "leaving";
    EXPECT_DOUBLE_EQ(range(plane, {0, 0, -5}, z), 5) << "from inside";
    EXPECT_EQ(range(ball, {-20, 10, 0}, x), -1) << "tangent";
    EXPECT_NEAR(range(ball, {-20, 10 - 1e-9, 0}, x), 20, 2e-4) << "just below the tangent";
    EXPECT_DOUBLE_EQ(range(ball, {-10, 0, 0}, x), 20) << "the surface the ray starts on is no hit";
    EXPECT_EQ(range(ball, {-30, 0, 0}, x, 19.999), -1) << "beyond the farthest range";
    EXPECT_EQ(range(cube, {-20, 10, 0}, x), -1) << "along a face";
    EXPECT_DOUBLE_EQ(range(cube, {1, 2, 3}, -z), 13);
    EXPECT_EQ(range(ring, {0, 0, 50}, -z), -1) << "through the hole";
    EXPECT_NEAR(range(ring, {-30, 0, 0}, x), 10, 1e-9) << "from inside the tube";
    EXPECT_NEAR(range(ring, {30, -50, 9.99}, Vector3d::UnitY()),
                50 - std::sqrt(std::pow(30 + std::sqrt(100 - 9.99 * 9.99), 2) - 900), 1e-6)
        << "grazing the tube";
    // A ray that crawls 1e-5 mm above a face of a marched solid still comes to what stands on it.
    const ShapePtr stage = smooth_union({plane, sphere({400, 0, 0}, 20)}, 0.0);
    const ShapePtr blended = smooth_union({box({200, 0, -10}, {500, 50, 10}), sphere({400, 0, 0}, 20)}, 1e-3);
    EXPECT_NEAR(range(stage, {0, 0, 1e-5}, x), 380, 1e-6);
    EXPECT_NEAR(range(blended, {0, 0, 2e-3}, x), 380, 2e-3);
}

// ---- meshes ------------------------------------------------------------------------------------------

struct Mesh {
    std::vector<Vector3f> points;
    std::vector<Vector3i> triangles;
};

/// Rings from pole to pole; neighbours have their own copies of the points along the seam, as files do.
Mesh ball(double radius, int rings, int columns) {
    Mesh mesh;
    for (int ring = 0; ring <= rings; ++ring)
        for (int column = 0; column <= columns; ++column) {
            const double polar = EIGEN_PI * ring / rings, azimuth = 2 * EIGEN_PI * (column % columns) / columns;
            const double flat = ring % rings == 0 ? 0.0 : std::sin(polar);
            mesh.points.push_back(
                Vector3d(radius * flat * std::cos(azimuth), radius * flat * std::sin(azimuth), radius * std::cos(polar))
                    .cast<float>());
        }
    for (int ring = 0; ring < rings; ++ring)
        for (int column = 0; column < columns; ++column) {
            const int a = ring * (columns + 1) + column;
            mesh.triangles.emplace_back(a, a + columns + 1, a + columns + 2);
            mesh.triangles.emplace_back(a, a + columns + 2, a + 1);
        }
    return mesh;
}

TEST(TriangleMesh, BallIsTheBallUpToTheSagitta) {
    constexpr double radius = 40;
    const Mesh mesh = ball(radius, 90, 180);
    Mesh turned = mesh;
    for (Vector3i& triangle : turned.triangles) std::swap(triangle[0], triangle[1]);
    const double sagitta = radius * (1 - std::cos(EIGEN_PI / 90)) + 1e-4;
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

}  // namespace
}  // namespace VexelAlgorithm::Simulation
