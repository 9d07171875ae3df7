#include "SpeckleRebCPU/wholeSurfaceFit.h"

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 16;
constexpr float BLUR_RIDGE = 0.3F;  // squared grey values of second difference
// Of the misfit of cells, which holds what the slots' parallaxes still lack as well.
constexpr float MISFIT_SHARE = 0.65F;
constexpr int RELATED_FITS = 2;  // then the parallaxes are good enough for the images' relation to stay

void spread_gain(const Raster<float>& cells, int sample, Raster<float>& slots) {
    for (int y = 0; y < slots.height(); ++y)
        for (int x = 0; x < slots.width(); ++x)
            slots.at(x, y) = cells.at(x * sample / ImageRelation::CELL, y * sample / ImageRelation::CELL);
}

}  // namespace

void WholeSurfaceFit::begin(const GreyImage& left, int threads) {
    find_second_differences(left, static_cast<int>(SUB_PIXEL_BLOCK), threads, _differences);
    _fits = 0;
}

void WholeSurfaceFit::find_steps(const SubPixelTask& task, const SurfacePrior& prior, float outlier,
                                 const ParallaxField& field, int threads, Raster<float>& step) {
    pair_images(task, _differences, field, threads, _paired);
    if (_fits < RELATED_FITS) _relation = relate_images(_paired, _differences, BLUR_RIDGE, threads);
    if (_fits++ == 0) {
        _gain.resize(field.parallax.width(), field.parallax.height());
        spread_gain(_relation.gain, task.sample, _gain);
    }
    SurfacePrior measured = prior;
    measured.noise = std::max(prior.noise, MISFIT_SHARE * _relation.misfit);
    const float tolerance = outlier * measured.noise / prior.noise;
    gather_evidence({_paired, _differences, _relation, _gain, task.sample, tolerance}, threads, _evidence);
    solve_surface(_evidence, measured, field.parallax, threads, step, _gain);
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
