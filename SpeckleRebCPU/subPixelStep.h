// One step of sub-pixel matching for all slots at once.
#pragma once

#include "SpeckleRebCPU/ParallaxField.h"

namespace VexelAlgorithm {

struct SubPixelTask {
    const GreyImage& left;   ///< rectified, full size
    const GreyImage& right;  ///< of the same size
    const Mask& leftCover;   ///< left pixels that show anything
    int sample;              ///< pixels per slot
    int windowWidth;         ///< odd, pixels
    int windowHeight;        ///< odd, pixels
};

/// The Gauss-Newton step of the zero-mean normalised sum of squared differences between the left window around each
/// slot and the right image, seen through the field: every left pixel is paired with the right position that the facet
/// of its own slot predicts. The window thus follows the surface, slants and curvature included, and all windows share
/// one resampled image, so that their sums slide (iterative window registration on a warped image: G. Le Besnerais and
/// F. Champagnat, "Dense optical flow by iterative local window registration", 2005; the criterion and its step: B.
/// Pan, K. Li and W. Tong, "Fast, robust and accurate digital image correlation calculation without redundant
/// computations", 2013). The right image is interpolated by cubic convolution along the row (R. Keys, 1981).
///
/// Pixels without a facet, outside the cover or the right image do not count. `step` (pixels, to be added to the
/// parallax) and `score` (correlation at the present parallax) are written for every slot: NaN and 0 where fewer than
/// half of the window's pixels count or their grey values are all equal.
void find_sub_pixel_steps(const SubPixelTask& task, const ParallaxField& field, int threads, Raster<float>& step,
                          Raster<float>& score);

}  // namespace VexelAlgorithm
