// The voxel of the teeth session: distances, colour and labels, from which frames can be removed again.
#pragma once

#include <cmath>

#include "fusion/SpinLock.h"
#include "fusion/leafCommon.h"

namespace VexelAlgorithm {
namespace Fusion {

/// Weighted sum of signed distances (mm), a running mean of the colour, and how often each label was seen.
struct LeafTSDFTeeth {
    static constexpr bool HasLock = true;
    static constexpr int MaxTreeDepth = 31;
    static constexpr bool CanRemove = true;
    static constexpr bool HasLabels = true;
    static constexpr bool HasColor = true;
    static constexpr bool HasChangedFlag = true;

    std::int16_t state = LeafNeverUsed;
    std::int32_t contributions = 0;
    std::uint8_t changed = 0;
    float tsdfSum = 0.0f;
    float weightSum = 0.0f;
    float color[3] = {0.0f, 0.0f, 0.0f};  ///< weighted mean, RGB in [0, 1]
    float colorWeight = 0.0f;
    std::uint8_t frozen = 0;                ///< 1: distances neither grow nor shrink
    std::uint8_t marks[3] = {0, 0, 0};      ///< cleared together with the leaf
    std::uint8_t labels[4] = {0, 0, 0, 0};  ///< counters of labels 1 to 4
    VexelOctree::SpinLock lock;

    bool is_used() const { return state >= 0; }
    void touch(const Vector3i&) { state = LeafUsed; }
    int count() const { return contributions; }
    float weight() const { return weightSum; }
    float value() const { return mean_distance(tsdfSum, weightSum); }

    void add(float d, float w) {
        if (frozen) return;
        tsdfSum += d * w;
        weightSum += w;
        ++contributions;
    }
    void remove(float d, float w) {
        if (frozen) return;
        --contributions;
        if (contributions < 1) {
            // No rounding residue is left of what has been added and taken away.
            tsdfSum = 0.0f;
            weightSum = 0.0f;
            contributions = 0;
            for (std::uint8_t& mark : marks) mark = 0;
        } else {
            tsdfSum -= w * d;
            weightSum -= w;
        }
    }
    void add_label(int label) {
        if (label < 1 || label > 4) return;
        std::uint8_t& seen = labels[label - 1];
        if (seen < 255) ++seen;
    }
    void remove_label(int label) {
        if (label < 1 || label > 4) return;
        std::uint8_t& seen = labels[label - 1];
        if (seen > 0) --seen;
    }
    /// `w` is |z| of the point's normal in camera coordinates.
    void blend_color(const Vector3f& rgb, float w) {
        if (!(w >= 1e-5f) || !std::isfinite(w) || !rgb.allFinite() || rgb.maxCoeff() < 1e-6f) return;
        const float sum = colorWeight + w;
        for (int i = 0; i < 3; ++i) color[i] = (color[i] * colorWeight + rgb[i] * w) / sum;
        colorWeight = sum;
    }
    bool mark_changed() {
        if (changed == 1) return false;
        changed = 1;
        return true;
    }
    void reset() { *this = LeafTSDFTeeth(); }
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
