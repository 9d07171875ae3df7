#include "SpeckleRebCPU/parallaxFacets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/parallaxFacets.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "foundation/parallel.h"

#ifndef VEXEL_FACET_ROWS_DEFINED
#    define VEXEL_FACET_ROWS_DEFINED
namespace VexelAlgorithm {

struct FacetTap {
    int dx, dy;
    float weight;
    float tolerance;  ///< pixels
};

/// Rows of the input with `margin` slots of NaN around the image, so that taps need no bounds.
struct FacetRows {
    const Raster<float>& padded;
    int margin;
    const std::vector<FacetTap>& taps;
    float sample;
    ParallaxField& field;
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

/// Weighted least squares over the taps; slopes per slot.
Facet fit(const FacetRows& rows, int x, int y, const Facet& present) {
    const FloatTag d;
    auto W = hn::Zero(d), X = W, Y = W, XX = W, XY = W, YY = W, P = W, XP = W, YP = W;
    for (const FacetTap& tap : rows.taps) {
        const auto dx = hn::Set(d, static_cast<float>(tap.dx));
        const auto dy = hn::Set(d, static_cast<float>(tap.dy));
        const float* source = rows.padded.row(y + tap.dy + rows.margin) + x + tap.dx + rows.margin;
        const auto difference = hn::Sub(hn::LoadU(d, source), present.parallax);
        const auto expected = hn::Add(hn::Mul(present.slopeX, dx), hn::Mul(present.slopeY, dy));
        const auto belongs = hn::Le(hn::Abs(hn::Sub(difference, expected)), hn::Set(d, tap.tolerance));
        const auto w = hn::IfThenElseZero(belongs, hn::Set(d, tap.weight));
        const auto wp = hn::IfThenElseZero(belongs, hn::Mul(hn::Set(d, tap.weight), difference));
        const auto wx = hn::Mul(w, dx), wy = hn::Mul(w, dy);
        W = hn::Add(W, w);
        X = hn::Add(X, wx);
        Y = hn::Add(Y, wy);
        XX = hn::Add(XX, hn::Mul(wx, dx));
        XY = hn::Add(XY, hn::Mul(wx, dy));
        YY = hn::Add(YY, hn::Mul(wy, dy));
        P = hn::Add(P, wp);
        XP = hn::Add(XP, hn::Mul(wp, dx));
        YP = hn::Add(YP, hn::Mul(wp, dy));
    }
    const auto inverse = hn::Div(hn::Set(d, 1.0F), hn::Max(W, hn::Set(d, 1e-6F)));
    const auto mx = hn::Mul(X, inverse), my = hn::Mul(Y, inverse), mp = hn::Mul(P, inverse);
    const auto cxx = hn::Sub(XX, hn::Mul(X, mx)), cxy = hn::Sub(XY, hn::Mul(X, my)), cyy = hn::Sub(YY, hn::Mul(Y, my));
    const auto cxp = hn::Sub(XP, hn::Mul(X, mp)), cyp = hn::Sub(YP, hn::Mul(Y, mp));
    const auto determinant = hn::Sub(hn::Mul(cxx, cyy), hn::Mul(cxy, cxy));
    // Spread over both directions, by a tenth of a slot at least.
    const auto is_spread = hn::Gt(determinant, hn::Mul(hn::Set(d, 0.01F), hn::Mul(W, W)));
    const auto scale = hn::Div(hn::Set(d, 1.0F), hn::IfThenElse(is_spread, determinant, hn::Set(d, 1.0F)));
    const auto a = hn::Mul(hn::Sub(hn::Mul(cxp, cyy), hn::Mul(cyp, cxy)), scale);
    const auto b = hn::Mul(hn::Sub(hn::Mul(cyp, cxx), hn::Mul(cxp, cxy)), scale);
    const auto centre = hn::Sub(hn::Sub(mp, hn::Mul(a, mx)), hn::Mul(b, my));
    return {hn::IfThenElse(is_spread, hn::Add(present.parallax, centre), present.parallax),
            hn::IfThenElse(is_spread, a, present.slopeX), hn::IfThenElse(is_spread, b, present.slopeY)};
}

void fit_vector(const FacetRows& rows, int x, int y, float* parallax, float* slopeX, float* slopeY) {
    const FloatTag d;
    const auto sample = hn::Set(d, rows.sample);
    const Facet present{hn::LoadU(d, parallax), hn::Mul(hn::LoadU(d, slopeX), sample),
                        hn::Mul(hn::LoadU(d, slopeY), sample)};
    const Facet fitted = fit(rows, x, y, present);
    hn::StoreU(fitted.parallax, d, parallax);
    hn::StoreU(hn::Div(fitted.slopeX, sample), d, slopeX);
    hn::StoreU(hn::Div(fitted.slopeY, sample), d, slopeY);
}

}  // namespace

void fit_facet_row(const FacetRows& rows, int y) {
    const int lanes = static_cast<int>(hn::Lanes(FloatTag()));
    const int width = rows.field.parallax.width();
    float* parallax = rows.field.parallax.row(y);
    float* slopeX = rows.field.slopeX.row(y);
    float* slopeY = rows.field.slopeY.row(y);
    int x = 0;
    for (; x + lanes <= width; x += lanes) fit_vector(rows, x, y, parallax + x, slopeX + x, slopeY + x);
    if (x == width) return;
    float tail[3][hn::MaxLanes(FloatTag())] = {};
    const int count = width - x;
    std::copy_n(parallax + x, count, tail[0]);
    std::copy_n(slopeX + x, count, tail[1]);
    std::copy_n(slopeY + x, count, tail[2]);
    fit_vector(rows, x, y, tail[0], tail[1], tail[2]);
    std::copy_n(tail[0], count, parallax + x);
    std::copy_n(tail[1], count, slopeX + x);
    std::copy_n(tail[2], count, slopeY + x);
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

std::vector<FacetTap> facet_taps(const FacetFit& fit, int sample) {
    std::vector<FacetTap> taps;
    for (int dy = -fit.radius; dy <= fit.radius; ++dy) {
        for (int dx = -fit.radius; dx <= fit.radius; ++dx) {
            const auto squared = static_cast<float>(dx * dx + dy * dy);
            const auto distance = static_cast<float>(sample * fit.spacing) * std::sqrt(squared);
            taps.push_back({dx * fit.spacing, dy * fit.spacing, std::exp(-squared / (2.0F * fit.sigma * fit.sigma)),
                            fit.tolerance + fit.slopeTolerance * distance});
        }
    }
    return taps;
}

Raster<float> padded_copy(const Raster<float>& source, int margin) {
    Raster<float> padded(source.width() + 2 * margin + WIDEST_VECTOR, source.height() + 2 * margin, NO_PARALLAX);
    for (int y = 0; y < source.height(); ++y)
        std::copy_n(source.row(y), source.width(), padded.row(y + margin) + margin);
    return padded;
}

}  // namespace

void fit_facets(const FacetFit& fit, int sample, int threads, ParallaxField& field) {
    const Raster<float> padded = padded_copy(field.parallax, fit.radius * fit.spacing);
    const std::vector<FacetTap> taps = facet_taps(fit, sample);
    const FacetRows rows{padded, fit.radius * fit.spacing, taps, static_cast<float>(sample), field};
    parallel_ranges(threads, static_cast<std::size_t>(field.parallax.height()), ROW_GRAIN,
                    [&](std::size_t begin, std::size_t end) {
                        for (std::size_t y = begin; y < end; ++y)
                            HWY_DYNAMIC_DISPATCH(fit_facet_row)(rows, static_cast<int>(y));
                    });
}

}  // namespace VexelAlgorithm
#endif
