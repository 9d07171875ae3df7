// Reading the field: values at voxels and between them.
#pragma once

#include <cmath>
#include <limits>

#include "fusion/OctetCache.h"
#include "fusion/Octree.h"

namespace VexelAlgorithm {
namespace Fusion {

/// The value of a leaf index from `find`: 0 for none, for one beyond the pool, for an unused record and for one
/// without weight.
template <class Leaf>
float leaf_value(const VexelOctree::Octree<Leaf>& tree, std::int32_t index) {
    if (index < 0 || index >= tree.pool().size()) return 0.0f;
    const Leaf& leaf = tree.leaf_at(index);
    return leaf.is_used() ? leaf.value() : 0.0f;
}

/// The value at a voxel. Outside the volume that is the value of leaf 0, because `find_leaf` says so.
template <class Leaf>
float voxel_value(const VexelOctree::Octree<Leaf>& tree, OctetCache& cache, const Vector3i& voxel) {
    if (!tree.is_inside(voxel.x(), voxel.y(), voxel.z())) return leaf_value(tree, 0);
    return leaf_value(tree, cache.find(tree, voxel.x(), voxel.y(), voxel.z()));
}

/// Trilinear sample at a point in model coordinates. NaN within a voxel or so of the volume's faces and where
/// one of the eight voxels around the point is missing or empty (below 1e-6).
template <class Leaf>
float trilinear_value(const VexelOctree::Octree<Leaf>& tree, OctetCache& cache, const Vector3f& point) {
    constexpr float none = std::numeric_limits<float>::quiet_NaN();
    const Vector3f q = (point - tree.get_shift()) / tree.get_pointDis();
    // trunc(q) in [1, size - 3], compared before the conversion, which NaN would not survive.
    if (!(q.minCoeff() >= 1.0f && q.maxCoeff() < static_cast<float>(tree.get_size() - 2))) return none;
    Vector3i low = q.cast<int>();
    Vector3f f = q - (low.cast<float>() + Vector3f::Constant(0.5f));
    for (int axis = 0; axis < 3; ++axis) {
        if (f[axis] < 0.0f) {
            --low[axis];
            f[axis] += 1.0f;
        }
    }
    float corners[8];
    for (int corner = 0; corner < 8; ++corner) {
        const std::int32_t index =
            cache.find(tree, low.x() + (corner & 1), low.y() + ((corner >> 1) & 1), low.z() + (corner >> 2));
        corners[corner] = leaf_value(tree, index);
        if (std::abs(corners[corner]) < 1e-6f) return none;
    }
    const auto blend = [](float a, float b, float t) { return a * (1.0f - t) + b * t; };
    const float y0 = blend(blend(corners[0], corners[1], f.x()), blend(corners[2], corners[3], f.x()), f.y());
    const float y1 = blend(blend(corners[4], corners[5], f.x()), blend(corners[6], corners[7], f.x()), f.y());
    return blend(y0, y1, f.z());
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
