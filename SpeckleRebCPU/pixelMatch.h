// Pixel-level matching of two images row by row.
#pragma once

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

constexpr float NO_MATCH = -1.0F;

/// What the row search compares. Both images and both masks have one size.
struct PixelMatchTask {
    const GreyImage& left;
    const GreyImage& right;
    const Mask& leftMask;   ///< pixels to be matched
    const Mask& rightMask;  ///< candidates
    int windowWidth;        ///< odd
    int windowHeight;       ///< odd
    int parallaxBegin;      ///< search range of c - x, half open, pixels
    int parallaxEnd;
    PixelRange range;  ///< pixels outside are not matched
};

/// Sum and spread of the window around every pixel of an image: the part of the correlation that does not depend on
/// the partner.
struct PatchStatistics {
    Raster<float> sum;
    /// 1 / sqrt(sum of squared deviations from the mean); 0 where the window leaves the image, the mask is clear or all
    /// pixels are equal.
    Raster<float> inverseDeviation;
};

/// Returns false when no window fits into the image.
bool pre_compute_src_image_patch_eve_std(const GreyImage& image, const Mask& mask, int windowWidth, int windowHeight,
                                         int threads, PatchStatistics& statistics);

/// For every left pixel the right column with the best zero-mean normalised cross-correlation (J. P. Lewis, "Fast
/// normalized cross-correlation", 1995), or `NO_MATCH`, and its score.
///
/// All window weights are 1: then each sum of products follows from the window beside it and above it, and a candidate
/// costs one product pair instead of a window of them. The products are integers, so nothing drifts.
///
/// Candidates are the right columns of [max(x + parallaxBegin, h), min(x + parallaxEnd, width - h)), h the half window
/// width, with their mask set; those without texture score 0. The best has the largest score, which must be above 0; of
/// equal ones the first. A score that rounding lifts above 1 counts as 1. The position is refined by a parabola through
/// the scores of the candidates before and after it; a best that is the first, the second or the last candidate is no
/// match.
///
/// Each row is written by one thread; the result does not depend on their number.
bool match_pixels(const PixelMatchTask& task, int threads, Raster<float>& position, Raster<float>& score);

}  // namespace VexelAlgorithm
