// Values of a field for several samples at a time, one a vector lane. Compiled once for each instruction set.

// Not include guards in the usual sense: the header is wanted once for each target.
#if defined(VEXEL_FUSION_FIELD_LANES_INL_H) == defined(HWY_TARGET_TOGGLE)
#    ifdef VEXEL_FUSION_FIELD_LANES_INL_H
#        undef VEXEL_FUSION_FIELD_LANES_INL_H
#    else
#        define VEXEL_FUSION_FIELD_LANES_INL_H
#    endif

#    include <hwy/highway.h>

#    include <cstddef>
#    include <cstdint>
#    include <limits>

#    include "fusion/BrickCache.h"

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace Fusion {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// No more lanes than a run of samples along a guided ray has.
using FloatTag = hn::CappedTag<float, 8>;
using IntTag = hn::RebindToSigned<FloatTag>;
using Floats = hn::Vec<FloatTag>;
using Ints = hn::Vec<IntTag>;
using Mask = hn::Mask<FloatTag>;
constexpr std::size_t MaxLanes = 8;

HWY_INLINE std::uint32_t mask_bits(Mask mask) {
    std::uint8_t bytes[8];
    hn::StoreMaskBits(FloatTag(), mask, bytes);
    return bytes[0];
}

struct PositionLanes {
    Floats x, y, z;
};
struct VoxelLanes {
    Ints x, y, z;
};

/// One axis' share of the places of voxels in a `BrickCache`.
struct AxisLanes {
    Ints index, tag, deepTag;
};

template <int Axis>
HWY_INLINE AxisLanes axis_lanes(Ints voxel) {
    constexpr int BrickBits = BrickCache::BrickBits, AxisBits = BrickCache::AxisBits;
    const IntTag d;
    const Ints inBrick = hn::And(voxel, hn::Set(d, (1 << BrickBits) - 1));
    const Ints slot = hn::And(voxel, hn::Set(d, ((1 << AxisBits) - 1) << BrickBits));
    return {
        hn::Or(hn::ShiftLeft<Axis * BrickBits>(inBrick), hn::ShiftLeft<2 * BrickBits + Axis * AxisBits>(slot)),
        hn::ShiftLeft<Axis * BrickCache::TagBits>(hn::ShiftRight<BrickCache::LowBits>(voxel)),
        hn::ShiftLeft<Axis * BrickCache::TagBits>(hn::ShiftRight<BrickCache::LowBits + BrickCache::TagBits>(voxel))};
}

/// Along one axis, the voxels whose centres lie below positions and how far the positions lie above those centres;
/// `CentreBelow` for lanes.
struct CentreBelowLanes {
    HWY_INLINE explicit CentreBelowLanes(Floats q) {
        const FloatTag d;
        const IntTag di;
        voxel = hn::ConvertTo(di, q);
        f = hn::Sub(q, hn::Add(hn::ConvertTo(d, voxel), hn::Set(d, 0.5f)));
        const Mask isBelow = hn::Lt(f, hn::Zero(d));
        voxel = hn::Add(voxel, hn::BitCast(di, hn::VecFromMask(d, isBelow)));
        f = hn::Add(f, hn::IfThenElseZero(isBelow, hn::Set(d, 1.0f)));
    }

    Ints voxel;
    Floats f;
};

HWY_INLINE Floats blend(Floats a, Floats b, Floats t) {
    return hn::Add(hn::Mul(a, hn::Sub(hn::Set(FloatTag(), 1.0f), t)), hn::Mul(b, t));
}

/// The samples of `FieldReader`, number for number.
class FieldLanes {
public:
    /// Positions below `sampleEnd` voxels have samples.
    FieldLanes(BrickCache& bricks, float sampleEnd) : _bricks(bricks), _sampleEnd(sampleEnd) {}

    HWY_INLINE Mask is_in_sample_range(const PositionLanes& q) const {
        const FloatTag d;
        const Floats low = hn::Set(d, 1.0f), high = hn::Set(d, _sampleEnd);
        // The smaller and the larger of two operands of which one is NaN may be the other one.
        const Mask x = hn::And(hn::Ge(q.x, low), hn::Lt(q.x, high));
        const Mask y = hn::And(hn::Ge(q.y, low), hn::Lt(q.y, high));
        const Mask z = hn::And(hn::Ge(q.z, low), hn::Lt(q.z, high));
        return hn::And(hn::And(x, y), z);
    }

    /// The values of voxels of the volume. Lanes that are not wanted hold anything.
    HWY_INLINE Floats values(const VoxelLanes& voxel, Mask wanted) {
        Mask isPresent;
        const Floats present =
            present_values(axis_lanes<0>(voxel.x), axis_lanes<1>(voxel.y), axis_lanes<2>(voxel.z), isPresent);
        const Mask isMissing = hn::AndNot(isPresent, wanted);
        if (HWY_LIKELY(hn::AllFalse(FloatTag(), isMissing))) return present;
        return read_missing(voxel, isMissing, present);
    }

    /// Asks for the bricks of voxels of the volume.
    HWY_INLINE void request(const VoxelLanes& voxel, Mask wanted) {
        Mask isPresent;
        present_values(axis_lanes<0>(voxel.x), axis_lanes<1>(voxel.y), axis_lanes<2>(voxel.z), isPresent);
        const Mask isMissing = hn::AndNot(isPresent, wanted);
        if (hn::AllFalse(FloatTag(), isMissing)) return;
        for_each_lane(voxel, isMissing, [&](std::size_t, int x, int y, int z) { _bricks.request(x, y, z); });
    }

    /// Trilinear samples at positions in voxels; NaN where there is none and in lanes that are not wanted.
    HWY_INLINE Floats trilinear(const PositionLanes& q, Mask wanted) {
        const FloatTag d;
        const Mask hasSample = hn::And(wanted, is_in_sample_range(q));
        const CentreBelowLanes belowX(q.x), belowY(q.y), belowZ(q.z);
        const Ints one = hn::Set(IntTag(), 1);
        const AxisLanes x[2] = {axis_lanes<0>(belowX.voxel), axis_lanes<0>(hn::Add(belowX.voxel, one))};
        const AxisLanes y[2] = {axis_lanes<1>(belowY.voxel), axis_lanes<1>(hn::Add(belowY.voxel, one))};
        const AxisLanes z[2] = {axis_lanes<2>(belowZ.voxel), axis_lanes<2>(hn::Add(belowZ.voxel, one))};

        Floats corner[8];
        Mask arePresent = hasSample;
        for (int i = 0; i < 8; ++i) {
            Mask isPresent;
            corner[i] = present_values(x[i & 1], y[i >> 1 & 1], z[i >> 2], isPresent);
            arePresent = hn::And(arePresent, isPresent);
        }
        const Mask areMissing = hn::AndNot(arePresent, hasSample);
        if (HWY_UNLIKELY(!hn::AllFalse(d, areMissing))) {
            for (int i = 0; i < 8; ++i) {
                const VoxelLanes voxel{hn::Add(belowX.voxel, hn::Set(IntTag(), i & 1)),
                                       hn::Add(belowY.voxel, hn::Set(IntTag(), i >> 1 & 1)),
                                       hn::Add(belowZ.voxel, hn::Set(IntTag(), i >> 2))};
                corner[i] = read_missing(voxel, areMissing, corner[i]);
            }
        }
        Floats smallest = hn::Abs(corner[0]);
        for (int i = 1; i < 8; ++i) smallest = hn::Min(smallest, hn::Abs(corner[i]));
        const Mask isKnown = hn::And(hasSample, hn::Ge(smallest, hn::Set(d, 1e-6f)));
        const Floats y0 = blend(blend(corner[0], corner[1], belowX.f), blend(corner[2], corner[3], belowX.f), belowY.f);
        const Floats y1 = blend(blend(corner[4], corner[5], belowX.f), blend(corner[6], corner[7], belowX.f), belowY.f);
        return hn::IfThenElse(isKnown, blend(y0, y1, belowZ.f), hn::Set(d, std::numeric_limits<float>::quiet_NaN()));
    }

private:
    /// The cached values at these places, as far as `isPresent`.
    HWY_INLINE Floats present_values(const AxisLanes& x, const AxisLanes& y, const AxisLanes& z,
                                     Mask& isPresent) const {
        const FloatTag d;
        const IntTag di;
        const Ints index = hn::Or(hn::Or(x.index, y.index), z.index);
        const Ints slot = hn::ShiftRight<3 * BrickCache::BrickBits>(index);
        const Ints tag = hn::Xor(hn::Xor(x.tag, y.tag), z.tag);
        auto isSame = hn::Eq(hn::GatherIndex(di, _bricks.tags(), slot), tag);
        if (_bricks.is_deep()) {
            const Ints deepTag = hn::Xor(hn::Xor(x.deepTag, y.deepTag), z.deepTag);
            isSame = hn::And(isSame, hn::Eq(hn::GatherIndex(di, _bricks.deep_tags(), slot), deepTag));
        }
        isPresent = hn::RebindMask(d, isSame);
        return hn::GatherIndex(d, _bricks.values(), index);
    }

    /// Reads lane after lane: the bricks of two lanes may have the same slot. Values gathered before stay good.
    HWY_NOINLINE Floats read_missing(const VoxelLanes& voxel, Mask isMissing, Floats values) {
        const FloatTag d;
        HWY_ALIGN float read[MaxLanes];
        hn::Store(values, d, read);
        for_each_lane(voxel, isMissing,
                      [&](std::size_t lane, int x, int y, int z) { read[lane] = _bricks.value(x, y, z); });
        return hn::Load(d, read);
    }

    template <class Body>
    static HWY_INLINE void for_each_lane(const VoxelLanes& voxel, Mask wanted, const Body& body) {
        const IntTag d;
        HWY_ALIGN std::int32_t x[MaxLanes], y[MaxLanes], z[MaxLanes];
        hn::Store(voxel.x, d, x);
        hn::Store(voxel.y, d, y);
        hn::Store(voxel.z, d, z);
        for (std::uint32_t bits = mask_bits(wanted); bits != 0; bits &= bits - 1) {
            const std::size_t lane = hwy::Num0BitsBelowLS1Bit_Nonzero32(bits);
            body(lane, x[lane], y[lane], z[lane]);
        }
    }

    BrickCache& _bricks;
    float _sampleEnd;
};

}  // namespace HWY_NAMESPACE
}  // namespace Fusion
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#endif
