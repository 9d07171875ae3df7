// Which slots of a point image a registration can use.
#pragma once

#include <cmath>
#include <cstddef>

#include "foundation/PointImage.h"

namespace VexelAlgorithm {
namespace Track {

constexpr float SmallestDepth = 1e-5F;  // mm
constexpr float SmallestNormalLength = 1e-5F;

/// Slots that are prepared in one task.
constexpr std::size_t SlotChunk = 8192;
inline std::size_t chunk_count(std::size_t entries, std::size_t chunk) {
    return (entries + chunk - 1) / chunk;
}

/// Whether point and normal are finite: the sum of their differences from themselves is NaN otherwise.
inline bool are_finite(const Vector3f& p, const Vector3f& n) {
    const float zero =
        ((p.x() - p.x()) + (p.y() - p.y()) + (p.z() - p.z())) + ((n.x() - n.x()) + (n.y() - n.y()) + (n.z() - n.z()));
    return zero == 0.0F;
}
inline float normal_length(const Vector3f& n) {
    return std::sqrt(n.x() * n.x() + n.y() * n.y() + n.z() * n.z());
}

}  // namespace Track
}  // namespace VexelAlgorithm
