// Distances, gradients and ray hits of the solids, against closed forms, central differences and brute force.
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

#include "tools.h"

namespace VexelAlgorithm::Simulation {
namespace {

Ray throw_ray(Dice& dice, double reach) {
    return {dice.point(reach), (dice.point(reach) - dice.point(reach)).normalized()};
}

/// First sign change between samples `step` apart.
double sampled_crossing(const Shape& shape, const Ray& ray, double farthest, double step, double begin = 0.0) {
    const bool inside = shape.distance(ray.origin) < 0.0;
    for (double t = begin + step; t < farthest; t += step)
        if ((shape.distance(ray.at(t)) < 0.0) != inside) return t;
    return kNoLimit;
}

TEST(Shape, DistanceMatchesClosedForms) {
    const ShapePtr ring = torus({0, 0, 0}, 30, 10);
    const ShapePtr block = box({0, 0, 0}, {10, 20, 30});
    const ShapePtr rounded = box({0, 0, 0}, {10, 20, 30}, 4);
    const ShapePtr egg = ellipsoid({0, 0, 0}, {30, 20, 10});
    const ShapePtr cone = round_cone({0, 0, 0}, 10, {0, 0, 20}, 10);
    const ShapePtr plane = half_space({0, 0, 5}, {0, 0, 3});
    const struct {
        const char* what;
        ShapePtr shape;
        Vector3d point;
        double distance;
    } cases[] = {
        {"sphere outside", sphere({1, 1, 1}, 2), {1, 1, 6}, 3},
        {"sphere centre", sphere({1, 1, 1}, 2), {1, 1, 1}, -2},
        {"plane above", plane, {7, -9, 8}, 3},
        {"plane below", plane, {7, -9, 1}, -4},
        {"box face", block, {14, 3, 3}, 4},
        {"box edge", block, {13, 24, 0}, 5},
        {"box corner", block, {-12, -23, -36}, 7},
        {"box inside", block, {1, 18, 2}, -2},
        {"rounded corner", rounded, {6 + 2, 16 + 3, 26 + 6}, 3},
        {"torus axis", ring, {0, 0, 0}, 20},
        {"torus above tube", ring, {30, 0, 14}, 4},
        {"torus core", ring, {0, -30, 0}, -10},
        {"ellipsoid long axis", egg, {35, 0, 0}, 5},
        {"ellipsoid centre", egg, {0, 0, 0}, -10},
        {"ellipsoid inner disc", egg, {8, 0, 0}, -10 * std::sqrt(1 - 64.0 / (900 - 100))},
        {"capsule side", cone, {13, 0, 7}, 3},
        {"capsule end", cone, {0, 3, 34}, std::sqrt(9 + 196) - 10},
        {"cone inside ball", round_cone({0, 0, 0}, 10, {0, 0, 3}, 5), {0, 0, 15}, 5},
        {"carved away", smooth_difference(sphere({0, 0, 0}, 10), sphere({0, 0, 0}, 4), 0), {1, 0, 0}, 3},
        {"blend out of reach", smooth_union({sphere({0, 0, 0}, 10), sphere({60, 0, 0}, 10)}, 5), {12, 0, 0}, 2},
    };
    for (const auto& c : cases) EXPECT_NEAR(c.shape->distance(c.point), c.distance, 1e-9) << c.what;
}

// Two perpendicular faces are joined by a quarter circle of the blend radius, whatever the order of the operands.
TEST(Shape, SmoothUnionRoundsACornerWithACircle) {
    const double blend = 6;
    const ShapePtr floor = half_space({0, 0, 0}, {0, 0, 1});
    const ShapePtr wall = half_space({0, 0, 0}, {1, 0, 0});
    const ShapePtr third = sphere({3, 0, 3}, 2);
    const ShapePtr corner = smooth_union({floor, wall}, blend);
    for (double angle = 0.05; angle < 1.55; angle += 0.1) {
        const Vector3d onFillet(blend - blend * std::cos(angle), 4, blend - blend * std::sin(angle));
        EXPECT_NEAR(corner->distance(onFillet), 0.0, 1e-12);
        EXPECT_NEAR(corner->gradient(onFillet).normalized().dot(Vector3d(std::cos(angle), 0, std::sin(angle))), 1,
                    1e-9);
    }
    Dice dice;
    const ShapePtr oneOrder = smooth_union({floor, third, wall}, blend);
    const ShapePtr otherOrder = smooth_union({wall, floor, third}, blend);
    for (int i = 0; i < 200; ++i) {
        const Vector3d point = dice.point(12);
        EXPECT_NEAR(oneOrder->distance(point), otherOrder->distance(point), 1e-12);
    }
}

// No surface nearer than the distance, and for the exact ones a surface point at that distance.
TEST(Shape, DistanceIsTheNearestSurfaceOrABoundOfIt) {
    Dice dice;
    for (const NamedShape& kind : all_kinds()) {
        for (int i = 0; i < 300; ++i) {
            const Vector3d point = dice.point(80);
            const double distance = kind.shape->distance(point);
            const Vector3d other = dice.point(80);
            ASSERT_LE(std::abs(distance - kind.shape->distance(other)), (point - other).norm() + 1e-9) << kind.name;
            const double upper = distance_by_descent(*kind.shape, point);
            if (std::isnan(upper)) continue;
            ASSERT_LE(std::abs(distance), std::abs(upper) + 1e-8) << kind.name;
            ASSERT_EQ(distance < 0.0, upper < 0.0) << kind.name;
            if (kind.isExact) {
                ASSERT_NEAR(distance, upper, 1e-6) << kind.name << " at " << point.transpose();
            }
        }
        EXPECT_TRUE(kind.shape->bounds().empty() == false) << kind.name;
    }
}

TEST(Shape, GradientIsTheCentralDifference) {
    Dice dice;
    const double h = 1e-4;
    for (const NamedShape& kind : all_kinds()) {
        int compared = 0;
        for (int i = 0; i < 400; ++i) {
            const Vector3d point = dice.point(70);
            Vector3d central, oneSided;
            for (int axis = 0; axis < 3; ++axis) {
                const Vector3d step = h * Vector3d::Unit(axis);
                const double ahead = kind.shape->distance(point + step);
                const double behind = kind.shape->distance(point - step);
                central[axis] = (ahead - behind) / (2 * h);
                oneSided[axis] = (ahead - kind.shape->distance(point)) / h;
            }
            if ((central - oneSided).norm() > 1e-3) continue;  // next to a kink
            ++compared;
            ASSERT_LT((kind.shape->gradient(point) - central).norm(), 1e-6) << kind.name << " at " << point.transpose();
            if (kind.isExact) {
                ASSERT_NEAR(kind.shape->gradient(point).norm(), 1.0, 1e-9) << kind.name;
            }
        }
        EXPECT_GT(compared, 300) << kind.name;
    }
}

TEST(Shape, RaysHitTheSurfaceFirst) {
    Dice dice;
    std::vector<NamedShape> kinds = all_kinds();
    const double step = 0.2;
    for (const NamedShape& kind : kinds) {
        int hits = 0, misses = 0, fromInside = 0;
        for (int i = 0; i < 500; ++i) {
            const Ray ray = throw_ray(dice, 70);
            const std::optional<Hit> hit = kind.shape->hit(ray, 200);
            const double sampled = sampled_crossing(*kind.shape, ray, 200, step);
            if (!hit) {
                ++misses;
                ASSERT_EQ(sampled, kNoLimit) << kind.name << " missed from " << ray.origin.transpose();
                continue;
            }
            ++hits;
            fromInside += kind.shape->distance(ray.origin) < 0.0;
            ASSERT_LT(std::abs(kind.shape->distance(hit->point)), 1e-9) << kind.name;
            ASSERT_NEAR(hit->normal.norm(), 1.0, 1e-9) << kind.name;
            ASSERT_LE(hit->range, sampled + 1e-6) << kind.name;
            // A crossing and no mere touch, so that an earlier hit than the sampled one is a chord between two samples.
            const double before = kind.shape->distance(ray.at(hit->range - 1e-5));
            const double after = kind.shape->distance(ray.at(hit->range + 1e-5));
            ASSERT_LT(before * after, 0.0) << kind.name;
        }
        EXPECT_GT(hits, 20) << kind.name;
        EXPECT_GT(misses, 10) << kind.name;
        EXPECT_GT(fromInside, 1) << kind.name;
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
    EXPECT_EQ(range(plane, {0, 0, 5}, x), -1) << "parallel above";
    EXPECT_EQ(range(plane, {0, 0, 0}, x), -1) << "parallel within the surface";
    EXPECT_EQ(range(plane, {0, 0, 5}, z), -1) << "leaving";
    EXPECT_DOUBLE_EQ(range(plane, {0, 0, -5}, z), 5) << "from inside";
    EXPECT_EQ(range(ball, {-20, 10, 0}, x), -1) << "tangent";
    EXPECT_NEAR(range(ball, {-20, 10 - 1e-9, 0}, x), 20, 2e-4) << "just below the tangent";
    EXPECT_EQ(range(ball, {-20, 10 + 1e-9, 0}, x), -1);
    EXPECT_DOUBLE_EQ(range(ball, {0, 0, 0}, x), 10);
    EXPECT_DOUBLE_EQ(range(ball, {-10, 0, 0}, x), 20) << "the surface the ray starts on is no hit";
    EXPECT_EQ(range(ball, {-30, 0, 0}, x, 19.999), -1) << "beyond the farthest range";
    EXPECT_EQ(range(cube, {-20, 10, 0}, x), -1) << "along a face";
    EXPECT_DOUBLE_EQ(range(cube, {-20, 9.999, 9.999}, x), 10);
    EXPECT_DOUBLE_EQ(range(cube, {1, 2, 3}, -z), 13);
    EXPECT_EQ(range(ring, {0, 0, 50}, -z), -1) << "through the hole";
    EXPECT_NEAR(range(ring, {-50, 0, 0}, x), 10, 1e-9);
    EXPECT_NEAR(range(ring, {-30, 0, 0}, x), 10, 1e-9) << "from inside the tube";
    EXPECT_NEAR(range(ring, {0, 0, 0}, x), 20, 1e-9);
    EXPECT_NEAR(range(ring, {30, -50, 9.99}, Vector3d::UnitY()),
                50 - std::sqrt(std::pow(30 + std::sqrt(100 - 9.99 * 9.99), 2) - 900), 1e-6)
        << "grazing the tube";
    // A ray that crawls 1e-5 mm above a face of a marched solid still comes to what stands on it.
    const ShapePtr stage = smooth_union({plane, sphere({400, 0, 0}, 20)}, 0.0);
    const ShapePtr blended = smooth_union({box({200, 0, -10}, {500, 50, 10}), sphere({400, 0, 0}, 20)}, 1e-3);
    EXPECT_NEAR(range(stage, {0, 0, 1e-5}, x), 380, 1e-6);
    EXPECT_NEAR(range(blended, {0, 0, 2e-3}, x), 380, 2e-3);
}

}  // namespace
}  // namespace VexelAlgorithm::Simulation
