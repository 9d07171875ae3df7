// The curvature of grey values.
#pragma once

#include <cstdint>

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

/// Second differences of an image: quarters of the second derivatives, in sixteenths of grey values. Along rows and
/// columns they are differences of two binomial filters, 1 4 6 4 1 less 1 2 1, smoothed by 1 4 6 4 1 in the other
/// direction; the mixed one takes the four diagonal neighbours. The border of the image is repeated; rows are padded to
/// multiples of `multiple`.
struct SecondDifferences {
    Raster<std::int16_t> alongX;
    Raster<std::int16_t> alongY;
    Raster<std::int16_t> mixed;
};
void find_second_differences(const GreyImage& image, int multiple, int threads, SecondDifferences& differences);

}  // namespace VexelAlgorithm
