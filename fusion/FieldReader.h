// Reading the field: values at voxels and between them.
#pragma once

#include <hwy/base.h>
#include <hwy/cache_control.h>

#include <Eigen/Core>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "fusion/BrickCache.h"
#include "fusion/Octree.h"
#include "fusion/leafCommon.h"

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

/// The bricks of a tree. Missing leaves, unused ones and those without weight read as 0.
template <class Leaf>
class LeafBricks : public BrickSource {
public:
    using Tree = VexelOctree::Octree<Leaf>;

    explicit LeafBricks(const Tree& tree) : _tree(tree) {}

    // The leaves of bricks are scattered over the memory. Each pass over several bricks waits for all of its accesses
    // together.
    void read_bricks(const BrickRequest* requests, std::size_t count) const override {
        for (; count > Together; requests += Together, count -= Together) read_together(requests, Together);
        read_together(requests, count);
    }

    int empty_node_bits(int x, int y, int z) const override { return _tree.empty_node_bits(x, y, z); }

    float leaf_value(std::int32_t index) const {
        if (index >= _tree.pool().size()) return 0.0f;
        const Leaf& leaf = _tree.leaf_at(index);
        return leaf.is_used() ? leaf.value() : 0.0f;
    }

private:
    static constexpr std::size_t Together = 8;

    void read_together(const BrickRequest* requests, std::size_t count) const {
        std::int32_t bricks[Together];
        for (std::size_t i = 0; i < count; ++i) {
            bricks[i] = _tree.find_brick(requests[i].bx, requests[i].by, requests[i].bz);
        }
        const Leaf* units[Together][8];
        for (std::size_t i = 0; i < count; ++i) {
            for (std::int32_t code = 0; code < 8; ++code) {
                units[i][code] = leaves_of(bricks[i], code);
                prefetch_unit(units[i][code]);
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            for (int code = 0; code < 8; ++code) {
                read_unit(units[i][code], requests[i].values + 2 * (code & 1) + 8 * (code >> 1 & 1) + 32 * (code >> 2));
            }
        }
    }

    const Leaf* leaves_of(std::int32_t brick, std::int32_t code) const {
        const std::int32_t leaf = _tree.brick_unit(brick, code);
        return leaf >= 0 && leaf < _tree.pool().size() ? &_tree.leaf_at(leaf) : _noLeaves.data();
    }

    /// No branches: which voxels have values is hard to foretell.
    static void read_unit(const Leaf* leaves, float* corner) {
        float sums[8], weights[8], means[8];
        for (int i = 0; i < 8; ++i) {
            sums[i] = leaves[i].tsdfSum;
            weights[i] = static_cast<float>(leaves[i].weightSum) * static_cast<float>(leaves[i].is_used());
        }
        for (int i = 0; i < 8; ++i) means[i] = mean_distance(sums[i], weights[i]);
        for (int i = 0; i < 8; i += 2) std::copy_n(means + i, 2, corner + 4 * (i >> 1 & 1) + 16 * (i >> 2));
    }
    static void prefetch_unit(const Leaf* first) {
        const char* bytes = reinterpret_cast<const char*>(first);
        for (std::size_t at = 0; at < 8 * sizeof(Leaf); at += 64) hwy::Prefetch(bytes + at);
    }

    const Tree& _tree;
    std::array<Leaf, 8> _noLeaves{};
};

/// Reads a volume that nobody changes meanwhile. One reader a worker.
template <class Leaf>
class FieldReader {
public:
    using Tree = VexelOctree::Octree<Leaf>;

    explicit FieldReader(const Tree& tree)
        : _tree(tree), _frame(tree), _leaves(tree), _bricks(_leaves, tree.get_size()) {}
    FieldReader(const FieldReader&) = delete;
    FieldReader& operator=(const FieldReader&) = delete;

    const Tree& tree() const { return _tree; }
    const VoxelPosition& shift() const { return _frame.shift(); }
    float pointDis() const { return _frame.pointDis(); }

    VoxelPosition in_voxels(const VoxelPosition& point) const { return _frame.in_voxels(point); }
    VoxelPosition in_voxels(const Vector3f& point) const {
        return in_voxels(VoxelPosition(point.x(), point.y(), point.z(), 0.0f));
    }
    bool is_in_sample_range(const VoxelPosition& q) const { return _frame.is_in_sample_range(q); }
    BrickCache& bricks() { return _bricks; }

    /// The value of a voxel inside the volume; 0 for a missing leaf, an unused one and one without weight.
    HWY_INLINE float value(int x, int y, int z) { return _bricks.value(x, y, z); }
    /// The value at any voxel coordinates. Outside the volume it is that of leaf 0, because `find_leaf` says so.
    float value_anywhere(const Vector3i& voxel) {
        if (_tree.is_inside(voxel.x(), voxel.y(), voxel.z())) return value(voxel.x(), voxel.y(), voxel.z());
        return _leaves.leaf_value(0);
    }

    /// Trilinear sample at a position in voxels. NaN within a voxel or so of the volume's faces and where one of
    /// the eight voxels around the position is missing or empty (below 1e-6 in size).
    float trilinear(const VoxelPosition& q) {
        if (!is_in_sample_range(q)) return std::numeric_limits<float>::quiet_NaN();
        const CentreBelow x(q[0]), y(q[1]), z(q[2]);
        const auto corner = [&](int dx, int dy, int dz) { return value(x.voxel + dx, y.voxel + dy, z.voxel + dz); };
        return blend_corners(corner(0, 0, 0), corner(1, 0, 0), corner(0, 1, 0), corner(1, 1, 0), corner(0, 0, 1),
                             corner(1, 0, 1), corner(0, 1, 1), corner(1, 1, 1), x.f, y.f, z.f);
    }
    float trilinear_at_point(const Vector3f& point) { return trilinear(in_voxels(point)); }

private:
    const Tree& _tree;
    VoxelFrame _frame;
    LeafBricks<Leaf> _leaves;
    BrickCache _bricks;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
