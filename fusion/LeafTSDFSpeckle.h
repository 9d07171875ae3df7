// The voxel of the real-time speckle session.
#pragma once

#include <algorithm>
#include <cstdint>

#include "fusion/SpinLock.h"
#include "fusion/leafCommon.h"

namespace VexelAlgorithm {
namespace Fusion {

/// Weighted sum of signed distances (mm, positive in front of the surface). Integration only adds: with `fuse` false it
/// leaves the leaf as it is. Editing takes surface and frames out of it again.
struct LeafTSDFSpeckle {
    static constexpr bool HasLock = true;
    static constexpr int MaxTreeDepth = 31;
    static constexpr bool CanRemove = false;
    static constexpr bool HasLabels = false;
    static constexpr bool HasColor = false;
    static constexpr bool HasChangedFlag = true;

    std::int16_t state = LeafNeverUsed;
    std::int32_t contributions = 0;
    float tsdfSum = 0.0f;
    float weightSum = 0.0f;
    std::uint8_t changed = 0;
    VexelOctree::SpinLock lock;
    std::uint16_t emptiedBy = 0;  ///< number of the edit that emptied it last; what came before has nothing in it

    bool is_used() const { return state >= 0; }
    void touch(const Vector3i&) { state = LeafUsed; }
    int count() const { return contributions; }
    float weight() const { return weightSum; }
    float value() const { return mean_distance(tsdfSum, weightSum); }

    void add(float d, float w) {
        ++contributions;
        tsdfSum += w * d;
        weightSum += w;
    }
    /// Takes back what `add` added. The last contribution leaves no rounding residue.
    void remove(float d, float w) {
        if (--contributions < 1) return forget_contributions();
        tsdfSum -= w * d;
        weightSum = std::max(weightSum - w, 0.0f);
    }
    /// Takes all contributions away at once.
    void empty(std::uint16_t edit) {
        forget_contributions();
        emptiedBy = edit;
    }
    /// True when the leaf was not marked before.
    bool mark_changed() {
        if (changed == 1) return false;
        changed = 1;
        return true;
    }
    void reset() { *this = LeafTSDFSpeckle(); }

private:
    void forget_contributions() {
        state = LeafNeverUsed;
        contributions = 0;
        tsdfSum = 0.0f;
        weightSum = 0.0f;
    }
};

static_assert(sizeof(LeafTSDFSpeckle) == 20, "the volume's memory is counted in these records");

}  // namespace Fusion
}  // namespace VexelAlgorithm
