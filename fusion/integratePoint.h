// What one measured point contributes to the volume.
#pragma once

#include <hwy/base.h>
#include <hwy/cache_control.h>

#include <cmath>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/RigidMatrix.h"
#include "fusion/FusionTsdf.h"
#include "fusion/NearbyOffsets.h"
#include "fusion/OctetCache.h"
#include "fusion/coneTest.h"

namespace VexelAlgorithm {
namespace Fusion {

/// What all points of one frame share.
struct FrameIntegration {
    FrameIntegration(const RigidMatrix& cameraToModel, const Vector3f& volumeShift, float voxelSize, int upperBound,
                     const OffsetCube& offsetCube, bool isConeOpen, bool fuseFrame)
        : rt(cameraToModel),
          modelToCamera(cameraToModel.get_rotation().transpose().cast<float>()),
          shift(volumeShift),
          origin_V((cameraToModel.get_translation() - volumeShift.cast<double>()).cast<float>()),
          pointDis(voxelSize),
          bound(static_cast<float>(upperBound)),
          cube(offsetCube),
          offsets_C(offsetCube, cameraToModel.get_rotation()),
          coneTest(best_cone_test()),
          openCone(isConeOpen),
          fuse(fuseFrame) {}

    RigidMatrix rt;
    Matrix3f modelToCamera;
    Vector3f shift;
    Vector3f origin_V;  // camera position relative to the shift
    float pointDis;
    float bound;
    const OffsetCube& cube;
    RotatedOffsets offsets_C;
    ConeTest coneTest;
    bool openCone;
    bool fuse;
};

/// One measurement in camera coordinates.
struct MeasuredPoint {
    Vector3f point_C;
    Vector3f normal_C;
    float weight = 0.0f;
    PixelCone cone{};
    int label = 0;                    ///< 0: none
    const Vector3f* color = nullptr;  ///< null: none
};

/// One voxel's share of a measured point.
struct LeafUpdate {
    std::int32_t leaf;
    Vector3i voxel;
    float d;
    bool nearSurface;
};

/// A point and the leaves that it updates.
struct PointUpdates {
    MeasuredPoint measured;
    std::vector<LeafUpdate> leaves;
    std::size_t count = 0;
};

/// What a worker keeps from point to point. The updates of a point wait until those of the next one are known:
/// meanwhile the leaf records come into the processor's cache, where each lock would stop for its own.
struct IntegrationWorker {
    explicit IntegrationWorker(const FrameIntegration& frame) : inside(frame.offsets_C.word_count()) {
        const std::size_t offsetCount = frame.cube.voxels.size();
        current.leaves.resize(offsetCount);
        waiting.leaves.resize(offsetCount);
        // A cone without sides leaves nothing out.
        for (std::size_t k = 0; frame.openCone && k < offsetCount; ++k) inside[k / 64] |= std::uint64_t{1} << (k % 64);
    }

    OctetCache cache;
    NearbyOffsets nearby;               // for the points of the tile at work; for none without a tile
    std::vector<std::uint64_t> inside;  // a bit an offset
    PointUpdates current, waiting;
};

/// A point and normal that integration can use: finite, neither z below 1e-6 in size.
inline bool is_usable_point(const Vector3f& point_C, const Vector3f& normal_C) {
    // Zero times a number is NaN unless the number is finite.
    const float zero = 0.0f * point_C.x() + 0.0f * point_C.y() + 0.0f * point_C.z() + 0.0f * normal_C.x() +
                       0.0f * normal_C.y() + 0.0f * normal_C.z();
    return std::abs(point_C.z()) >= 1e-6f && std::abs(normal_C.z()) >= 1e-6f && zero == 0.0f;
}

/// The offsets whose voxels lie inside the point's cone, into worker.inside; `base_V` is the centre of the base
/// voxel relative to the shift. Returns those that the bits stand for; null: the whole cube.
inline const NearbyOffsets* find_cone_voxels(const FrameIntegration& frame, const Vector3f& base_V,
                                             const PixelCone& cone, IntegrationWorker& worker) {
    const Matrix3f& rotation = frame.modelToCamera;
    const float x = base_V.x() - frame.origin_V.x();
    const float y = base_V.y() - frame.origin_V.y();
    const float z = base_V.z() - frame.origin_V.z();
    const Vector3f base_C(rotation(0, 0) * x + (rotation(0, 1) * y + rotation(0, 2) * z),
                          rotation(1, 0) * x + (rotation(1, 1) * y + rotation(1, 2) * z),
                          rotation(2, 0) * x + (rotation(2, 1) * y + rotation(2, 2) * z));
    const bool isNearbyEnough = worker.nearby.suffice(base_C, cone);
    frame.coneTest(isNearbyEnough ? worker.nearby.offsets() : frame.offsets_C, base_C, cone, worker.inside.data());
    return isNearbyEnough ? &worker.nearby : nullptr;
}

/// Adds one contribution to a leaf, or takes it away, under the leaf's lock. True when the leaf became changed.
template <class Leaf>
bool contribute(VexelOctree::Octree<Leaf>& tree, std::int32_t index, const Vector3i& voxel,
                const MeasuredPoint& measured, float d, bool fuse, bool nearSurface) {
    Leaf& leaf = tree.leaf_at(index);
    const std::lock_guard<VexelOctree::SpinLock> guard(tree.leaf_lock(index, leaf));
    if (!leaf.is_used()) leaf.touch(voxel);
    if (fuse) {
        leaf.add(d, measured.weight);
    } else if constexpr (Leaf::CanRemove) {
        leaf.remove(d, measured.weight);
    }
    if constexpr (Leaf::HasLabels) {
        if (fuse) {
            leaf.add_label(measured.label);
        } else {
            leaf.remove_label(measured.label);
        }
    }
    if constexpr (Leaf::HasColor) {
        if (fuse && measured.color != nullptr) leaf.blend_color(*measured.color, std::abs(measured.normal_C.z()));
    }
    if constexpr (Leaf::HasChangedFlag) {
        if (nearSurface) return leaf.mark_changed();
    }
    return false;
}

/// Writes the updates that wait: `write(measured, update)` for each.
template <class Write>
void finish_points(IntegrationWorker& worker, const Write& write) {
    PointUpdates& updates = worker.waiting;
    for (std::size_t i = 0; i < updates.count; ++i) write(updates.measured, updates.leaves[i]);
    updates.count = 0;
}

/// How integration writes an update; leaves that become changed are listed.
template <class Leaf>
class Contribute {
public:
    Contribute(VexelOctree::Octree<Leaf>& tree, bool fuse, ChangedLeaves& changedLeaves)
        : _tree(tree), _fuse(fuse), _changedLeaves(changedLeaves) {}

    void operator()(const MeasuredPoint& measured, const LeafUpdate& update) const {
        if (contribute(_tree, update.leaf, update.voxel, measured, update.d, _fuse, update.nearSurface)) {
            _changedLeaves.push_back(update.leaf);
        }
    }

private:
    VexelOctree::Octree<Leaf>& _tree;
    bool _fuse;
    ChangedLeaves& _changedLeaves;
};

/// Integrates one point: every voxel of the cube around it that lies in the cone of its pixel receives its
/// signed distance from the point along the point's normal, by `write`. `finish_points` after the last point.
template <class Leaf, class Write>
void integrate_point(VexelOctree::Octree<Leaf>& tree, const FrameIntegration& frame, IntegrationWorker& worker,
                     const MeasuredPoint& measured, const Write& write) {
    if (!frame.fuse && !Leaf::CanRemove) return;
    // Also refuses a NaN weight. An infinite one would turn the mean into NaN.
    if (!(measured.weight >= 1e-6f) || !std::isfinite(measured.weight)) return;

    const Vector3f point_V = frame.rt * measured.point_C - frame.shift;
    const Vector3f q(point_V.x() / frame.pointDis, point_V.y() / frame.pointDis, point_V.z() / frame.pointDis);
    // Three voxels stay free at every face; compared before the conversion, which NaN would not survive.
    const bool isInside = q.x() >= 3.0f && q.y() >= 3.0f && q.z() >= 3.0f && q.x() < frame.bound &&
                          q.y() < frame.bound && q.z() < frame.bound;
    if (!isInside) return;
    const Vector3i base(static_cast<int>(q.x()), static_cast<int>(q.y()), static_cast<int>(q.z()));
    const Vector3f base_V((static_cast<float>(base.x()) + 0.5f) * frame.pointDis,
                          (static_cast<float>(base.y()) + 0.5f) * frame.pointDis,
                          (static_cast<float>(base.z()) + 0.5f) * frame.pointDis);

    const Vector3f normal_M = frame.rt.transform_normal(measured.normal_C);
    const bool facesDown = normal_M.minCoeff() < 0.0f;
    const bool facesUp = normal_M.maxCoeff() > 0.0f;
    const float baseDistance = (base_V - point_V).dot(normal_M);

    worker.cache.find_or_create(tree, base.x(), base.y(), base.z());
    const NearbyOffsets* nearby = frame.openCone ? nullptr : find_cone_voxels(frame, base_V, measured.cone, worker);
    const std::size_t words = nearby != nullptr ? nearby->offsets().word_count() : worker.inside.size();
    PointUpdates& updates = worker.current;
    updates.measured = measured;
    for (std::size_t word = 0; word < words; ++word) {
        for (std::uint64_t bits = worker.inside[word]; bits != 0; bits &= bits - 1) {
            const std::size_t bit = 64 * word + hwy::Num0BitsBelowLS1Bit_Nonzero64(bits);
            const std::size_t k = nearby != nullptr ? nearby->number(bit) : bit;
            const Vector3i voxel = base + frame.cube.voxels[k];
            const std::int32_t leaf = worker.cache.find_or_create(tree, voxel.x(), voxel.y(), voxel.z());
            if (leaf < 0) continue;
            hwy::Prefetch(&tree.leaf_at(leaf));
            const float d = baseDistance + frame.cube.offsets[k].dot(normal_M);
            const bool nearSurface =
                std::abs(d) < 2.0f * frame.pointDis && ((d > 0.0f && facesDown) || (d < 0.0f && facesUp));
            updates.leaves[updates.count++] = {leaf, voxel, d, nearSurface};
        }
    }
    finish_points(worker, write);
    std::swap(worker.current, worker.waiting);
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
