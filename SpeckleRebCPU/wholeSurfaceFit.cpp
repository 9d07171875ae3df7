#include "SpeckleRebCPU/wholeSurfaceFit.h"

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 16;
constexpr float BLUR_RIDGE = 0.3F;  // squared grey values of second difference

}  // namespace

void WholeSurfaceFit::begin(const SubPixelTask& task, const ParallaxField& field, int threads) {
    find_second_differences(task.left, static_cast<int>(SUB_PIXEL_BLOCK), threads, _differences);
    pair_images(task, field, threads, _paired);
    _isPaired = true;
    _relation = relate_images(_paired, _differences, BLUR_RIDGE, threads);
    _gain.assign(field.parallax.width(), field.parallax.height());
    for (int y = 0; y < _gain.height(); ++y)
        for (int x = 0; x < _gain.width(); ++x)
            _gain.at(x, y) =
                _relation.gain.at(x * task.sample / ImageRelation::CELL, y * task.sample / ImageRelation::CELL);
}

void WholeSurfaceFit::find_steps(const SubPixelTask& task, const SurfacePrior& prior, float outlier,
                                 const ParallaxField& field, int threads, Raster<float>& step) {
    if (!_isPaired) pair_images(task, field, threads, _paired);
    _isPaired = false;
    gather_evidence({_paired, _differences, _relation, _gain, task.sample, outlier}, threads, _evidence);
    solve_surface(_evidence, prior, field.parallax, threads, step, _gain);
}

void take_slopes(float jump, int sample, int threads, ParallaxField& field) {
    const Raster<float>& parallax = field.parallax;
    const auto at = [&](int x, int y) { return parallax.contains(x, y) ? parallax.at(x, y) : NO_PARALLAX; };
    const auto take_slope = [&](float before, float own, float behind, float& slope) {
        const bool hasBefore = std::abs(before - own) <= jump, hasBehind = std::abs(behind - own) <= jump;
        if (!hasBefore && !hasBehind) return;
        const float difference = (hasBehind ? behind : own) - (hasBefore ? before : own);
        slope = difference / static_cast<float>(hasBefore && hasBehind ? 2 * sample : sample);
    };
    parallel_ranges(threads, static_cast<std::size_t>(parallax.height()), ROW_GRAIN,
                    [&](std::size_t begin, std::size_t end) {
                        for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y)
                            for (int x = 0; x < parallax.width(); ++x) {
                                const float own = parallax.at(x, y);
                                if (!has_parallax(own)) continue;
                                take_slope(at(x - 1, y), own, at(x + 1, y), field.slopeX.at(x, y));
                                take_slope(at(x, y - 1), own, at(x, y + 1), field.slopeY.at(x, y));
                            }
                    });
}

}  // namespace VexelAlgorithm
