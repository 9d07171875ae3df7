// Rectified images for sub-pixel work: interpolated by splines, with more digits than 8 bits hold.
#pragma once

#include <cstdint>

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

constexpr float FINE_SCALE = 16.0F, FINE_ZERO = 128.0F;
/// `FINE_SCALE` times the difference of the grey value from `FINE_ZERO`.
using FineImage = Raster<std::int16_t>;

/// A raw image between its pixels. Bilinear interpolation blurs where it falls between pixels and does not where it
/// falls on them; the difference between the two images moves sub-pixel matches by more than the noise of the cameras
/// does. Cubic splines all but keep what the sensor resolved (H. W. Schreier, J. R. Braasch and M. A. Sutton,
/// "Systematic errors in digital image correlation caused by intensity interpolation", 2000).
class FineRectification {
public:
    /// `raw`: as many pixels as the output has, at least 7 x 7. `map`: interleaved raw pixel coordinates (x, y) of
    /// every output pixel, which are clamped to what has two pixels to each side: [1, width - 2) and [1, height - 2);
    /// NaN becomes 1. The result does not depend on the number of threads.
    void rectify(const std::uint8_t* raw, const float* map, int threads, FineImage& rectified);

private:
    FineImage _coefficients;  ///< of the raw image's spline
};

/// The coefficients of the cubic spline through the pixels of each row (at least 7), mirrored at its ends. They come
/// from the pixels by a symmetric filter (M. Unser, A. Aldroubi and M. Eden, "B-spline signal processing", 1993), cut
/// after six pixels.
void spline_rows(const FineImage& image, int threads, FineImage& coefficients);

struct FinePair {
    FineImage left;   ///< grey values
    FineImage right;  ///< coefficients of its rows' splines
};

}  // namespace VexelAlgorithm
