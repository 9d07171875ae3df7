// Meshes as solids, against the ball that one stands for.
#include <Eigen/Geometry>
#include <cmath>

#include "simulation/meshShape.h"
#include "simulation/primitives.h"
#include "tools.h"

namespace VexelAlgorithm::Simulation {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct Mesh {
    std::vector<Vector3f> points;
    std::vector<Vector3i> triangles;
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

}  // namespace
}  // namespace VexelAlgorithm::Simulation
