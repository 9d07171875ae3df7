// The depths of a point image along its camera's axis.
#pragma once

#include <memory>

#include "foundation/PointImage.h"

namespace VexelAlgorithm {

/// z (mm) of every slot in camera coordinates, NaN for slots without a point. Points that are moved by the stored
/// pose are brought back; a pose that is not finite counts as the identity.
std::unique_ptr<float[]> slot_depths(const PointImage& image, int threads);

}  // namespace VexelAlgorithm
