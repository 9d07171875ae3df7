// What one measured point contributes to the volume.
#pragma once

#include <cmath>
#include <cstdint>
#include <mutex>
#include <vector>

#include "foundation/RigidMatrix.h"
#include "fusion/FusionTsdf.h"
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
    float weight;
    PixelCone cone;
    int label;              ///< 0: none
    const Vector3f* color;  ///< null: none
};

/// What a worker keeps from point to point.
struct IntegrationWorker {
    explicit IntegrationWorker(const FrameIntegration& frame) : hits(frame.cube.voxels.size() + 1) {}

    OctetCache cache;
    std::vector<std::uint32_t> hits;
};

/// A point and normal that integration can use: finite, neither z below 1e-6 in size.
inline bool is_usable_point(const Vector3f& point_C, const Vector3f& normal_C) {
    return std::abs(point_C.z()) >= 1e-6f && std::abs(normal_C.z()) >= 1e-6f && point_C.allFinite() &&
           normal_C.allFinite();
}

/// The offsets whose voxels lie inside the point's cone, into worker.hits; `base_V` is the centre of the base
/// voxel relative to the shift.
inline std::size_t find_cone_voxels(const FrameIntegration& frame, const Vector3f& base_V, const PixelCone& cone,
                                    IntegrationWorker& worker) {
    if (frame.openCone) {
        for (std::size_t i = 0; i < frame.cube.voxels.size(); ++i) worker.hits[i] = static_cast<std::uint32_t>(i);
        return frame.cube.voxels.size();
    }
    const Vector3f base_C = frame.modelToCamera * (base_V - frame.origin_V);
    return frame.coneTest(frame.offsets_C, base_C, cone, worker.hits.data());
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

/// Integrates one point: every voxel of the cube around it that lies in the cone of its pixel receives its
/// signed distance from the point along the point's normal.
template <class Leaf>
void integrate_point(VexelOctree::Octree<Leaf>& tree, const FrameIntegration& frame, IntegrationWorker& worker,
                     const MeasuredPoint& measured, ChangedLeaves& changedLeaves) {
    if (!frame.fuse && !Leaf::CanRemove) return;
    // Also refuses a NaN weight. An infinite one would turn the mean into NaN.
    if (!(measured.weight >= 1e-6f) || !std::isfinite(measured.weight)) return;

    const Vector3f point_V = frame.rt * measured.point_C - frame.shift;
    const Vector3f q = point_V / frame.pointDis;
    // Three voxels stay free at every face; compared before the conversion, which NaN would not survive.
    if (!(q.minCoeff() >= 3.0f && q.maxCoeff() < frame.bound)) return;
    const Vector3i base = q.cast<int>();
    const Vector3f base_V = (base.cast<float>() + Vector3f::Constant(0.5f)) * frame.pointDis;

    const Vector3f normal_M = frame.rt.transform_normal(measured.normal_C);
    const bool facesDown = normal_M.minCoeff() < 0.0f;
    const bool facesUp = normal_M.maxCoeff() > 0.0f;
    const float baseDistance = (base_V - point_V).dot(normal_M);

    worker.cache.find_or_create(tree, base.x(), base.y(), base.z());
    const std::size_t hits = find_cone_voxels(frame, base_V, measured.cone, worker);
    for (std::size_t i = 0; i < hits; ++i) {
        const std::uint32_t k = worker.hits[i];
        const Vector3i voxel = base + frame.cube.voxels[k];
        const std::int32_t leaf = worker.cache.find_or_create(tree, voxel.x(), voxel.y(), voxel.z());
        if (leaf < 0) continue;
        const float d = baseDistance + frame.cube.offsets[k].dot(normal_M);
        const bool nearSurface =
            std::abs(d) < 2.0f * frame.pointDis && ((d > 0.0f && facesDown) || (d < 0.0f && facesUp));
        if (contribute(tree, leaf, voxel, measured, d, frame.fuse, nearSurface)) changedLeaves.push_back(leaf);
    }
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
