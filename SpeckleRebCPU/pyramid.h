// The sampled images on which pixels are matched.
#pragma once

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

/// Pixel (x, y) of the result is the image around pixel (x * ratio, y * ratio), smoothed against aliasing by a triangle
/// of half-width `ratio` in both directions and rounded; the border is repeated. The result has
/// width / ratio x height / ratio pixels.
void build_sampled_image(const GreyImage& image, int ratio, int threads, GreyImage& sampled);

}  // namespace VexelAlgorithm
