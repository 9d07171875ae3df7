// The leaf of grid fusion: the mean of the points that fell into one cell.
#pragma once

#include "fusion/SpinLock.h"
#include "fusion/leafCommon.h"

namespace VexelAlgorithm {
namespace Fusion {

struct LaserGrid {
    static constexpr bool HasLock = true;
    static constexpr int MaxTreeDepth = 31;

    std::int16_t state = LeafNeverUsed;
    std::int32_t contributions = 0;
    float pointSum[3] = {0.0f, 0.0f, 0.0f};  ///< mm
    float normalSum[3] = {0.0f, 0.0f, 0.0f};
    VexelOctree::SpinLock lock;

    bool is_used() const { return state >= 0; }
    void touch(const Vector3i&) { state = LeafUsed; }
    void add(const Vector3f& point, const Vector3f& normal) {
        ++contributions;
        for (int i = 0; i < 3; ++i) {
            pointSum[i] += point[i];
            normalSum[i] += normal[i];
        }
    }
    void reset() { *this = LaserGrid(); }
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
