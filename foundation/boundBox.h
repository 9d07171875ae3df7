// The axis-parallel box around chosen points. Internal to the library.
#pragma once

#include <cstddef>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm {

/// Corners of the box around the points i for which `isCounted(i)`; false, and both corners zero, without any.
template <class Predicate>
bool bound_box(const std::vector<Vector3f>& points, const Predicate& isCounted, Vector3f& low, Vector3f& high) {
    bool found = false;
    low.setZero();
    high.setZero();
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (!isCounted(i)) continue;
        low = found ? Vector3f(low.cwiseMin(points[i])) : points[i];
        high = found ? Vector3f(high.cwiseMax(points[i])) : points[i];
        found = true;
    }
    return found;
}

}  // namespace VexelAlgorithm
