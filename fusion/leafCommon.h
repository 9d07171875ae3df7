// What every leaf type of the volume offers, and the limits they share.
//
// A leaf type is a plain record that starts unused (state negative) and has
//   static constexpr bool HasLock         a lock byte of its own, `lock`; otherwise the octree's lock table serves
//   static constexpr int  MaxTreeDepth    the deepest tree whose coordinates it can take
//   bool is_used() const;  void touch(voxel)   the state; `touch` marks the record used at a voxel
//   void reset()                          back to the state before the first contribution
// and, for the leaf types of signed distances,
//   static constexpr bool CanRemove       whether `remove` takes a contribution back
//   static constexpr bool HasLabels       label counters, `add_label` and `remove_label`
//   static constexpr bool HasColor        a colour, `blend_color`
//   static constexpr bool HasChangedFlag  a changed flag, `mark_changed`
//   void add(d, w);  int count() const;  float weight() const;  float value() const
// All changes are made under the leaf's lock.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

#include "foundation/types.h"

namespace VexelAlgorithm {
namespace Fusion {

/// State word of a record that no frame has touched.
inline constexpr std::int16_t LeafNeverUsed = -1;
inline constexpr std::int16_t LeafUsed = 0;

/// A mean is formed only above this weight; below it the voxel reads 0.
inline constexpr float LeafMinWeight = 1e-5f;

inline float mean_distance(float tsdfSum, float weightSum) {
    // The quotient is formed in any case: which voxels have weight is hard to foretell for the processor.
    const float mean = tsdfSum / std::max(weightSum, LeafMinWeight);
    return weightSum > LeafMinWeight ? mean : 0.0f;
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
