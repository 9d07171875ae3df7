// The way back: what the right image says of the matches.
#pragma once

#include "SpeckleRebCPU/ParallaxField.h"

namespace VexelAlgorithm {

struct VerifyTask {
    const GreyImage& left;   ///< sampled
    const GreyImage& right;  ///< sampled
    int sample;              ///< pixels per slot
    int windowWidth;         ///< odd, sampled pixels
    int windowHeight;        ///< odd, sampled pixels
    int parallaxBegin;       ///< search range of c - x, half open, sampled pixels
    int parallaxEnd;
    const Mask& rightCover;  ///< sampled right pixels that can be candidates at all
    float regionStep;        ///< pixels between neighbours of one region
};

/// Removes the slots whose return match disagrees or cannot be had, in three ways.
///
/// Locally: the right image as each slot's facet shows it is matched back into the left image over `searchRadius`
/// sampled pixels to either side; the best must lie within `tolerance` of where the slot came from. Seen through the
/// facets the right image has the slant of the left one, so that upright windows do.
///
/// Globally: a right pixel belongs to one left pixel, and slots further apart than `tolerance` that claim the same one
/// contradict each other. A connected region that larger ones contradict in more than a third of its slots is removed
/// as a whole: where a pattern repeats itself, a strip whose true partner is outside the right image correlates as well
/// as the truth. Of the claims that are left the best correlated one holds.
///
/// At the border: a connected region, not the largest, whose slots nearly all (nine of ten) have their search range cut
/// off by the end of the right image is removed, as nothing says that the true partner is not beyond.
void right_to_left_to_vertify_match(const VerifyTask& task, int searchRadius, int tolerance, int threads,
                                    ParallaxField& field);

}  // namespace VexelAlgorithm
