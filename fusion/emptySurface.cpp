#include "fusion/emptySurface.h"

#include <atomic>
#include <cmath>
#include <mutex>

#include "foundation/parallel.h"
#include "fusion/OctetCache.h"

namespace VexelAlgorithm {
namespace Fusion {
namespace {

// A worker starts with an empty cache.
constexpr std::size_t MIN_PLACES_PER_TASK = 1024;
constexpr std::size_t LEAVES_PER_TASK = std::size_t{1} << 16;

/// Empties leaves and remembers them, so that the cells around them can be marked when all are done. One a task.
class LeafEraser {
public:
    LeafEraser(SpeckleTree& tree, std::uint16_t edit, ChangedLeaves& changedLeaves)
        : _tree(tree), _edit(edit), _changedLeaves(changedLeaves) {}

    /// `wanted(leaf)` is asked under the leaf's lock.
    template <class Wanted>
    void empty(std::int32_t index, const Wanted& wanted) {
        LeafTSDFSpeckle& leaf = _tree.leaf_at(index);
        const std::lock_guard<VexelOctree::SpinLock> guard(leaf.lock);
        if (!leaf.is_used() || !wanted(leaf)) return;
        leaf.empty(_edit);
        _emptied.push_back(index);
        if (leaf.mark_changed()) _changedLeaves.push_back(index);
    }

    std::int32_t find(const Vector3i& voxel) { return _cache.find(_tree, voxel.x(), voxel.y(), voxel.z()); }

    /// Marks the cells around what was emptied; returns how much that was.
    std::size_t finish() {
        for (const std::int32_t index : _emptied) {
            mark_cells_around(_tree, _tree.leaf_coordinates(index), _changedLeaves,
                              [this](const Vector3i& voxel) { return find(voxel); });
        }
        return _emptied.size();
    }

private:
    SpeckleTree& _tree;
    std::uint16_t _edit;
    ChangedLeaves& _changedLeaves;
    OctetCache _cache;
    std::vector<std::int32_t> _emptied;
};

Vector3i voxel_below(const Vector3f& position) {
    return {static_cast<int>(std::floor(position.x())), static_cast<int>(std::floor(position.y())),
            static_cast<int>(std::floor(position.z()))};
}

bool is_in_block(const Vector3i& voxel, const Vector3i& low) {
    const Vector3i offset = voxel - low;
    return offset.minCoeff() >= 0 && offset.maxCoeff() <= 1;
}

/// Walks along the normal by blocks of 2 x 2 x 2 voxels, a voxel of the steepest axis at a time.
void empty_along_normal(SpeckleTree& tree, const SurfacePlace& place, float halfRange, LeafEraser& eraser) {
    const Vector3f& normal = place.normal;
    const Vector3f start = (place.point - tree.get_shift()) / tree.get_pointDis() - Vector3f::Constant(0.5f);
    if (!(start.cwiseAbs().maxCoeff() < 1e6f) || !(std::abs(normal.squaredNorm() - 1.0f) < 0.1f)) return;
    // How far the cube of a point on the surface reaches in the direction of the normal.
    const float reach = halfRange * normal.cwiseAbs().sum();
    const float stride = 1.0f / normal.cwiseAbs().maxCoeff();

    Vector3i before = Vector3i::Constant(-4);
    const int steps = static_cast<int>(std::ceil(reach / stride));
    for (int step = -steps; step <= steps; ++step) {
        const auto side = static_cast<float>(step);
        const Vector3i low = voxel_below(start + side * stride * normal);
        for (int code = 0; code < 8; ++code) {
            const Vector3i voxel = low + Vector3i(code & 1, code >> 1 & 1, code >> 2);
            // The voxels of the place itself go whatever their sign.
            if ((step != 0 && is_in_block(voxel, before)) || !tree.is_inside(voxel.x(), voxel.y(), voxel.z())) continue;
            const std::int32_t leaf = eraser.find(voxel);
            if (leaf >= 0) eraser.empty(leaf, [&](const LeafTSDFSpeckle& l) { return side * l.tsdfSum >= 0.0f; });
        }
        before = low;
    }
}

}  // namespace

std::size_t empty_surface(SpeckleTree& tree, int threads, const std::vector<SurfacePlace>& places, int fusionRange,
                          std::uint16_t edit, ChangedLeaves& changedLeaves) {
    const float halfRange = 0.5f * static_cast<float>(fusionRange);
    const std::size_t grain =
        std::max(MIN_PLACES_PER_TASK, places.size() / (4 * static_cast<std::size_t>(usable_threads(threads))));
    std::atomic<std::size_t> emptied{0};
    parallel_ranges(threads, places.size(), grain, [&](std::size_t begin, std::size_t end) {
        LeafEraser eraser(tree, edit, changedLeaves);
        for (std::size_t i = begin; i < end; ++i) empty_along_normal(tree, places[i], halfRange, eraser);
        emptied += eraser.finish();
    });
    return emptied;
}

std::size_t empty_unstable(SpeckleTree& tree, int threads, int minContributions, std::uint16_t edit,
                           ChangedLeaves& changedLeaves) {
    std::atomic<std::size_t> emptied{0};
    const auto leaves = static_cast<std::size_t>(tree.get_vaild_leaf_num());
    parallel_ranges(threads, leaves, LEAVES_PER_TASK, [&](std::size_t begin, std::size_t end) {
        LeafEraser eraser(tree, edit, changedLeaves);
        for (std::size_t i = begin; i < end; ++i) {
            eraser.empty(static_cast<std::int32_t>(i),
                         [&](const LeafTSDFSpeckle& leaf) { return leaf.count() < minContributions; });
        }
        emptied += eraser.finish();
    });
    return emptied;
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
