// The settings of an ICP iteration by its number.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "foundation/types.h"

namespace VexelAlgorithm {
namespace Track {

/// Computed where it is needed, so that no number of iterations costs memory.
struct IcpSchedule {
    int iterNum = 0;
    int iterNumFixed = 0;  ///< leading coarse iterations; none when negative
    Vector2f icpDis = Vector2f::Zero();
    Vector2f corrRatio = Vector2f::Zero();

    static bool are_gates_usable(const Vector2f& icpDis) { return icpDis.allFinite() && icpDis(0) <= icpDis(1); }
    bool is_usable() const {
        return are_gates_usable(icpDis) && iterNum >= 1 && std::int64_t{iterNum} - iterNumFixed >= 1;
    }

    bool is_coarse(int iterId) const { return iterId < iterNumFixed; }
    /// Gate of the point-to-plane distance, mm.
    float disSchedule(int iterId) const {
        if (!is_coarse(iterId)) return icpDis(0);
        const float steps = static_cast<float>(std::max(iterNumFixed - 1, 1));
        return icpDis(1) - static_cast<float>(iterId) * (icpDis(1) - icpDis(0)) / steps;
    }
    /// Share of the correspondences that is kept.
    float ratioSchedule(int iterId) const {
        if (!is_coarse(iterId)) return corrRatio(1);
        if (iterNumFixed == 1) return corrRatio(0);
        const float steps = static_cast<float>(iterNumFixed - 1);
        return corrRatio(0) + static_cast<float>(iterId) * (corrRatio(1) - corrRatio(0)) / steps;
    }
};

}  // namespace Track
}  // namespace VexelAlgorithm
