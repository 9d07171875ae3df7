// Matches carried on into unmatched neighbours.
#pragma once

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

struct GrowTask {
    const GreyImage& left;
    const GreyImage& right;
    const Mask& leftMask;  ///< pixels to be matched
    int windowWidth;
    int windowHeight;
    float parallaxBegin;  ///< search range, pixels
    float parallaxEnd;
    float smallestScore;  ///< of a match that is taken
};

/// Fills pixels beside matched ones: a plane through the matched neighbours predicts parallax and slant, a few
/// Gauss-Newton steps with a window slanted accordingly refine the parallax, and what correlates well enough is a
/// match from which others grow, ring by ring. Upright windows fail where the cameras see a surface under different
/// angles; slanted ones do not, once a neighbour tells the slant (B. Pan, "Reliability-guided digital image
/// correlation for image deformation measurement", 2009; M. Bleyer, C. Rhemann and C. Rother, "PatchMatch stereo",
/// 2011). The parallax is NaN where there is none. The result does not depend on the thread number.
void grow_matches(const GrowTask& task, int threads, Raster<float>& parallax, Raster<float>& score);

}  // namespace VexelAlgorithm
