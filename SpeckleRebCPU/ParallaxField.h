// A parallax and its slopes for every slot of the sampled grid.
#pragma once

#include <cmath>
#include <limits>

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

constexpr float NO_PARALLAX = std::numeric_limits<float>::quiet_NaN();

inline bool has_parallax(float parallax) {
    return !std::isnan(parallax);
}

/// Slot (x, y) describes the facet of surface around rectified pixel (x * sample, y * sample): a left pixel (dx, dy)
/// beside it is seen at right column x * sample + dx + parallax + slopeX * dx + slopeY * dy. Full-size pixels. A facet
/// is exact for a plane, whose inverse depth is affine in the pixel.
struct ParallaxField {
    Raster<float> parallax;  ///< c - x; `NO_PARALLAX` for none
    Raster<float> slopeX;    ///< pixel per pixel
    Raster<float> slopeY;
    Raster<float> score;  ///< correlation of the last comparison, -1 to 1

    void assign(int width, int height) {
        parallax.assign(width, height, NO_PARALLAX);
        slopeX.assign(width, height, 0.0F);
        slopeY.assign(width, height, 0.0F);
        score.assign(width, height, 0.0F);
    }
    void clear_slot(std::size_t i) { parallax[i] = NO_PARALLAX; }
};

}  // namespace VexelAlgorithm
