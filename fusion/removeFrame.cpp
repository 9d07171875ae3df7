#include "fusion/removeFrame.h"

#include "fusion/FusionTsdfDefinitions.h"
#include "fusion/emptySurface.h"

namespace VexelAlgorithm {
namespace Fusion {
namespace {

/// How removal writes an update.
class Remove {
public:
    Remove(SpeckleTree& tree, int times, std::uint16_t edit, ChangedLeaves& changedLeaves)
        : _tree(tree), _times(times), _edit(edit), _changedLeaves(changedLeaves) {}

    void operator()(const MeasuredPoint& measured, const LeafUpdate& update) const {
        if (take_back(measured, update)) {
            mark_cells_around(_tree, update.voxel, _changedLeaves,
                              [this](const Vector3i& voxel) { return _tree.find_leaf(voxel); });
        }
    }

private:
    /// True when nothing is left in the leaf.
    bool take_back(const MeasuredPoint& measured, const LeafUpdate& update) const {
        LeafTSDFSpeckle& leaf = _tree.leaf_at(update.leaf);
        const std::lock_guard<VexelOctree::SpinLock> guard(leaf.lock);
        if (!leaf.is_used() || leaf.emptiedBy > _edit) return false;
        for (int i = 0; i < _times && leaf.is_used(); ++i) leaf.remove(update.d, measured.weight);
        if (leaf.mark_changed()) _changedLeaves.push_back(update.leaf);
        return !leaf.is_used();
    }

    SpeckleTree& _tree;
    int _times;
    std::uint16_t _edit;
    ChangedLeaves& _changedLeaves;
};

}  // namespace

void remove_frame(FusionTsdf<LeafTSDFSpeckle>& volume, const PointImage& frame, const RigidMatrix& rt,
                  const FrameSettings& settings, int times, std::uint16_t edit, int threads,
                  ChangedLeaves& changedLeaves) {
    SpeckleTree& tree = volume.get_fusion_tree();
    const OffsetCube cube(settings.fusionRange, volume.get_pointDis());
    const FrameIntegration integration(rt, tree.get_shift(), tree.get_pointDis(),
                                       detail::upper_bound(tree.get_treeDepth()), cube, settings.cone.is_open(), true);
    detail::integrate_image(tree, frame, integration, settings.cone, threads, nullptr,
                            Remove(tree, times, edit, changedLeaves));
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
