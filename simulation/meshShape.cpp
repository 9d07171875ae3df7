#include "simulation/meshShape.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <numeric>
#include <tuple>

#include "foundation/diagnostics.h"
#include "simulation/TriangleTree.h"
#include "simulation/primitives.h"
#include "simulation/rayMarch.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kOnSurface = 1e-6;  ///< mm; nearer points do not tell a direction
constexpr std::size_t kMostTriangles = 500'000'000;

using Points = std::vector<Vector3f>;
using Triangles = std::vector<Vector3i>;

const Vector3f& at(const Points& points, int index) {
    return points[static_cast<std::size_t>(index)];
}

/// Twice the area as length.
Vector3d area_normal(const Points& points, const Vector3i& triangle) {
    const Vector3d origin = at(points, triangle[0]).cast<double>();
    return (at(points, triangle[1]).cast<double>() - origin).cross(at(points, triangle[2]).cast<double>() - origin);
}

/// Numbers the places: points at one place get the number of the first of them.
std::vector<int> places_of(const Points& points) {
    std::vector<int> order(points.size());
    std::iota(order.begin(), order.end(), 0);
    const auto before = [&](int a, int b) {
        const Vector3f &p = at(points, a), &q = at(points, b);
        return std::make_tuple(p.x(), p.y(), p.z(), a) < std::make_tuple(q.x(), q.y(), q.z(), b);
    };
    std::sort(order.begin(), order.end(), before);
    std::vector<int> place(points.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        const bool isSame = i > 0 && at(points, order[i]) == at(points, order[i - 1]);
        place[static_cast<std::size_t>(order[i])] = isSame ? place[static_cast<std::size_t>(order[i - 1])] : order[i];
    }
    return place;
}

Triangles usable_triangles(const Points& points, const Triangles& triangles) {
    const std::vector<int> place = places_of(points);
    Triangles usable;
    for (const Vector3i& triangle : triangles) {
        const Vector3i joined(place[static_cast<std::size_t>(triangle[0])],
                              place[static_cast<std::size_t>(triangle[1])],
                              place[static_cast<std::size_t>(triangle[2])]);
        if (area_normal(points, joined).squaredNorm() > 0.0) usable.push_back(joined);
    }
    return usable;
}

void turn_outwards(const Points& points, Triangles& triangles) {
    const Vector3d origin = at(points, triangles.front()[0]).cast<double>();
    double volume = 0.0;
    for (const Vector3i& triangle : triangles)
        volume += area_normal(points, triangle).dot(at(points, triangle[0]).cast<double>() - origin);
    if (volume < 0.0)
        for (Vector3i& triangle : triangles) std::swap(triangle[1], triangle[2]);
}

class TriangleMesh final : public Shape {
public:
    TriangleMesh(const Points& points, Triangles triangles)
        : _triangles(std::move(triangles)), _tree(points, _triangles) {
        compute_normals(points);
        join_edges();
    }

    double distance(const Vector3d& point) const override {
        const TriangleTree::Nearest nearest = _tree.nearest_to(point);
        const Vector3d away = point - nearest.point;
        const double size = away.norm();
        return away.dot(normal_at(nearest)) < 0.0 ? -size : size;
    }
    /// Points within the box may be inside, where the distance is negative.
    double at_least(const Vector3d& point) const override {
        return bounds().distance(point) > 0.0 ? _tree.at_least(point) : -kNoLimit;
    }
    Vector3d gradient(const Vector3d& point) const override {
        const TriangleTree::Nearest nearest = _tree.nearest_to(point);
        const Vector3d away = point - nearest.point;
        const Vector3d normal = normal_at(nearest);
        const double size = away.norm();
        if (size < kOnSurface) return normal.normalized();
        return away.dot(normal) < 0.0 ? Vector3d(-away / size) : Vector3d(away / size);
    }
    Bounds bounds() const override { return _tree.bounds(); }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        const auto hit = _tree.first_hit(ray, kSelfHitRange, std::min(farthest, kMarchHorizon));
        return hit ? std::optional<double>(hit->range) : std::nullopt;
    }

private:
    static constexpr int kNoNeighbour = -1;

    void compute_normals(const Points& points) {
        _cornerNormals.assign(points.size(), Vector3f::Zero());
        _normals.reserve(_triangles.size());
        for (const Vector3i& triangle : _triangles) {
            const Vector3d normal = area_normal(points, triangle).normalized();
            _normals.push_back(normal.cast<float>());
            for (int i = 0; i < 3; ++i) {
                const Vector3d corner = at(points, triangle[i]).cast<double>();
                const Vector3d one = at(points, triangle[(i + 1) % 3]).cast<double>() - corner;
                const Vector3d other = at(points, triangle[(i + 2) % 3]).cast<double>() - corner;
                const double angle = std::atan2(one.cross(other).norm(), one.dot(other));
                _cornerNormals[static_cast<std::size_t>(triangle[i])] += (angle * normal).cast<float>();
            }
        }
    }

    /// Where more than two triangles meet at an edge, each finds only one of the others.
    void join_edges() {
        struct Side {
            int low, high;  ///< corners
            int triangle, edge;
        };
        std::vector<Side> sides;
        sides.reserve(3 * _triangles.size());
        for (std::size_t t = 0; t < _triangles.size(); ++t)
            for (int edge = 0; edge < 3; ++edge) {
                const auto [low, high] = std::minmax({_triangles[t][edge], _triangles[t][(edge + 1) % 3]});
                sides.push_back({low, high, static_cast<int>(t), edge});
            }
        std::sort(sides.begin(), sides.end(), [](const Side& a, const Side& b) {
            return std::tie(a.low, a.high, a.triangle) < std::tie(b.low, b.high, b.triangle);
        });
        _neighbours.assign(_triangles.size(), {kNoNeighbour, kNoNeighbour, kNoNeighbour});
        for (std::size_t i = 1; i < sides.size(); ++i) {
            const Side &a = sides[i - 1], &b = sides[i];
            if (a.low != b.low || a.high != b.high) continue;
            _neighbours[static_cast<std::size_t>(a.triangle)][static_cast<std::size_t>(a.edge)] = b.triangle;
            _neighbours[static_cast<std::size_t>(b.triangle)][static_cast<std::size_t>(b.edge)] = a.triangle;
        }
    }

    /// Any length.
    Vector3d normal_at(const TriangleTree::Nearest& place) const {
        const auto triangle = static_cast<std::size_t>(place.triangle);
        const auto part = static_cast<int>(place.part);
        if (part < 3) return _cornerNormals[static_cast<std::size_t>(_triangles[triangle][part])].cast<double>();
        Vector3d normal = _normals[triangle].cast<double>();
        if (place.part == TrianglePart::Inside) return normal;
        const int neighbour = _neighbours[triangle][static_cast<std::size_t>(part - 3)];
        if (neighbour != kNoNeighbour) normal += _normals[static_cast<std::size_t>(neighbour)].cast<double>();
        return normal;
    }

    Triangles _triangles;
    TriangleTree _tree;
    Points _normals;        ///< of the triangles
    Points _cornerNormals;  ///< weighted with the angles
    std::vector<std::array<int, 3>> _neighbours;
};

const char* fault_of(const Points& points, const Triangles& triangles) {
    if (triangles.size() > kMostTriangles) return "mesh: there are too many triangles";
    if (!std::all_of(points.begin(), points.end(), [](const Vector3f& p) { return p.allFinite(); }))
        return "mesh: a point is not finite";
    const auto count = static_cast<std::ptrdiff_t>(points.size());
    const auto isFine = [count](const Vector3i& t) { return t.minCoeff() >= 0 && t.maxCoeff() < count; };
    if (!std::all_of(triangles.begin(), triangles.end(), isFine))
        return "mesh: a triangle has a corner that does not exist";
    return nullptr;
}

}  // namespace

ShapePtr triangle_mesh(const std::vector<Vector3f>& points, const std::vector<Vector3i>& triangles) {
    if (const char* fault = fault_of(points, triangles)) {
        print_line(fault);
        return nothing();
    }
    Triangles usable = usable_triangles(points, triangles);
    if (usable.empty()) {
        print_line("mesh: no triangle has an area");
        return nothing();
    }
    turn_outwards(points, usable);
    return std::make_shared<TriangleMesh>(points, std::move(usable));
}

}  // namespace VexelAlgorithm::Simulation
