#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "fusion/rayMarch.cpp"
#include "fusion/rayMarch.h"

#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "foundation/vectorTargets.h"
#include "fusion/EmptySpace.h"
#include "fusion/fieldLanes-inl.h"

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace Fusion {
namespace HWY_NAMESPACE {

constexpr float None = std::numeric_limits<float>::quiet_NaN();

HWY_INLINE Floats axis_in_voxels(const RayBundle& bundle, int axis, Floats direction, Floats t) {
    const FloatTag d;
    const Floats point = hn::Add(hn::Set(d, bundle.origin[axis]), hn::Mul(t, direction));
    return hn::Div(hn::Sub(point, hn::Set(d, bundle.shift[axis])), hn::Set(d, bundle.pointDis));
}

/// Where rays are at ray lengths t, in voxels.
HWY_INLINE PositionLanes in_voxels(const RayBundle& bundle, const PositionLanes& direction, Floats t) {
    return {axis_in_voxels(bundle, 0, direction.x, t), axis_in_voxels(bundle, 1, direction.y, t),
            axis_in_voxels(bundle, 2, direction.z, t)};
}

HWY_INLINE std::size_t leading_ones(std::uint32_t bits) {
    return hwy::Num0BitsBelowLS1Bit_Nonzero32(~bits);
}

/// The ray length of the last positive sample before a negative one; NaN when there is none. A vector holds samples in
/// a row. `count_empty` tells how many samples from the n-th on may be passed over.
template <class CountEmpty>
float find_crossing(const RayBundle& bundle, FieldLanes& field, const MarchRay& ray, const CountEmpty& count_empty) {
    const FloatTag d;
    const IntTag di;
    const std::size_t lanes = hn::Lanes(d);
    const PositionLanes direction{hn::Set(d, ray.direction[0]), hn::Set(d, ray.direction[1]),
                                  hn::Set(d, ray.direction[2])};
    const Floats start = hn::Set(d, ray.start), end = hn::Set(d, ray.end), step = hn::Set(d, bundle.step);
    const Ints numbers = hn::Iota(di, 0);
    std::uint32_t wasPositive = 0;
    bool wasEmpty = true;
    for (std::int32_t n = ray.firstSample;;) {
        const int empty = wasEmpty ? count_empty(n) : 0;
        if (empty > 0) {
            n += empty;
            if (length_at(bundle, ray, n - 1) > ray.end) return None;
            continue;
        }
        const Floats t = hn::Add(start, hn::Mul(hn::ConvertTo(d, hn::Add(hn::Set(di, n), numbers)), step));
        const PositionLanes q = in_voxels(bundle, direction, t);
        // A sample counts when it is valid and the one before lies within the interval.
        const std::size_t valid = leading_ones(mask_bits(field.is_in_sample_range(q)));
        const std::size_t within = leading_ones(mask_bits(hn::Le(t, end)));
        const std::size_t samples = std::min({valid, within + 1, lanes});
        if (samples == 0) return None;

        const VoxelLanes voxel{hn::ConvertTo(di, q.x), hn::ConvertTo(di, q.y), hn::ConvertTo(di, q.z)};
        const Mask counts = hn::FirstN(d, samples);
        const Floats value = field.values(voxel, counts);
        const std::uint32_t positive = mask_bits(hn::And(counts, hn::Gt(value, hn::Zero(d))));
        const std::uint32_t negative = mask_bits(hn::And(counts, hn::Lt(value, hn::Zero(d))));
        const std::uint32_t crossings = negative & (positive << 1 | wasPositive);
        // One branch, which most rays take at the same place, for both ends of the march.
        if (crossings != 0 || samples < lanes || within < lanes) {
            const auto k = static_cast<std::int32_t>(hwy::Num0BitsBelowLS1Bit_Nonzero32(crossings | 1u << 31));
            const float length = length_at(bundle, ray, n + k - 1);
            return crossings != 0 ? length : None;
        }
        wasPositive = positive >> (lanes - 1);
        wasEmpty = ((positive | negative) >> (lanes - 1)) == 0;
        n += static_cast<std::int32_t>(lanes);
    }
}

HWY_INLINE float find_crossing(const RayBundle& bundle, FieldLanes& field, const BrickSource& source,
                               const MarchRay& ray) {
    if (bundle.isGuided) return find_crossing(bundle, field, ray, [](std::int32_t) { return 0; });
    const EmptySpace space(bundle, source, ray);
    return find_crossing(bundle, field, ray, [&](std::int32_t n) { return space.count_samples(n); });
}

/// Reads most bricks that guided rays will ask for, all together instead of one after the other. Neighbours ask for the
/// same ones, so a part of the rays tells which.
void read_ahead(const RayBundle& bundle, FieldLanes& field, BrickCache& bricks, const MarchRay* rays,
                std::size_t count) {
    constexpr std::size_t Stride = 7;  // no divisor of a tile's width, so that the rays do not stand in columns
    const FloatTag d;
    const IntTag di;
    const Floats sample = hn::ConvertTo(d, hn::Iota(di, 0)), step = hn::Set(d, bundle.step);
    for (std::size_t i = 0; i < count; i += Stride) {
        const MarchRay& ray = rays[i];
        const PositionLanes direction{hn::Set(d, ray.direction[0]), hn::Set(d, ray.direction[1]),
                                      hn::Set(d, ray.direction[2])};
        for (float start = ray.start; start <= ray.end; start += static_cast<float>(hn::Lanes(d)) * bundle.step) {
            const Floats t = hn::Add(hn::Set(d, start), hn::Mul(sample, step));
            const PositionLanes q = in_voxels(bundle, direction, t);
            const Mask counts = hn::And(field.is_in_sample_range(q), hn::Le(t, hn::Set(d, ray.end)));
            if (hn::AllFalse(d, counts)) break;  // also where lengths are so large that steps add nothing
            field.request({hn::ConvertTo(di, q.x), hn::ConvertTo(di, q.y), hn::ConvertTo(di, q.z)}, counts);
        }
    }
    bricks.read_requested();
}

/// The lengths t* at which trilinear samples pass through zero around lengths t, one ray a lane: the place may lie one
/// step further or one step before the one where the nearest voxels' values changed their sign. NaN where there is
/// none. Comparisons with NaN are false, so a missing sample ends each case.
HWY_INLINE Floats refine(const RayBundle& bundle, FieldLanes& field, const PositionLanes& direction, Floats t,
                         Mask wanted) {
    const FloatTag d;
    const Floats zero = hn::Zero(d), s = hn::Set(d, bundle.step), none = hn::Set(d, None);
    const auto sample = [&](Floats length, Mask where) {
        return field.trilinear(in_voxels(bundle, direction, length), where);
    };
    const auto is_point = [&](Floats length) {
        const Floats x = hn::Add(hn::Set(d, bundle.origin[0]), hn::Mul(length, direction.x));
        return hn::Eq(x, x);
    };
    // Zero of the line through (from, a) and (from + s, b).
    const auto zero_between = [&](Floats from, Floats a, Floats b) {
        return hn::Add(from, hn::Div(hn::Mul(s, a), hn::Sub(a, b)));
    };

    const Floats following = hn::Add(t, s);
    const Floats after = sample(following, wanted);
    const Mask isBeyond = hn::And(wanted, hn::Gt(after, zero));
    // The next sample where the place seems to lie beyond, the one at t elsewhere.
    const Floats second = sample(hn::IfThenElse(isBeyond, hn::Add(t, hn::Mul(hn::Set(d, 2.0f), s)), t), wanted);
    const Floats beyond = zero_between(following, after, second);
    const Mask foundBeyond = hn::And(hn::And(isBeyond, hn::Lt(second, zero)), is_point(beyond));
    Floats result = hn::IfThenElse(foundBeyond, beyond, none);

    Floats before = second;
    const Mask isBeforeUnknown = hn::AndNot(foundBeyond, isBeyond);
    if (HWY_UNLIKELY(!hn::AllFalse(d, isBeforeUnknown))) {
        before = hn::IfThenElse(isBeforeUnknown, sample(t, isBeforeUnknown), before);
    }
    Mask isOpen = hn::AndNot(foundBeyond, wanted);
    const Mask isBefore = hn::And(isOpen, hn::Lt(before, zero));
    if (!hn::AllFalse(d, isBefore)) {
        const Floats preceding = hn::Sub(t, s);
        const Floats back = sample(preceding, isBefore);
        const Floats found = zero_between(preceding, back, before);
        const Mask foundBefore = hn::And(hn::And(isBefore, hn::Gt(back, zero)), is_point(found));
        result = hn::IfThenElse(foundBefore, found, result);
        isOpen = hn::AndNot(foundBefore, isOpen);
    }
    const Floats between = zero_between(t, before, after);
    const Mask foundBetween =
        hn::And(hn::And(isOpen, hn::And(hn::Gt(before, zero), hn::Lt(after, zero))), is_point(between));
    return hn::IfThenElse(foundBetween, between, result);
}

/// Rays whose march has ended at a crossing, to be refined together.
class CrossingLanes {
public:
    bool is_full() const { return _count == hn::Lanes(FloatTag()); }
    /// Not when the length is NaN. No branch: whether a ray meets the surface is hard to foretell.
    void add(const MarchRay& ray, float t, std::size_t number) {
        _x[_count] = ray.direction[0];
        _y[_count] = ray.direction[1];
        _z[_count] = ray.direction[2];
        _t[_count] = t;
        _numbers[_count] = number;
        _count += std::isnan(t) ? 0 : 1;
    }
    void refine_all(const RayBundle& bundle, FieldLanes& field, float* lengths) {
        const FloatTag d;
        const PositionLanes direction{hn::Load(d, _x), hn::Load(d, _y), hn::Load(d, _z)};
        HWY_ALIGN float found[MaxLanes] = {};
        hn::Store(refine(bundle, field, direction, hn::Load(d, _t), hn::FirstN(d, _count)), d, found);
        for (std::size_t i = 0; i < _count; ++i) lengths[_numbers[i]] = found[i];
        _count = 0;
    }

private:
    HWY_ALIGN float _x[MaxLanes] = {}, _y[MaxLanes] = {}, _z[MaxLanes] = {}, _t[MaxLanes] = {};
    std::size_t _numbers[MaxLanes];
    std::size_t _count = 0;
};

void cast_rays(const RayBundle& bundle, BrickCache& bricks, const MarchRay* rays, std::size_t count, float* lengths) {
    FieldLanes field(bricks, bundle.sampleEnd);
    CrossingLanes crossings;
    if (bundle.isGuided) read_ahead(bundle, field, bricks, rays, count);
    for (std::size_t i = 0; i < count; ++i) {
        lengths[i] = None;
        crossings.add(rays[i], find_crossing(bundle, field, bricks.source(), rays[i]), i);
        if (crossings.is_full()) crossings.refine_all(bundle, field, lengths);
    }
    crossings.refine_all(bundle, field, lengths);
}

}  // namespace HWY_NAMESPACE
}  // namespace Fusion
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace Fusion {

HWY_EXPORT(cast_rays);

CastRays best_cast_rays() {
    detect_processor();
    return &HWY_DYNAMIC_DISPATCH(cast_rays);
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
#endif
