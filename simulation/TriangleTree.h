// Many triangles: the first one on a ray and the nearest one to a point.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "simulation/Shape.h"

namespace VexelAlgorithm::Simulation {

/// Where on a triangle: at a corner (0 to 2), on the edge from corner 0, 1 or 2 to the next one (3 to 5), or inside.
enum class TrianglePart : std::uint8_t { Corner0, Corner1, Corner2, Edge0, Edge1, Edge2, Inside };

/// A hierarchy of boxes over triangles, built by the surface area heuristic with bins (I. Wald, "On fast construction
/// of SAH-based bounding volume hierarchies", 2007). Coordinates in mm. Immutable: any number of threads may ask.
class TriangleTree {
public:
    /// Finite points, indices within range, fewer than 2^31 triangles.
    TriangleTree(const std::vector<Vector3f>& points, const std::vector<Vector3i>& triangles);

    struct RayHit {
        double range = 0.0;  ///< mm
        int triangle = 0;
    };
    /// The first triangle at a range in (least, farthest], from either side. Rays do not slip through between triangles
    /// that share an edge (S. Woop, C. Benthin, I. Wald, "Watertight ray/triangle intersection", JCGT 2, 2013).
    std::optional<RayHit> first_hit(const Ray& ray, double least, double farthest) const;

    struct Nearest {
        Vector3d point;
        int triangle = 0;
        TrianglePart part = TrianglePart::Inside;
    };
    /// C. Ericson, "Real-time collision detection", 2005, section 5.1.5, over boxes in the order of their distance.
    /// There must be triangles; the query must be finite.
    Nearest nearest_to(const Vector3d& query) const;

    /// A distance (mm) at least as short as that of the nearest triangle, and shorter by a fifth at most unless that is
    /// near; a few boxes tell it. 0 where a box holds the query.
    double at_least(const Vector3d& query) const;

    Bounds bounds() const;

private:
    /// Children are neighbours; leaves have a count above 0 and say where their triangles begin.
    struct Node {
        Vector3f low;
        std::uint32_t first;
        Vector3f high;
        std::uint32_t count;

        double squared_distance(const Vector3d& point) const;
    };
    struct Corners {
        Vector3f corner[3];
    };
    class Builder;

    std::vector<Node> _nodes;
    std::vector<Corners> _corners;  ///< in the order of the leaves
    std::vector<int> _numbers;      ///< of these triangles, as they were given
};

}  // namespace VexelAlgorithm::Simulation
