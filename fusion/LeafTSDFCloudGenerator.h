// The voxel of the whole-scan rebuild from stored frames.
#pragma once

#include <algorithm>
#include <cmath>

#include "fusion/SpinLock.h"
#include "fusion/leafCommon.h"

namespace VexelAlgorithm {
namespace Fusion {

/// A compact record: the weight is an integer of 16 bits that stops growing at 60000, while the sum of
/// distances goes on.
struct LeafTSDFCloudGenerator {
    static constexpr bool HasLock = true;
    static constexpr int MaxTreeDepth = 31;
    static constexpr bool CanRemove = false;
    static constexpr bool HasLabels = false;
    static constexpr bool HasColor = false;
    static constexpr bool HasChangedFlag = false;
    static constexpr std::uint16_t WeightCap = 60000;

    std::int16_t state = LeafNeverUsed;
    std::uint16_t contributions = 0;
    float tsdfSum = 0.0f;
    std::uint16_t weightSum = 0;
    VexelOctree::SpinLock lock;

    bool is_used() const { return state >= 0; }
    void touch(const Vector3i&) { state = LeafUsed; }
    int count() const { return contributions; }
    float weight() const { return weightSum; }
    float value() const { return mean_distance(tsdfSum, weightSum); }

    void add(float d, float w) {
        const float scaled = 100.0f * w + 1.0f;
        tsdfSum += scaled * d;
        // The 16-bit numbers stay at their end instead of starting again from 0.
        if (weightSum < WeightCap) {
            const float step = std::min(std::trunc(scaled), static_cast<float>(UINT16_MAX - weightSum));
            weightSum = static_cast<std::uint16_t>(weightSum + static_cast<std::uint16_t>(step));
        }
        if (contributions < UINT16_MAX) ++contributions;
    }
    void reset() { *this = LeafTSDFCloudGenerator(); }
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
