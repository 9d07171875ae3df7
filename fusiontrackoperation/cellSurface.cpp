#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "fusiontrackoperation/cellSurface.cpp"
#include "fusiontrackoperation/cellSurface.h"

#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <cstring>
#include <limits>

#include "foundation/vectorTargets.h"
#include "fusion/leafCommon.h"

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::CappedTag<float, OctetCells::Count>;
using FloatVec = hn::Vec<FloatTag>;
using FloatMask = hn::Mask<FloatTag>;

constexpr float SmallestKnown = 1e-6F;

HWY_INLINE FloatVec set(float value) {
    return hn::Set(FloatTag(), value);
}

/// The values at the corners of a vector of cells.
struct Corners {
    FloatVec value[8];
    FloatMask isKnown[8], isNegative[8];
};

/// Whether the cell's own value is known, and known values of both signs are there; most cells of a changed region fail
/// here.
HWY_INLINE FloatMask has_both_signs(const Corners& corners) {
    FloatVec low = hn::Zero(FloatTag()), high = low;
    for (const FloatVec value : corners.value) {
        low = hn::Min(low, value);
        high = hn::Max(high, value);
    }
    return hn::And(corners.isKnown[0], hn::And(hn::Le(low, set(-SmallestKnown)), hn::Ge(high, set(SmallestKnown))));
}

struct EdgeSums {
    FloatVec crossings[3], gradient[3], crossingCount;
};

/// The edge of each cell from a corner along an axis.
template <int Axis, int Start>
HWY_INLINE void add_edge(const Corners& corners, FloatVec& rise, FloatVec& known, EdgeSums& sums) {
    constexpr int End = Start | 1 << Axis;
    const FloatVec one = set(1.0F), low = corners.value[Start], high = corners.value[End];
    const FloatMask isKnown = hn::And(corners.isKnown[Start], corners.isKnown[End]);
    const FloatMask isCrossed = hn::And(isKnown, hn::Xor(corners.isNegative[Start], corners.isNegative[End]));
    rise = hn::Add(rise, hn::IfThenElseZero(isKnown, hn::Sub(high, low)));
    known = hn::Add(known, hn::IfThenElseZero(isKnown, one));
    const FloatVec along = hn::Div(low, hn::Sub(low, high)), crossed = hn::IfThenElseZero(isCrossed, one);
    sums.crossings[Axis] = hn::Add(sums.crossings[Axis], hn::IfThenElseZero(isCrossed, along));
    if ((Start & 1) != 0) sums.crossings[0] = hn::Add(sums.crossings[0], crossed);
    if ((Start & 2) != 0) sums.crossings[1] = hn::Add(sums.crossings[1], crossed);
    if ((Start & 4) != 0) sums.crossings[2] = hn::Add(sums.crossings[2], crossed);
    sums.crossingCount = hn::Add(sums.crossingCount, crossed);
}

template <int Axis>
HWY_INLINE void add_edges(const Corners& corners, EdgeSums& sums) {
    constexpr int Second = Axis == 0 ? 2 : 1, Third = Axis == 2 ? 2 : 4;
    FloatVec rise = hn::Zero(FloatTag()), known = rise;
    add_edge<Axis, 0>(corners, rise, known, sums);
    add_edge<Axis, Second>(corners, rise, known, sums);
    add_edge<Axis, Third>(corners, rise, known, sums);
    add_edge<Axis, Second | Third>(corners, rise, known, sums);
    sums.gradient[Axis] = hn::Div(rise, hn::Max(known, set(1.0F)));
}

/// Of the cells from `first` on.
HWY_INLINE std::uint8_t find_in_lanes(OctetCells& octet, int first) {
    const FloatTag d;
    Corners corners;
    for (int corner = 0; corner < 8; ++corner) {
        const FloatVec value = hn::Load(d, octet.corners[corner] + first);
        corners.value[corner] = value;
        corners.isKnown[corner] = hn::Ge(hn::Abs(value), set(SmallestKnown));
        corners.isNegative[corner] = hn::Lt(value, hn::Zero(d));
    }
    const FloatMask isCandidate = has_both_signs(corners);
    if (hn::AllFalse(d, isCandidate)) return 0;

    const FloatVec zero = hn::Zero(d);
    EdgeSums sums{{zero, zero, zero}, {zero, zero, zero}, zero};
    add_edges<0>(corners, sums);
    add_edges<1>(corners, sums);
    add_edges<2>(corners, sums);
    const FloatVec* g = sums.gradient;
    const FloatVec squared = hn::Add(hn::Mul(g[0], g[0]), hn::Add(hn::Mul(g[1], g[1]), hn::Mul(g[2], g[2])));
    const FloatVec steepness = hn::Sqrt(squared);
    for (int a = 0; a < 3; ++a) {
        hn::Store(hn::Div(sums.crossings[a], sums.crossingCount), d, octet.position[a] + first);
        hn::Store(hn::Div(g[a], steepness), d, octet.normal[a] + first);
    }
    const FloatMask isSteep =
        hn::And(hn::Gt(steepness, zero), hn::Le(steepness, set(std::numeric_limits<float>::max())));
    const FloatMask isFound = hn::And(isCandidate, hn::And(isSteep, hn::Ge(sums.crossingCount, set(3.0F))));
    std::uint8_t bits[8] = {};
    hn::StoreMaskBits(d, isFound, bits);
    return static_cast<std::uint8_t>((bits[0] & ((1 << hn::Lanes(d)) - 1)) << first);
}

/// In place of the sums of distances.
HWY_INLINE void find_means(OctetCells& octet) {
    const FloatTag d;
    const FloatVec least = set(Fusion::LeafMinWeight);
    for (std::size_t i = 0; i < OctetCells::PaddedLattice; i += hn::Lanes(d)) {
        const FloatVec sum = hn::Load(d, octet.tsdfSum + i), weight = hn::Load(d, octet.weight + i);
        const FloatVec mean = hn::Div(sum, hn::Max(weight, least));
        hn::Store(hn::IfThenElseZero(hn::Gt(weight, least), mean), d, octet.tsdfSum + i);
    }
}

/// Cells that are neighbours along x stand side by side in lattice and corners.
HWY_INLINE void copy_corners(OctetCells& octet) {
    for (int corner = 0; corner < 8; ++corner) {
        const float* from = octet.tsdfSum + (corner & 1) + 3 * (corner >> 1 & 1) + 9 * (corner >> 2);
        for (int row = 0; row < 4; ++row) {
            std::memcpy(octet.corners[corner] + 2 * row, from + 3 * (row & 1) + 9 * (row >> 1), 2 * sizeof(float));
        }
    }
}

}  // namespace

// Each step runs over all octets before the next one begins: what is stored in one width has left the store buffer when
// it is loaded in another one.
void find_cell_surfaces(OctetCells* octets, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) find_means(octets[i]);
    for (std::size_t i = 0; i < count; ++i) copy_corners(octets[i]);
    for (std::size_t i = 0; i < count; ++i) {
        octets[i].found = 0;
        for (int first = 0; first < OctetCells::Count; first += static_cast<int>(hn::Lanes(FloatTag()))) {
            octets[i].found = static_cast<std::uint8_t>(octets[i].found | find_in_lanes(octets[i], first));
        }
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {

HWY_EXPORT(find_cell_surfaces);

CellSurfaceKernel best_cell_surface_kernel() {
    detect_processor();
    return &HWY_DYNAMIC_DISPATCH(find_cell_surfaces);
}

}  // namespace VexelAlgorithm
#endif
