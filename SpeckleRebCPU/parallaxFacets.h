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
    float noise;           ///< root mean square that the curvature must explain to be believed, pixels
};

/// Replaces every parallax and its slopes by those of a quadric fitted with these weights to the neighbours that the
/// slot's present facet explains (a facet model, Haralick and Watson 1981, with the support cut at depth edges).
///
/// What the curvature changes is shrunk by the share of noise in what it explains, to nothing where that is not more
/// than noise explains (W. James and C. Stein, "Estimation with quadratic loss", 1961): where the surface is flat for
/// as far as the fit reaches, it is as smooth as a plane, elsewhere it keeps the shape. "What it explains" is the
/// weighted sum of squares by which x^2, xy and y^2 lower the residuals; of noise that all neighbours share it is
/// noise^2 for each of the neighbours that the fit has room for.
///
/// Terms that the neighbours do not determine are left out: those of which the terms before leave less than a
/// hundredth, or a thousandth of what the full neighbourhood has. Slots without both slopes keep what they have.
/// `sample`: pixels per slot. `residual`, where it is wanted, gets for every slot the weighted mean square that its
/// facet leaves of its neighbours' parallaxes, squared pixels; infinite without a fit.
void fit_facets(const FacetFit& fit, int sample, int threads, ParallaxField& field, Raster<float>* residual = nullptr);

/// Replaces the slopes by those of wide facets where these leave no more than noise unexplained, by those of narrow
/// ones where they leave much more, and by a mixture between: the slopes of the narrow facet are shrunk towards those
/// of the wide one by the share of noise in what the wide one leaves (James and Stein again). At an edge the wide facet
/// has the surface to one side to go by. The parallaxes stay. `noise`: root mean square of parallaxes on a smooth
/// surface, pixels.
void smooth_slopes(const FacetFit& wide, const FacetFit& narrow, float noise, int sample, int threads,
                   ParallaxField& field);

}  // namespace VexelAlgorithm
