#include "simulation/Shape.h"

#include <algorithm>

namespace VexelAlgorithm::Simulation {

RaySpan Bounds::span(const Ray& ray, double farthest) const {
    RaySpan span{0.0, farthest};
    for (int axis = 0; axis < 3; ++axis) {
        const double origin = ray.origin[axis];
        const double direction = ray.direction[axis];
        if (direction == 0.0) {
            if (origin < low[axis] || origin > high[axis]) return {};
            continue;
        }
        const double toLow = (low[axis] - origin) / direction;
        const double toHigh = (high[axis] - origin) / direction;
        span.begin = std::max(span.begin, std::min(toLow, toHigh));
        span.end = std::min(span.end, std::max(toLow, toHigh));
    }
    return span;
}

Bounds Shape::bounds_after(const RigidMatrix& motion) const {
    const Bounds own = bounds();
    if (!own.low.allFinite() || !own.high.allFinite()) return Bounds::everything();
    const Vector3d centre = motion * Vector3d(0.5 * (own.low + own.high));
    const Vector3d half = motion.get_rotation().cwiseAbs() * (0.5 * (own.high - own.low));
    return {centre - half, centre + half};
}

double Shape::at_least(const Vector3d&) const {
    return -kNoLimit;
}

ShapePtr Shape::near_segment(const Vector3d&, const Vector3d&, double) const {
    return nullptr;
}

std::optional<Hit> Shape::hit(const Ray& ray, double farthest) const {
    if (!ray.origin.allFinite() || !ray.direction.allFinite() || std::isnan(farthest)) return std::nullopt;
    const std::optional<double> range = first_crossing(ray, farthest);
    if (!range) return std::nullopt;
    const Vector3d point = ray.at(*range);
    return Hit{*range, point, gradient(point).normalized()};
}

double distance_by_descent(const Shape& shape, const Vector3d& point) {
    Vector3d foot = point;
    double value = shape.distance(foot);
    const double side = value < 0.0 ? -1.0 : 1.0;
    for (int step = 0; step < 100; ++step) {
        if (std::abs(value) < 1e-10) return side * (point - foot).norm();
        const Vector3d gradient = shape.gradient(foot);
        const double steepness = gradient.squaredNorm();
        if (!(steepness > 1e-12) || !std::isfinite(value)) break;
        foot -= (value / steepness) * gradient;
        value = shape.distance(foot);
    }
    return std::numeric_limits<double>::quiet_NaN();
}

}  // namespace VexelAlgorithm::Simulation
