#include "SpeckleRebCPU/windowPairs.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/windowPairs.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::CappedTag<float, 8>;  // windows are narrow
using IntTag = hn::RebindToSigned<FloatTag>;
using ByteTag = hn::Rebind<std::uint8_t, FloatTag>;
using FloatVec = hn::Vec<FloatTag>;
using IntVec = hn::Vec<IntTag>;

constexpr int INTERPOLATED = 2;
constexpr int LOADED = 4;  // bytes around a position

/// As many bytes as there are lanes; those from `count` on are zero.
IntVec load_bytes(const std::uint8_t* bytes, int count) {
    const ByteTag d8;
    const int lanes = static_cast<int>(hn::Lanes(d8));
    if (count >= lanes) return hn::PromoteTo(IntTag(), hn::LoadU(d8, bytes));
    HWY_ALIGN std::uint8_t padded[8] = {};
    std::memcpy(padded, bytes, static_cast<std::size_t>(std::max(count, 0)));
    return hn::PromoteTo(IntTag(), hn::Load(d8, padded));
}

/// The two bytes of a row at each column, in the lowest sixteen bits; `column` is at most width - 2.
IntVec load_pairs(const std::uint8_t* row, int width, IntVec column) {
    const IntTag di;
    const auto first = hn::Min(column, hn::Set(di, width - LOADED));
    HWY_ALIGN std::int32_t offset[8], bytes[8];
    hn::Store(first, di, offset);
    for (std::size_t i = 0; i < hn::Lanes(di); ++i) std::memcpy(&bytes[i], row + offset[i], LOADED);
    const auto behind = hn::Sub(column, first);  // 0 to 2
    const auto loaded = hn::Load(di, bytes);
    const auto by_one = hn::IfThenElse(hn::Eq(behind, hn::Set(di, 1)), hn::ShiftRight<8>(loaded), loaded);
    return hn::IfThenElse(hn::Eq(behind, hn::Set(di, 2)), hn::ShiftRight<16>(loaded), by_one);
}

template <bool WITH_DERIVATIVE>
PairSums sums_of(const WindowTask& task, const WindowFacet& facet) {
    const FloatTag d;
    const IntTag di;
    const int lanes = static_cast<int>(hn::Lanes(d));
    const int rx = task.width / 2, ry = task.height / 2, width = task.left.width();
    const auto byte = hn::Set(di, 255), zero = hn::Zero(di);
    IntVec n = zero, f = zero, g = zero, ff = zero, fg = zero, gg = zero, s = zero, fs = zero, gs = zero, ss = zero;
    const int firstColumn = std::max(-rx, -facet.x), lastColumn = std::min(rx, width - 1 - facet.x);
    const int firstRow = std::max(-ry, -facet.y), lastRow = std::min(ry, task.left.height() - 1 - facet.y);
    for (int dy = firstRow; dy <= lastRow; ++dy) {
        const int y = facet.y + dy;
        const auto start =
            hn::Set(d, static_cast<float>(facet.x) + facet.parallax + facet.slopeY * static_cast<float>(dy));
        for (int dx = firstColumn; dx <= lastColumn; dx += lanes) {
            const auto along = hn::Iota(d, static_cast<float>(dx));
            const auto position = hn::Add(start, hn::Mul(hn::Set(d, 1.0F + facet.slopeX), along));
            auto counts = hn::And(
                hn::Le(along, hn::Set(d, static_cast<float>(lastColumn))),
                hn::And(hn::Ge(position, hn::Zero(d)), hn::Lt(position, hn::Set(d, static_cast<float>(width - 1)))));
            const auto inside = hn::IfThenElseZero(counts, position);
            const auto column = hn::ConvertTo(di, inside);
            const int x = facet.x + dx, rest = width - x;
            auto isCovered = hn::RebindMask(di, counts);
            if (task.leftCover != nullptr)
                isCovered = hn::And(isCovered, hn::Ne(load_bytes(task.leftCover->row(y) + x, rest), zero));
            if (task.rightCover != nullptr) {
                const auto cover = load_pairs(task.rightCover->row(y), width, column);
                isCovered = hn::And(isCovered, hn::And(hn::Ne(hn::And(cover, byte), zero),
                                                       hn::Ne(hn::And(hn::ShiftRight<8>(cover), byte), zero)));
            }
            const auto pair = load_pairs(task.right.row(y), width, column);
            const auto before = hn::And(pair, byte), after = hn::And(hn::ShiftRight<8>(pair), byte);
            const auto slope = hn::IfThenElseZero(isCovered, hn::Sub(after, before));
            const auto fraction = hn::Sub(inside, hn::ConvertTo(d, column));
            const auto between = hn::NearestInt(hn::Mul(hn::Mul(fraction, hn::ConvertTo(d, slope)), hn::Set(d, 4.0F)));
            const auto middle = hn::Set(di, 128);
            const auto right =
                hn::IfThenElseZero(isCovered, hn::Add(hn::ShiftLeft<INTERPOLATED>(hn::Sub(before, middle)), between));
            const auto left = hn::IfThenElseZero(
                isCovered, hn::ShiftLeft<INTERPOLATED>(hn::Sub(load_bytes(task.left.row(y) + x, rest), middle)));
            n = hn::Add(n, hn::IfThenElseZero(isCovered, hn::Set(di, 1)));
            f = hn::Add(f, left);
            g = hn::Add(g, right);
            ff = hn::Add(ff, hn::Mul(left, left));
            fg = hn::Add(fg, hn::Mul(left, right));
            gg = hn::Add(gg, hn::Mul(right, right));
            if (!WITH_DERIVATIVE) continue;
            s = hn::Add(s, slope);
            fs = hn::Add(fs, hn::Mul(left, slope));
            gs = hn::Add(gs, hn::Mul(right, slope));
            ss = hn::Add(ss, hn::Mul(slope, slope));
        }
    }
    const auto total = [&](IntVec sum) { return hn::GetLane(hn::SumOfLanes(di, sum)); };
    PairSums sums{total(n), total(f), total(g), total(ff), total(fg), total(gg), 0, 0, 0, 0};
    if (!WITH_DERIVATIVE) return sums;
    sums.d = total(s);
    sums.fd = total(fs);
    sums.gd = total(gs);
    sums.dd = total(ss);
    return sums;
}

}  // namespace

PairSums sums_with_derivative(const WindowTask& task, const WindowFacet& facet) {
    return sums_of<true>(task, facet);
}
PairSums sums_of_grey_values(const WindowTask& task, const WindowFacet& facet) {
    return sums_of<false>(task, facet);
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {

constexpr int SMALLEST_WIDTH = 4;  // pixels that are loaded at once

HWY_EXPORT(sums_with_derivative);
HWY_EXPORT(sums_of_grey_values);

PairSums sum_pairs(const WindowTask& task, const WindowFacet& facet, bool withDerivative) {
    if (task.left.width() < SMALLEST_WIDTH) return {};
    return withDerivative ? HWY_DYNAMIC_DISPATCH(sums_with_derivative)(task, facet)
                          : HWY_DYNAMIC_DISPATCH(sums_of_grey_values)(task, facet);
}

PairCovariances::PairCovariances(const PairSums& sums) {
    constexpr double QUARTER = 0.25;
    const double inverse = 1.0 / std::max(1, sums.count);
    const auto covariance = [&](std::int32_t product, std::int32_t a, std::int32_t b) {
        return static_cast<double>(product) - inverse * static_cast<double>(a) * static_cast<double>(b);
    };
    ff = QUARTER * QUARTER * covariance(sums.ff, sums.f, sums.f);
    fg = QUARTER * QUARTER * covariance(sums.fg, sums.f, sums.g);
    gg = QUARTER * QUARTER * covariance(sums.gg, sums.g, sums.g);
    fd = QUARTER * covariance(sums.fd, sums.f, sums.d);
    gd = QUARTER * covariance(sums.gd, sums.g, sums.d);
    dd = covariance(sums.dd, sums.d, sums.d);
}

double PairCovariances::correlation() const {
    return fg / std::sqrt(ff * gg);
}

}  // namespace VexelAlgorithm
#endif
