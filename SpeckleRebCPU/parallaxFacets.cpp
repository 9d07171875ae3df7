#include "SpeckleRebCPU/parallaxFacets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/parallaxFacets.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "foundation/parallel.h"

#ifndef VEXEL_FACET_ROWS_DEFINED
#    define VEXEL_FACET_ROWS_DEFINED
namespace VexelAlgorithm {

constexpr std::size_t FACET_SLOPES = 3;    // terms before the curvature
constexpr std::size_t FACET_TERMS = 6;     // 1, x, y, x^2, xy, y^2
constexpr std::size_t FACET_MOMENTS = 15;  // their products: x^i y^j up to the fourth degree, by degree
constexpr std::size_t FACET_PRODUCTS[FACET_TERMS][FACET_TERMS] = {{0, 1, 2, 3, 4, 5},    {1, 3, 4, 6, 7, 8},
                                                                  {2, 4, 5, 7, 8, 9},    {3, 6, 7, 10, 11, 12},
                                                                  {4, 7, 8, 11, 12, 13}, {5, 8, 9, 12, 13, 14}};
constexpr float NO_FACET_RESIDUAL = std::numeric_limits<float>::infinity();
using FacetMoments = std::array<float, FACET_MOMENTS>;

struct FacetTap {
    int dx, dy;            ///< slots
    float tolerance;       ///< pixels
    FacetMoments moments;  ///< times the weight
};

/// Rows of the input with `margin` slots of NaN around the image, so that taps need no bounds.
struct FacetRows {
    const Raster<float>& padded;
    int margin;
    const std::vector<FacetTap>& taps;
    FacetMoments moments;  ///< of all taps
    float noise;           ///< what curvature must explain, squared pixels
    float sample;
    ParallaxField& field;
    Raster<float>* residual;  ///< null where it is not wanted
};

}  // namespace VexelAlgorithm
#endif

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::ScalableTag<float>;
using FloatVec = hn::Vec<FloatTag>;

struct Facet {
    FloatVec parallax, slopeX, slopeY;
};

struct FittedFacet {
    Facet facet;
    FloatVec residual;  ///< mean square
};

/// The equations of weighted least squares; the last column is the right side.
struct Equations {
    FloatVec m[FACET_TERMS][FACET_TERMS + 1];
    FloatVec squares;  ///< of what is to be explained
};

/// Over the taps that belong to the facet: the moments of all taps less those of the others. Slopes per slot.
Equations sum_up(const FacetRows& rows, int x, int y, const Facet& present) {
    const FloatTag d;
    FloatVec moments[FACET_MOMENTS], right[FACET_TERMS];
    for (std::size_t k = 0; k < FACET_MOMENTS; ++k) moments[k] = hn::Set(d, rows.moments[k]);
    for (auto& sum : right) sum = hn::Zero(d);
    auto squares = hn::Zero(d);
    for (const FacetTap& tap : rows.taps) {
        const auto dx = hn::Set(d, static_cast<float>(tap.dx));
        const auto dy = hn::Set(d, static_cast<float>(tap.dy));
        const float* source = rows.padded.row(y + tap.dy + rows.margin) + x + tap.dx + rows.margin;
        const auto difference = hn::Sub(hn::LoadU(d, source), present.parallax);
        const auto expected = hn::Add(hn::Mul(present.slopeX, dx), hn::Mul(present.slopeY, dy));
        const auto belongs = hn::Le(hn::Abs(hn::Sub(difference, expected)), hn::Set(d, tap.tolerance));
        const auto known = hn::IfThenElseZero(belongs, difference);
        for (std::size_t k = 0; k < FACET_TERMS; ++k)
            right[k] = hn::Add(right[k], hn::Mul(known, hn::Set(d, tap.moments[k])));
        squares = hn::Add(squares, hn::Mul(hn::Mul(known, known), hn::Set(d, tap.moments[0])));
        if (hn::AllTrue(d, belongs)) continue;
        for (std::size_t k = 0; k < FACET_MOMENTS; ++k)
            moments[k] = hn::Sub(moments[k], hn::IfThenZeroElse(belongs, hn::Set(d, tap.moments[k])));
    }
    Equations equations;
    equations.squares = squares;
    for (std::size_t i = 0; i < FACET_TERMS; ++i) {
        for (std::size_t k = i; k < FACET_TERMS; ++k) equations.m[i][k] = moments[FACET_PRODUCTS[i][k]];
        equations.m[i][FACET_TERMS] = right[i];
    }
    return equations;
}

/// Eliminates the terms one after the other. `inverse` gets 1 / pivot, 0 for terms that are left out.
void eliminate(const FacetRows& rows, Equations& equations, FloatVec (&inverse)[FACET_TERMS]) {
    const FloatTag d;
    const auto one = hn::Set(d, 1.0F);
    auto& m = equations.m;
    FloatVec limits[FACET_TERMS];
    for (std::size_t k = 0; k < FACET_TERMS; ++k)
        limits[k] =
            hn::Max(hn::Mul(m[k][k], hn::Set(d, 0.01F)), hn::Set(d, 0.001F * rows.moments[FACET_PRODUCTS[k][k]]));
    for (std::size_t k = 0; k < FACET_TERMS; ++k) {
        const auto is_known = hn::Gt(m[k][k], limits[k]);
        inverse[k] = hn::IfThenElseZero(is_known, hn::Div(one, hn::IfThenElse(is_known, m[k][k], one)));
        for (std::size_t i = k + 1; i < FACET_TERMS; ++i) {
            const auto ratio = hn::Mul(m[k][i], inverse[k]);
            for (std::size_t j = i; j <= FACET_TERMS; ++j) m[i][j] = hn::Sub(m[i][j], hn::Mul(ratio, m[k][j]));
        }
    }
}

FittedFacet fit(const FacetRows& rows, int x, int y, const Facet& present) {
    const FloatTag d;
    const auto zero = hn::Zero(d), one = hn::Set(d, 1.0F);
    Equations equations = sum_up(rows, x, y, present);
    FloatVec inverse[FACET_TERMS];
    eliminate(rows, equations, inverse);
    const auto& m = equations.m;
    const auto explained_by = [&](std::size_t begin, std::size_t end) {
        auto sum = zero;
        for (std::size_t k = begin; k < end; ++k)
            sum = hn::Add(sum, hn::Mul(hn::Mul(m[k][FACET_TERMS], m[k][FACET_TERMS]), inverse[k]));
        return sum;
    };
    const auto noise = hn::Set(d, rows.noise);
    const auto explained = explained_by(FACET_SLOPES, FACET_TERMS);
    const auto withheld = hn::Div(noise, hn::Max(explained, noise)), share = hn::Sub(one, withheld);

    FloatVec terms[FACET_TERMS];
    for (std::size_t k = FACET_TERMS; k-- > 0;) {
        auto rest = m[k][FACET_TERMS];
        for (std::size_t j = k + 1; j < FACET_TERMS; ++j) rest = hn::Sub(rest, hn::Mul(m[k][j], terms[j]));
        terms[k] = hn::Mul(rest, inverse[k]);
        if (k == FACET_SLOPES)  // the last one of the curvature
            for (std::size_t j = FACET_SLOPES; j < FACET_TERMS; ++j) terms[j] = hn::Mul(terms[j], share);
    }
    const auto is_spread = hn::And(hn::Gt(inverse[1], zero), hn::Gt(inverse[2], zero));
    const auto left = hn::Sub(hn::Sub(equations.squares, explained_by(0, FACET_SLOPES)),
                              hn::Mul(explained, hn::Sub(one, hn::Mul(withheld, withheld))));
    return {{hn::IfThenElse(is_spread, hn::Add(present.parallax, terms[0]), present.parallax),
             hn::IfThenElse(is_spread, terms[1], present.slopeX), hn::IfThenElse(is_spread, terms[2], present.slopeY)},
            hn::IfThenElse(is_spread, hn::Mul(hn::Max(left, zero), inverse[0]), hn::Set(d, NO_FACET_RESIDUAL))};
}

void fit_vector(const FacetRows& rows, int x, int y, float* parallax, float* slopeX, float* slopeY, float* residual) {
    const FloatTag d;
    const auto sample = hn::Set(d, rows.sample);
    const Facet present{hn::LoadU(d, parallax), hn::Mul(hn::LoadU(d, slopeX), sample),
                        hn::Mul(hn::LoadU(d, slopeY), sample)};
    const FittedFacet fitted = fit(rows, x, y, present);
    hn::StoreU(fitted.facet.parallax, d, parallax);
    hn::StoreU(hn::Div(fitted.facet.slopeX, sample), d, slopeX);
    hn::StoreU(hn::Div(fitted.facet.slopeY, sample), d, slopeY);
    if (residual != nullptr) hn::StoreU(fitted.residual, d, residual);
}

}  // namespace

void fit_facet_row(const FacetRows& rows, int y) {
    const int lanes = static_cast<int>(hn::Lanes(FloatTag()));
    const int width = rows.field.parallax.width();
    float* parallax = rows.field.parallax.row(y);
    float* slopeX = rows.field.slopeX.row(y);
    float* slopeY = rows.field.slopeY.row(y);
    float* residual = rows.residual != nullptr ? rows.residual->row(y) : nullptr;
    int x = 0;
    for (; x + lanes <= width; x += lanes)
        fit_vector(rows, x, y, parallax + x, slopeX + x, slopeY + x, residual != nullptr ? residual + x : nullptr);
    if (x == width) return;
    float tail[4][hn::MaxLanes(FloatTag())] = {};
    const int count = width - x;
    std::copy_n(parallax + x, count, tail[0]);
    std::copy_n(slopeX + x, count, tail[1]);
    std::copy_n(slopeY + x, count, tail[2]);
    fit_vector(rows, x, y, tail[0], tail[1], tail[2], tail[3]);
    std::copy_n(tail[0], count, parallax + x);
    std::copy_n(tail[1], count, slopeX + x);
    std::copy_n(tail[2], count, slopeY + x);
    if (residual != nullptr) std::copy_n(tail[3], count, residual + x);
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 8;
constexpr int WIDEST_VECTOR = 64;  // floats; taps of the last vector of a row may reach that far behind it

HWY_EXPORT(fit_facet_row);

FacetMoments moments_of(int dx, int dy, float weight) {
    FacetMoments moments{};
    std::size_t k = 0;
    for (int degree = 0; degree <= 4; ++degree)
        for (int j = 0; j <= degree; ++j)
            moments[k++] = weight * static_cast<float>(std::pow(dx, degree - j) * std::pow(dy, j));
    return moments;
}

std::vector<FacetTap> facet_taps(const FacetFit& fit, int sample) {
    std::vector<FacetTap> taps;
    for (int dy = -fit.radius; dy <= fit.radius; ++dy) {
        for (int dx = -fit.radius; dx <= fit.radius; ++dx) {
            const auto squared = static_cast<float>(dx * dx + dy * dy);
            const auto distance = static_cast<float>(sample * fit.spacing) * std::sqrt(squared);
            const float weight = std::exp(-squared / (2.0F * fit.sigma * fit.sigma));
            const int x = dx * fit.spacing, y = dy * fit.spacing;
            taps.push_back({x, y, fit.tolerance + fit.slopeTolerance * distance, moments_of(x, y, weight)});
        }
    }
    return taps;
}

FacetMoments sum_of(const std::vector<FacetTap>& taps) {
    FacetMoments sum{};
    for (const FacetTap& tap : taps)
        for (std::size_t k = 0; k < FACET_MOMENTS; ++k) sum[k] += tap.moments[k];
    return sum;
}

Raster<float> padded_copy(const Raster<float>& source, int margin) {
    Raster<float> padded(source.width() + 2 * margin + WIDEST_VECTOR, source.height() + 2 * margin, NO_PARALLAX);
    for (int y = 0; y < source.height(); ++y)
        std::copy_n(source.row(y), source.width(), padded.row(y + margin) + margin);
    return padded;
}

}  // namespace

void fit_facets(const FacetFit& fit, int sample, int threads, ParallaxField& field, Raster<float>* residual) {
    const Raster<float> padded = padded_copy(field.parallax, fit.radius * fit.spacing);
    const std::vector<FacetTap> taps = facet_taps(fit, sample);
    const FacetRows rows{padded,
                         fit.radius * fit.spacing,
                         taps,
                         sum_of(taps),
                         fit.noise * fit.noise * static_cast<float>(taps.size()),
                         static_cast<float>(sample),
                         field,
                         residual};
    if (residual != nullptr) residual->assign(field.parallax.width(), field.parallax.height());
    parallel_ranges(threads, static_cast<std::size_t>(field.parallax.height()), ROW_GRAIN,
                    [&](std::size_t begin, std::size_t end) {
                        for (std::size_t y = begin; y < end; ++y)
                            HWY_DYNAMIC_DISPATCH(fit_facet_row)(rows, static_cast<int>(y));
                    });
}

void smooth_slopes(const FacetFit& wide, const FacetFit& narrow, float noise, int sample, int threads,
                   ParallaxField& field) {
    const Raster<float> measured = field.parallax;
    ParallaxField fine = field;
    Raster<float> residual;
    fit_facets(wide, sample, threads, field, &residual);
    fit_facets(narrow, sample, threads, fine);
    field.parallax = measured;
    const float expected = noise * noise;
    parallel_ranges(threads, measured.size(), ROW_GRAIN * static_cast<std::size_t>(measured.width()),
                    [&](std::size_t begin, std::size_t end) {
                        for (std::size_t i = begin; i < end; ++i) {
                            const float share = 1.0F - expected / std::max(residual[i], expected);
                            field.slopeX[i] += share * (fine.slopeX[i] - field.slopeX[i]);
                            field.slopeY[i] += share * (fine.slopeY[i] - field.slopeY[i]);
                        }
                    });
}

}  // namespace VexelAlgorithm
#endif
