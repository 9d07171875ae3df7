// A solid of the virtual world: signed distance, its gradient, and the first hit of a ray.
#pragma once

#include <cmath>
#include <limits>
#include <memory>
#include <optional>

#include "foundation/RigidMatrix.h"
#include "foundation/types.h"

namespace VexelAlgorithm::Simulation {

constexpr double kNoLimit = std::numeric_limits<double>::infinity();

/// origin + t direction, t in mm; the direction has unit length.
struct Ray {
    Vector3d origin;
    Vector3d direction;
    /// mm; where a march need not be better, it may step over pieces that run a shorter way inside a solid, and end
    /// within a hundredth of it from the surface. 0 for the best that can be had.
    double resolution = 0.0;

    Vector3d at(double t) const { return origin + t * direction; }
};

/// A piece of a ray, as t (mm) from where to where; empty when begin > end.
struct RaySpan {
    double begin = 0.0;
    double end = -1.0;

    bool empty() const { return !(begin <= end); }
};

/// Axis-parallel box in mm; unbounded solids have infinite corners, the empty one has low > high.
struct Bounds {
    Vector3d low = Vector3d::Constant(kNoLimit);
    Vector3d high = Vector3d::Constant(-kNoLimit);

    static Bounds everything() { return {Vector3d::Constant(-kNoLimit), Vector3d::Constant(kNoLimit)}; }
    bool empty() const { return !(low.array() <= high.array()).all(); }
    Bounds inflated(double margin) const { return {low.array() - margin, high.array() + margin}; }
    Bounds united(const Bounds& other) const { return {low.cwiseMin(other.low), high.cwiseMax(other.high)}; }
    /// Distance of a point to the box, 0 inside: no surface within the box is nearer.
    double distance(const Vector3d& point) const { return (low - point).cwiseMax(point - high).cwiseMax(0.0).norm(); }
    /// The piece of [0, farthest] of the ray within the box.
    RaySpan span(const Ray& ray, double farthest) const;
};

/// Where a ray meets a surface.
struct Hit {
    double range = 0.0;  ///< mm along the ray
    Vector3d point;
    Vector3d normal;  ///< unit length, outwards, whichever side the ray comes from
};

/// A solid. Coordinates and distances are in mm, in the frame of the caller (the world, unless it stands
/// inside a `moved` one). Immutable, so every method may be called from several threads.
class Shape {
public:
    virtual ~Shape() = default;

    /// Signed distance to the surface, positive outside. Exact for the primitives, moved or not. For unions and
    /// differences a value that never exceeds the true distance in size, has the right sign and vanishes
    /// exactly on the surface.
    virtual double distance(const Vector3d& point) const = 0;
    /// What `distance` is at least there; cheaper, to leave out solids that are too far away to matter.
    virtual double at_least(const Vector3d& point) const;
    /// Gradient of `distance`; its length is 1 for the primitives and at most 1 otherwise. Where the distance
    /// has a kink (the centre of a sphere, the diagonals inside a box) it is one of the one-sided gradients.
    virtual Vector3d gradient(const Vector3d& point) const = 0;
    virtual Bounds bounds() const = 0;
    /// Bounds of the solid carried by a rigid motion; at most those of the carried box of `bounds`.
    virtual Bounds bounds_after(const RigidMatrix& motion) const;
    /// A piece of the ray, within [0, farthest], outside which the solid is farther away than `margin` (mm, finite).
    virtual RaySpan reach(const Ray& ray, double margin, double farthest) const {
        return bounds().inflated(margin).span(ray, farthest);
    }
    /// A solid of fewer parts with the same surface near a segment, for the many rays of a narrow beam or the many
    /// points of a small patch; null when this one has no parts to leave out. At a point at distance s < `radius` (mm)
    /// from the segment its `distance` is the same wherever it is at most `radius` - s, and greater than that
    /// elsewhere.
    virtual std::shared_ptr<const Shape> near_segment(const Vector3d& from, const Vector3d& to, double radius) const;

    /// The first crossing of the surface, from either side, at a range in (1e-6, farthest] mm; crossings nearer
    /// than that are taken for the surface that the ray leaves. Spheres, half-spaces, sharp boxes and
    /// ellipsoids are solved in closed form. All others are marched with their distance, which cannot overshoot,
    /// and the crossing is then enclosed and polished until the distance there is below 1e-9 mm. Only pieces
    /// of the ray that run less than 1e-4 mm inside the solid can go unnoticed (0.1 mm after a crawl of more than
    /// 500 steps along a surface). Rays whose numbers are not finite hit nothing.
    std::optional<Hit> hit(const Ray& ray, double farthest = kNoLimit) const;

    /// Range of `hit` alone.
    virtual std::optional<double> first_crossing(const Ray& ray, double farthest) const = 0;
};

using ShapePtr = std::shared_ptr<const Shape>;

/// Signed distance (mm) from a point to the surface point that a descent along the gradient finds. Where
/// `Shape::distance` bounds the true distance from below, this bounds it from above; near the surface it is
/// exact to second order. NaN when the descent does not arrive, as for the empty solid.
double distance_by_descent(const Shape& shape, const Vector3d& point);

}  // namespace VexelAlgorithm::Simulation
