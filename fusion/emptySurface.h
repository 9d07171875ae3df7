// Taking surface out of the volume of the real-time session, wherever it came from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "foundation/types.h"
#include "fusion/FusionTsdf.h"

namespace VexelAlgorithm {
namespace Fusion {

using SpeckleTree = VexelOctree::Octree<LeafTSDFSpeckle>;

/// A place of the surface in model coordinates (mm); the normal has unit length, or the place is passed over.
struct SurfacePlace {
    Vector3f point;
    Vector3f normal;
};

/// Empties the voxels that hold the surface around the places: the eight whose centres are nearest to each, and along
/// its normal those that a fusion cube of `fusionRange` voxels can have reached, as far as their distances have the
/// sign of that side (others belong to another surface). Emptied leaves bear the number of the `edit`. They, and leaves
/// whose display point may have depended on them, are marked changed and listed. Returns the number of emptied leaves.
/// The volume must not be read or written by others meanwhile.
std::size_t empty_surface(SpeckleTree& tree, int threads, const std::vector<SurfacePlace>& places, int fusionRange,
                          std::uint16_t edit, ChangedLeaves& changedLeaves);

/// Empties every voxel with fewer than `minContributions`; otherwise the same.
std::size_t empty_unstable(SpeckleTree& tree, int threads, int minContributions, std::uint16_t edit,
                           ChangedLeaves& changedLeaves);

/// Marks and lists the leaves whose display points may depend on `voxel` and which hold something: those of the voxel's
/// lower neighbours.
template <class FindLeaf>
void mark_cells_around(SpeckleTree& tree, const Vector3i& voxel, ChangedLeaves& changedLeaves, FindLeaf&& find_leaf) {
    for (int code = 1; code < 8; ++code) {
        const Vector3i lower = voxel - Vector3i(code & 1, code >> 1 & 1, code >> 2);
        if (!tree.is_inside(lower.x(), lower.y(), lower.z())) continue;
        const std::int32_t index = find_leaf(lower);
        if (index < 0) continue;
        LeafTSDFSpeckle& leaf = tree.leaf_at(index);
        const std::lock_guard<VexelOctree::SpinLock> guard(leaf.lock);
        if (leaf.is_used() && leaf.mark_changed()) changedLeaves.push_back(index);
    }
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
