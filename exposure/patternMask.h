// From a camera image to the places where a stereo matcher finds pattern. Internal to the library.
#pragma once

#include <array>
#include <cstdint>

#include "exposure/ByteImage.h"

namespace VexelAlgorithm {
namespace autoExposureFoot {

/// Weights of a 3 x 3 Gaussian, row by row; they sum to 0.9997.
using GaussianKernel = std::array<float, 9>;
GaussianKernel gaussian_kernel();

/// The smoothed image: interior pixels filtered and truncated to 8 bits, border pixels as they are.
void smooth(const std::uint8_t* image, int width, int height, const GaussianKernel& kernel, int threads,
            ByteImage& smoothed);
/// Every `step`-th pixel of every `step`-th row of the smoothed image, which is filtered at these places alone; width /
/// step times height / step pixels.
void sample_smoothed(const std::uint8_t* image, int width, int height, const GaussianKernel& kernel, int step,
                     int threads, ByteImage& sampled);

/// When the 3 x 3 pixels around a sampled pixel, with those beyond the border repeated, hold pattern.
struct PatternLimits {
    int contrast = 40;  ///< the differences of the 20 pairs of neighbours must sum to more than this, grey levels
    int headroom = 40;  ///< the mean must be at most 255 less this, grey levels
};

/// 1 where there is pattern: neither too dark for differences nor so bright that most of it is cut off.
void mask_pattern(const ByteImage& sampled, const PatternLimits& limits, int threads, ByteImage& mask);

/// Keeps the pixels of those connected components (8-neighbours) of the mask that have at least `least` pixels.
void keep_clusters(const ByteImage& mask, double least, ByteImage& clustered);

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
