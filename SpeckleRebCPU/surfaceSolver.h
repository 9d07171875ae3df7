// Parallaxes and gains of all slots at once.
#pragma once

#include "SpeckleRebCPU/ParallaxField.h"
#include "SpeckleRebCPU/slotEvidence.h"

namespace VexelAlgorithm {

struct SurfacePrior {
    float noise;     ///< of grey values, root mean square: what the evidence is measured by
    float bend;      ///< pixels: second difference of parallaxes from slot to slot to the next, root mean square ...
    float crease;    ///< ... where it is small; beyond this it counts in proportion, so that creases stay sharp
    float jump;      ///< pixels between neighbours beyond which they belong to different surfaces
    float kink;      ///< pixels: no second difference of one surface is larger
    float gainStep;  ///< difference of the gain from slot to slot, root mean square
    int iterations;  ///< conjugate gradients
};

/// The parallaxes and gains that are most likely in the light of the evidence when the surface bends little, mostly,
/// and the gain changes little from slot to slot: the minimum of
///
///     evidence(step, gain) / noise^2 + sum creased(second differences of the parallax) / bend^2
///         + sum (differences of the gain)^2 / gainStep^2
///
/// with second differences along rows, columns and, doubly, mixed ones (the bent plate of B. Horn and W. Grimson), and
/// creased(b) = 2 crease (sqrt(crease^2 + b^2) - crease), whose weights are those of the present
/// parallaxes: iteratively re-weighted least squares over several calls (P. Charbonnier et al., "Deterministic
/// edge-preserving regularization in computed imaging", 1997). Determining all of a neighbourhood at once, instead of
/// moving a window over it, keeps a window's confusion of shape and pattern out (global image correlation: G. Besnard,
/// F. Hild and S. Roux, 2006). Solved by conjugate gradients with the diagonal as preconditioner, in overlapping tiles
/// that fit into the cache.
///
/// `step`: what is to be added to the parallaxes, pixels, 0 for empty slots. `gain` (right grey values per
/// left one): those that the evidence was gathered with, and the new ones; they stay where slots are empty. All rasters
/// have one size. The result does not depend on the number of threads.
void solve_surface(const SlotEvidence& evidence, const SurfacePrior& prior, const Raster<float>& parallax, int threads,
                   Raster<float>& step, Raster<float>& gain);

}  // namespace VexelAlgorithm
