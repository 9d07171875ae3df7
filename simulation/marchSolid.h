// The first crossing of a bounded solid, by marching with its distance.
#pragma once

#include "simulation/Shape.h"
#include "simulation/rayMarch.h"

namespace VexelAlgorithm::Simulation {

/// Faces may coincide with those of the bounds: the margin (mm) keeps a crossing there within the span.
constexpr double kBoundsMargin = 1e-6;

inline std::optional<double> march_solid(const Shape& shape, const Ray& ray, double farthest) {
    const RaySpan span = shape.bounds().inflated(kBoundsMargin).span(ray, std::min(farthest, kMarchHorizon));
    const double begin = std::max(span.begin, kSelfHitRange);
    if (!(begin <= span.end)) return std::nullopt;
    const auto field = [&](double t) { return shape.distance(ray.at(t)); };
    const bool startsInside = span.begin == 0.0 && field(begin) < 0.0;
    return march_to_crossing(field, begin, span.end, startsInside, ray.resolution);
}

}  // namespace VexelAlgorithm::Simulation
