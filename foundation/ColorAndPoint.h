// A depth frame with colour.
#pragma once

#include "foundation/ColorImage.h"
#include "foundation/PointImage.h"

namespace VexelAlgorithm {

/// A depth frame and the colour camera's image of the same instant, without lens distortion.
struct ColorAndPoint {
    PointImage point;
    ColorImage color;
};

}  // namespace VexelAlgorithm
