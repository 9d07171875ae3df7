// The voxel of laser-line cloud fusion, which carries its own coordinates.
#pragma once

#include "fusion/leafCommon.h"

namespace VexelAlgorithm {
namespace Fusion {

/// Weighted sum of signed distances (mm) at a voxel whose coordinates are stored as int16; a negative x means
/// never used. There is no lock byte: the octree's lock table serves.
struct LeafTSDFLaser {
    static constexpr bool HasLock = false;
    static constexpr int MaxTreeDepth = 15;
    static constexpr bool CanRemove = false;
    static constexpr bool HasLabels = false;
    static constexpr bool HasColor = false;
    static constexpr bool HasChangedFlag = false;

    std::int16_t x = LeafNeverUsed;
    std::int16_t y = 0;
    std::int16_t z = 0;
    float weightSum = 0.0f;
    float tsdfSum = 0.0f;
    std::int32_t contributions = 0;

    bool is_used() const { return x >= 0; }
    void touch(const Vector3i& voxel) {
        x = static_cast<std::int16_t>(voxel.x());
        y = static_cast<std::int16_t>(voxel.y());
        z = static_cast<std::int16_t>(voxel.z());
    }
    int count() const { return contributions; }
    float weight() const { return weightSum; }
    float value() const { return mean_distance(tsdfSum, weightSum); }

    void add(float d, float w) {
        tsdfSum += w * d;
        weightSum += w;
        ++contributions;
    }
    void reset() { *this = LeafTSDFLaser(); }
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
