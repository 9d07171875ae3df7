#include "simulation/NoiseModel.h"

#include <algorithm>
#include <cmath>

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "simulation/counterRandom.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kRadians = 3.14159265358979323846 / 180.0;
constexpr std::size_t kSlotsPerTask = 4096;
enum Draw : std::uint64_t { DrawDepth = 0, DrawDrop = 2 };

bool is_lost(const NoiseModel& noise, double cosIncidence, const PixelRandom& random) {
    return cosIncidence < std::cos(noise.largestIncidence * kRadians) || random.uniform(DrawDrop) < noise.dropFraction;
}

/// Rounds to the nearest measurable depth; these are equally spaced in 1 / z.
double quantised(const NoiseModel& noise, double depth) {
    if (noise.depthStep == 0.0) return depth;
    const double inverseStep = noise.depthStep / (noise.referenceDepth * noise.referenceDepth);
    return 1.0 / (std::round(1.0 / (depth * inverseStep)) * inverseStep);
}

void disturb_slot(PointImage& frame, const NoiseModel& noise, std::size_t slot, const PixelRandom& random) {
    if (!frame.has_point(slot)) return;
    const Vector3d point = frame.get_vCoord(slot).cast<double>();
    const double cosIncidence = std::abs(frame.get_vNrv(slot).cast<double>().dot(point.normalized()));
    const double depth = point.z();
    const double measured = quantised(noise, depth + noise.sigma(depth, cosIncidence) * random.gaussian(DrawDepth));
    const bool sensible = std::isfinite(measured) && measured > 0.0;
    if (!sensible || is_lost(noise, cosIncidence, random))
        frame.set_slot_empty(slot);
    else
        frame.set_vCoord(slot, (point * (measured / depth)).cast<float>());
}

}  // namespace

double NoiseModel::sigma(double depth, double cosIncidence) const {
    const double growth = std::pow(depth / referenceDepth, depthExponent);
    const double cosine = std::clamp(cosIncidence, 0.05, 1.0);
    const double tanSquared = 1.0 / (cosine * cosine) - 1.0;
    return depthSigma * growth * (1.0 + tiltGain * tanSquared);
}

double NoiseModel::step(double depth) const {
    const double depthRatio = depth / referenceDepth;
    return depthStep * depthRatio * depthRatio;
}

std::string NoiseModel::fault() const {
    const auto at_least_zero = [](double value) { return std::isfinite(value) && value >= 0.0; };
    if (!at_least_zero(referenceDepth) || referenceDepth == 0.0)
        return "noise model: referenceDepth must be above 0 mm";
    if (!at_least_zero(depthSigma)) return "noise model: depthSigma must be at least 0 mm";
    if (!at_least_zero(depthExponent)) return "noise model: depthExponent must be at least 0";
    if (!at_least_zero(depthStep)) return "noise model: depthStep must be at least 0 mm";
    if (!at_least_zero(tiltGain)) return "noise model: tiltGain must be at least 0";
    if (!(largestIncidence > 0.0 && largestIncidence <= 90.0))
        return "noise model: largestIncidence must be in (0, 90] degrees";
    if (!(dropFraction >= 0.0 && dropFraction <= 1.0)) return "noise model: dropFraction must be in [0, 1]";
    return {};
}

bool apply_noise(PointImage& frame, const NoiseModel& noise, std::uint64_t frameNumber, int threads) {
    const std::string fault = frame.is_enable_vNormal() ? noise.fault() : "noise model: the frame has no normals";
    if (!fault.empty()) {
        print_line(fault);
        return false;
    }
    parallel_ranges(threads, frame.get_vn(), kSlotsPerTask, [&](std::size_t begin, std::size_t end) {
        for (std::size_t slot = begin; slot < end; ++slot)
            disturb_slot(frame, noise, slot, PixelRandom(noise.seed, frameNumber, slot));
    });
    return true;
}

}  // namespace VexelAlgorithm::Simulation
