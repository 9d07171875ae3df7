// Facets fitted to a parallax field.
#pragma once

#include "SpeckleRebCPU/ParallaxField.h"

namespace VexelAlgorithm {

/// What belongs to the facet of a slot.
struct FacetFit {
    int radius;            ///< neighbours to each side, 1 to 6
    int spacing;           ///< of the neighbours, slots
    float sigma;           ///< of the Gaussian weights, neighbours; infinite for equal weights
    float tolerance;       ///< largest distance of a neighbour from the slot's present facet, pixels ...
    float slopeTolerance;  ///< ... plus this for every pixel of distance: how far the slopes may be off
};

/// Replaces every parallax and its slopes by those of a plane fitted with these weights to the neighbours that the
/// slot's present facet explains (a facet model, Haralick and Watson 1981, with the support cut at depth edges).
/// Slots with too few neighbours keep what they have. `sample`: pixels per slot.
void fit_facets(const FacetFit& fit, int sample, int threads, ParallaxField& field);

}  // namespace VexelAlgorithm
