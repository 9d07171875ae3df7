// The leaf of octree normals: the weighted mean direction of the normals seen in one voxel.
#pragma once

#include "fusion/SpinLock.h"
#include "fusion/leafCommon.h"

namespace VexelAlgorithm {
namespace Fusion {

struct LeafNormal {
    static constexpr bool HasLock = true;
    static constexpr int MaxTreeDepth = 31;

    std::int16_t state = LeafNeverUsed;
    float normalSum[3] = {0.0f, 0.0f, 0.0f};
    float weightSum = 0.0f;
    VexelOctree::SpinLock lock;

    bool is_used() const { return state >= 0; }
    void touch(const Vector3i&) { state = LeafUsed; }
    void add(const Vector3f& normal, float w) {
        for (int i = 0; i < 3; ++i) normalSum[i] += w * normal[i];
        weightSum += w;
    }
    void reset() { *this = LeafNormal(); }
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
