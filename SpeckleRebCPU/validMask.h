// Where an image has enough texture to be matched.
#pragma once

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

/// The rectangle of a test that needs `margin` pixels around it: the near bounds are clamped to the margin, and the far
/// bounds keep as much distance from the image border as the clamped near bounds have, so a range that begins at
/// column 50 ends 50 columns before the border.
PixelRange mirrored_range(int width, int height, const PixelRange& range, int margin);

/// Horizontal grey-value steps |I(x + 1) - I(x - 1)| over the range with a margin of 3 pixels, its first row left out;
/// 0 elsewhere. Returns false when the image is empty.
bool compute_gradient(const GreyImage& image, const PixelRange& range, int threads, GreyImage& gradient);

/// A pixel is valid when the root mean square of the steps over the window of radius window >> 1 reaches the threshold
/// (grey values). Only texture along the rows tells columns apart, and the error of a match goes by the sum of its
/// squared gradients (B. Pan et al., "Study on subset size selection in digital image correlation for speckle
/// patterns", 2008).
bool generate_valid_mask(const GreyImage& gradient, const PixelRange& range, int window, float threshold, int threads,
                         Mask& mask);

/// A pixel becomes valid when any pixel of the window around it is; within the range.
bool mask_dilate(const Mask& mask, const PixelRange& range, int windowWidth, int windowHeight, int threads,
                 Mask& dilated);

}  // namespace VexelAlgorithm
