// The first sign change along a ray of a function that changes at most by 1 for every mm.
#pragma once

#include <algorithm>
#include <cmath>
#include <optional>

namespace VexelAlgorithm::Simulation {

constexpr double kSelfHitRange = 1e-6;    ///< mm; crossings nearer to the origin of a ray are not hits
constexpr double kShortestStep = 1e-4;    ///< mm; shorter crossings may be stepped over
constexpr double kMarchHorizon = 1e6;     ///< mm; unbounded rays are followed so far
constexpr double kLongestStretch = 4.0;   ///< of a step, times the value
constexpr double kPolishedValue = 1e-12;  ///< mm; what a double still resolves at 1 m
constexpr double kPolishPerStep = 0.01;   ///< of a ray's resolution

/// Root in [begin, end], where the function has opposite signs: secant steps that keep the root enclosed
/// (the variant of the false position by Anderson and Bjoerck, BIT 13, 1973).
template <class Field>
double polish_crossing(Field& field, double begin, double valueBegin, double end, double valueEnd, double polished) {
    int lastReplaced = 0;
    for (int step = 0; step < 60 && end - begin > 1e-13 * std::max(1.0, std::abs(end)); ++step) {
        double middle = begin + (end - begin) * (valueBegin / (valueBegin - valueEnd));
        if (!(middle > begin && middle < end)) middle = 0.5 * (begin + end);
        const double value = field(middle);
        if (std::abs(value) <= polished) return middle;

        const int replacing = (value < 0.0) == (valueBegin < 0.0) ? -1 : 1;
        double& replaced = replacing < 0 ? valueBegin : valueEnd;
        double& kept = replacing < 0 ? valueEnd : valueBegin;
        if (replacing == lastReplaced) {
            const double shrink = 1.0 - value / replaced;
            kept *= shrink > 0.0 ? shrink : 0.5;
        }
        replaced = value;
        (replacing < 0 ? begin : end) = middle;
        lastReplaced = replacing;
    }
    return 0.5 * (begin + end);
}

/// Sphere tracing (Hart, The Visual Computer 12, 1996) over [begin, end]: as long as the field changes by
/// at most 1 per mm, a step of its size passes no root. Neither does a longer one that is no longer than the values at
/// both of its ends together; the slope of the last step tells how long that may be (Valasek and Ban, Auto-relaxed
/// sphere tracing, Eurographics short papers 2023), and where it was too long the plain one is taken. `inside` says on
/// which side the ray is at `begin`. Rays that crawl along a surface speed up to 0.1 mm a step, so that each one ends.
/// For the resolution see `Ray`.
template <class Field>
std::optional<double> march_to_crossing(Field& field, double begin, double end, bool inside, double resolution) {
    double t = begin;
    double value = field(t);
    if ((value < 0.0) != inside) return t;
    const double polished = std::max(kPolishedValue, kPolishPerStep * resolution);
    double shortest = kShortestStep;
    double approach = 1.0;  // per mm, of the last step; 1 straight towards a surface
    for (int step = 0; t < end; ++step) {
        if (!std::isfinite(value)) return std::nullopt;
        if (step > 500) shortest = std::min(1.01 * shortest, 0.1);
        const double size = std::abs(value);
        const double plain = std::max(size + resolution, shortest);
        double next = std::min(t + std::max(plain, size * std::min(2.0 / (1.0 + approach), kLongestStretch)), end);
        double valueNext = field(next);
        const bool isCovered = (valueNext < 0.0) == inside && next - t <= size + std::abs(valueNext);
        if (next - t > plain && !isCovered) {
            next = std::min(t + plain, end);
            valueNext = field(next);
        }
        if ((valueNext < 0.0) != inside) return polish_crossing(field, t, value, next, valueNext, polished);
        approach = (size - std::abs(valueNext)) / (next - t);
        t = next;
        value = valueNext;
    }
    return std::nullopt;
}

}  // namespace VexelAlgorithm::Simulation
