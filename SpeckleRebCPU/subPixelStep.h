// One step of sub-pixel matching for all slots at once.
#pragma once

#include <cstddef>

#include "SpeckleRebCPU/ParallaxField.h"
#include "SpeckleRebCPU/fineImages.h"

namespace VexelAlgorithm {

constexpr int CLIPPED_GREY = 252;  ///< from here on grey values may be clipped, or interpolated from clipped ones
/// What is left without the clipped pixels: the share of the squared horizontal steps I(x + 1) - I(x - 1) in the window
/// around each pixel that have no clipped pixel in them. Empty where nothing is clipped at all.
Raster<float> unclipped_shares(const GreyImage& image, int window, int threads);
/// Covered pixels become 2 (count unless clipped) where at least `least` is left, else 1. Where an image is too bright
/// as a whole, its clipped pixels count, as little else would be left.
Mask spare_clipped_pixels(const Raster<float>& shares, float least, const Mask& cover, int threads);
/// The cover without the pixels that count unless clipped (2) where the image reaches `clipped` within the next pixel
/// to each side.
Mask without_clipped(const GreyImage& image, const Mask& cover, int clipped, int threads);

constexpr int INTERPOLATED_PIXELS = 4;       ///< that a row must have
constexpr std::size_t SUB_PIXEL_BLOCK = 64;  ///< pixels between two stages of resampling
/// Columns rounded up to whole blocks.
constexpr std::size_t pair_stride(int width) {
    return (static_cast<std::size_t>(width) + SUB_PIXEL_BLOCK - 1) / SUB_PIXEL_BLOCK * SUB_PIXEL_BLOCK;
}

struct SubPixelTask {
    const GreyImage& left;           ///< rectified, full size
    const GreyImage& right;          ///< of the same size
    const FinePair& fine;            ///< both, for everything but clipped grey values
    const Mask& leftCover;           ///< left pixels that count: 0 not, 1 yes, 2 unless clipped
    int sample;                      ///< pixels per slot
    int windowWidth;                 ///< odd, pixels
    int windowHeight;                ///< odd, pixels
    float jump;                      ///< pixels between neighbouring slots beyond which they are on different surfaces
    int clippedGrey = CLIPPED_GREY;  ///< what clipped pixels have at least, or those interpolated from them
};

/// The weights of a window: those of a box, and where the window leaves room those of boxes around the neighbouring
/// slots too, 1 2 1 in both directions. Such a bell averages over a narrower part of the surface than an even window of
/// the same noise does, and no wave of the surface comes out with its sign turned (weighted subsets: International
/// Digital Image Correlation Society, "A good practices guide for digital image correlation", 2018).
struct SubPixelWeights {
    int boxWidth;  ///< pixels
    int boxHeight;
    int spacing;   ///< slots between the boxes, 0 for a single one
    float fewest;  ///< sum of weights that a step needs: a quarter of all
};
SubPixelWeights sub_pixel_weights(const SubPixelTask& task);

/// The Gauss-Newton step of the least-squares difference between the left window around each slot and the right image,
/// seen through the field: every left pixel is paired with the right position that the slots around it predict, by
/// interpolation between those of one surface, by the facet of the nearest one beside gaps and jumps. The window thus
/// follows the surface, slants and curvature included, and all windows share one resampled image, so that their sums
/// slide (iterative window registration on a warped image: G. Le Besnerais and F. Champagnat, "Dense optical flow by
/// iterative local window registration", 2005; the criterion and its step: B. Pan, K. Li and W. Tong, "Fast, robust and
/// accurate digital image correlation calculation without redundant computations", 2013). The right image is
/// interpolated by the cubic spline along the row.
///
/// With the step each window determines gain and offset of the grey values. What one image is blurred more than the
/// other is left out: it moves the result by a few hundredths of a pixel at most.
///
/// Pixels that no slot reaches, outside the cover or the right image do not count, nor, where the cover says so, those
/// that are clipped or beside clipped ones on either side (`clippedGrey` and more): a clipped pixel says nothing of the
/// place, and where highlights move over the surface it is clipped in one image only. `step` (pixels, to be added to
/// the parallax) and `score` (correlation at the present parallax) are written for every slot: NaN and 0 where less
/// than a quarter of the window counts or its grey values are all but equal.
void find_sub_pixel_steps(const SubPixelTask& task, const ParallaxField& field, int threads, Raster<float>& step,
                          Raster<float>& score);

}  // namespace VexelAlgorithm
