// Reading the field: values at voxels and between them.
#pragma once

#include <hwy/base.h>

#include <Eigen/Core>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>

#include "fusion/Octree.h"

namespace VexelAlgorithm {
namespace Fusion {

/// A position in voxels, (p - shift) / pointDis, with an unused fourth number so that it fills one vector register.
using VoxelPosition = Eigen::Array4f;
using VoxelIndex = Eigen::Array4i;

/// Where model coordinates lie in the volume.
class VoxelFrame {
public:
    template <class Tree>
    explicit VoxelFrame(const Tree& tree)
        : _shift(tree.get_shift().x(), tree.get_shift().y(), tree.get_shift().z(), 0.0f),
          _pointDis(tree.get_pointDis()),
          _sampleEnd(static_cast<float>(tree.get_size() - 2)) {}

    VoxelPosition in_voxels(const VoxelPosition& point) const { return (point - _shift) / _pointDis; }
    const VoxelPosition& shift() const { return _shift; }
    float pointDis() const { return _pointDis; }
    /// Whether 1 <= q < size - 2 on all axes: one voxel narrower at the top than the volume, so that trilinear
    /// samples have their eight voxels. False for NaN.
    bool is_in_sample_range(const VoxelPosition& q) const {
        return q[0] >= 1.0f && q[1] >= 1.0f && q[2] >= 1.0f && q[0] < _sampleEnd && q[1] < _sampleEnd &&
               q[2] < _sampleEnd;
    }

private:
    VoxelPosition _shift;
    float _pointDis;
    float _sampleEnd;
};

/// Along one axis, the voxel whose centre lies below a position and how far the position lies above that centre.
/// No branches: which half of a voxel is hit is a coin toss.
struct CentreBelow {
    HWY_INLINE explicit CentreBelow(float q) : voxel(static_cast<int>(q)) {
        f = q - (static_cast<float>(voxel) + 0.5f);
        const int below = f < 0.0f ? 1 : 0;
        voxel -= below;
        f += static_cast<float>(below);
    }

    int voxel;
    float f;
};

/// The trilinear blend of eight values, x changing fastest; NaN when one of them is empty (below 1e-6 in size).
HWY_INLINE float blend_corners(float c000, float c100, float c010, float c110, float c001, float c101, float c011,
                               float c111, float fx, float fy, float fz) {
    const float smallest0 =
        std::min(std::min(std::abs(c000), std::abs(c100)), std::min(std::abs(c010), std::abs(c110)));
    const float smallest1 =
        std::min(std::min(std::abs(c001), std::abs(c101)), std::min(std::abs(c011), std::abs(c111)));
    if (!(std::min(smallest0, smallest1) >= 1e-6f)) return std::numeric_limits<float>::quiet_NaN();
    const auto blend = [](float a, float b, float t) { return a * (1.0f - t) + b * t; };
    const float y0 = blend(blend(c000, c100, fx), blend(c010, c110, fx), fy);
    const float y1 = blend(blend(c001, c101, fx), blend(c011, c111, fx), fy);
    return blend(y0, y1, fz);
}

/// Reads a volume that nobody changes meanwhile. One reader a worker.
///
/// Samples come in neighbourhoods, so the reader keeps the eight values of each octet that it has met in a
/// direct-mapped cache of 16 x 16 x 16 octets: a hit is one comparison and one load, where the way through the
/// octree and the leaf record takes four dependent ones and a division.
template <class Leaf>
class FieldReader {
public:
    using Tree = VexelOctree::Octree<Leaf>;

    explicit FieldReader(const Tree& tree) : _tree(tree), _frame(tree), _octets(new Octet[CacheSize]) {}

    const Tree& tree() const { return _tree; }
    const VoxelPosition& shift() const { return _frame.shift(); }
    float pointDis() const { return _frame.pointDis(); }

    VoxelPosition in_voxels(const VoxelPosition& point) const { return _frame.in_voxels(point); }
    VoxelPosition in_voxels(const Vector3f& point) const {
        return in_voxels(VoxelPosition(point.x(), point.y(), point.z(), 0.0f));
    }
    bool is_in_sample_range(const VoxelPosition& q) const { return _frame.is_in_sample_range(q); }

    /// The value of a voxel inside the volume; 0 for a missing leaf, an unused one and one without weight.
    HWY_INLINE float value(int x, int y, int z) {
        return octet(axis_slot<0>(x) + axis_slot<1>(y) + axis_slot<2>(z),
                     axis_key<0>(x) | axis_key<1>(y) | axis_key<2>(z))
            .values[(x & 1) + 2 * (y & 1) + 4 * (z & 1)];
    }
    /// The value at any voxel coordinates. Outside the volume it is that of leaf 0, because `find_leaf` says so.
    float value_anywhere(const Vector3i& voxel) {
        if (_tree.is_inside(voxel.x(), voxel.y(), voxel.z())) return value(voxel.x(), voxel.y(), voxel.z());
        return leaf_value(0);
    }

    /// Trilinear sample at a position in voxels. NaN within a voxel or so of the volume's faces and where one of
    /// the eight voxels around the position is missing or empty (below 1e-6 in size).
    float trilinear(const VoxelPosition& q) {
        if (!is_in_sample_range(q)) return std::numeric_limits<float>::quiet_NaN();
        const CentreBelow belowX(q[0]), belowY(q[1]), belowZ(q[2]);
        const Axis<0> x(belowX.voxel);
        const Axis<1> y(belowY.voxel);
        const Axis<2> z(belowZ.voxel);
        return blend_corners(corner<0, 0, 0>(x, y, z), corner<1, 0, 0>(x, y, z), corner<0, 1, 0>(x, y, z),
                             corner<1, 1, 0>(x, y, z), corner<0, 0, 1>(x, y, z), corner<1, 0, 1>(x, y, z),
                             corner<0, 1, 1>(x, y, z), corner<1, 1, 1>(x, y, z), belowX.f, belowY.f, belowZ.f);
    }
    float trilinear_at_point(const Vector3f& point) { return trilinear(in_voxels(point)); }

private:
    static constexpr int AxisBits = 4;
    static constexpr std::size_t CacheSize = std::size_t{1} << (3 * AxisBits);

    /// Fills one cache line.
    struct alignas(64) Octet {
        std::uint64_t key = ~std::uint64_t{0};
        float values[8];
    };

    template <int Axis>
    static std::uint32_t axis_slot(int coordinate) {
        return ((static_cast<std::uint32_t>(coordinate) >> 1) & ((1u << AxisBits) - 1)) << (Axis * AxisBits);
    }
    template <int Axis>
    static std::uint64_t axis_key(int coordinate) {
        return static_cast<std::uint64_t>(static_cast<std::uint32_t>(coordinate) >> 1) << (Axis * 21);
    }

    /// Where two successive voxels of one axis are found.
    template <int N>
    struct Axis {
        HWY_INLINE explicit Axis(int low) {
            for (int i = 0; i < 2; ++i) {
                slot[i] = axis_slot<N>(low + i);
                key[i] = axis_key<N>(low + i);
                code[i] = ((low + i) & 1) << N;
            }
        }

        std::uint32_t slot[2];
        std::uint64_t key[2];
        int code[2];
    };

    template <int Dx, int Dy, int Dz>
    HWY_INLINE float corner(const Axis<0>& x, const Axis<1>& y, const Axis<2>& z) {
        return octet(x.slot[Dx] + y.slot[Dy] + z.slot[Dz], x.key[Dx] | y.key[Dy] | z.key[Dz])
            .values[x.code[Dx] + y.code[Dy] + z.code[Dz]];
    }

    HWY_INLINE const Octet& octet(std::uint32_t slot, std::uint64_t key) {
        Octet& entry = _octets[slot];
        if (entry.key != key) fill(entry, key);
        return entry;
    }

    // Out of line, so that hits inline.
    HWY_NOINLINE void fill(Octet& entry, std::uint64_t key) {
        constexpr std::uint64_t mask = (std::uint64_t{1} << 21) - 1;
        const std::int32_t base = _tree.find_unit(static_cast<int>(key & mask), static_cast<int>((key >> 21) & mask),
                                                  static_cast<int>(key >> 42));
        for (int code = 0; code < 8; ++code) entry.values[code] = base < 0 ? 0.0f : leaf_value(base + code);
        entry.key = key;
    }

    float leaf_value(std::int32_t index) const {
        if (index >= _tree.pool().size()) return 0.0f;
        const Leaf& leaf = _tree.leaf_at(index);
        return leaf.is_used() ? leaf.value() : 0.0f;
    }

    const Tree& _tree;
    VoxelFrame _frame;
    std::unique_ptr<Octet[]> _octets;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
