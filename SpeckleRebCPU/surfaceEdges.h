// Where one surface ends and the next begins.
#pragma once

#include "SpeckleRebCPU/ParallaxField.h"

namespace VexelAlgorithm {

/// What both functions look at: full-size rectified images, and which of their pixels show anything.
struct EdgeTask {
    const GreyImage& left;
    const GreyImage& right;
    const Mask& leftCover;
    const Mask& rightCover;
    int sample;  ///< pixels per slot
};

struct EdgeSearch {
    int window;           ///< odd, pixels; small, as what it covers is taken for one surface
    int rounds;           ///< a facet gets five slots further in each
    float smallestScore;  ///< correlation that an empty slot must reach
    float parallaxBegin;  ///< search range, pixels
    float parallaxEnd;
};

/// Lets the facets on both sides of every edge and hole compete for the slots there: a slot beside an empty one, or
/// beside one of another surface, tries the facets of slots up to five away, extended to itself, and takes the one
/// under which a small window correlates best; empty slots only when it correlates well (spatial propagation of
/// PatchMatch stereo, M. Bleyer, C. Rhemann and C. Rother, 2011, where it can change anything). The large windows
/// that found the parallaxes reach across edges, and miss what is narrower than they are.
///
/// Windows are cut off by the image border and where either image shows nothing. Parallaxes may leave the intervals
/// that they came from. The result does not depend on the thread number.
void settle_edges(const EdgeTask& task, const EdgeSearch& search, int threads, ParallaxField& field);

/// Removes what cannot be relied upon at the edges of surfaces: slots at a gap around which the image is even, over a
/// pixel to each side (root mean square of I(x + 1) - I(x - 1) below `leastStep`), so that only the far part of their
/// window was compared; then all slots within `width` of a gap or of a step in depth of more than two pixels a slot
/// and pixel. Gaps are at least three slots wide, and end where both cameras could see the surface go on: where the
/// image ends it loses nothing.
void trim_edges(const EdgeTask& task, int width, float leastStep, int threads, ParallaxField& field);

}  // namespace VexelAlgorithm
