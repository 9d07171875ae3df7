// Removal of wrong parallaxes.
#pragma once

#include "SpeckleRebCPU/ParallaxField.h"

namespace VexelAlgorithm {

/// Removes connected regions of fewer than `smallest` slots. Neighbours (up, down, left, right) are connected when
/// their parallaxes differ by at most `largestStep` (speckle filtering as in H. Hirschmueller, "Stereo processing by
/// semiglobal matching and mutual information", 2008).
void remove_small_regions(std::size_t smallest, float largestStep, int threads, Raster<float>& parallax);

/// The connected regions of the same kind: which one each slot belongs to (-1 for none) and how many slots each has.
struct ParallaxRegions {
    Raster<std::int32_t> label;
    std::vector<std::size_t> sizes;
};
ParallaxRegions find_regions(float largestStep, int threads, const Raster<float>& parallax);

/// Removes slots that fewer than half of the present slots within `radius` support, or fewer than a fifth of the
/// window. One supports the other when it lies within `tolerance` + `slopeTolerance` * distance of its facet, pixels.
/// Facets as in `ParallaxField`, `sample` pixels a slot.
void remove_inconsistent(int radius, float tolerance, float slopeTolerance, int sample, int threads,
                         ParallaxField& field);

/// Removes slots within `rimWidth` of an empty one that are off by more than `slope` pixels a pixel from a neighbour in
/// the row or column: where a surface turns away from the cameras before it ends, little of it is left in a window, and
/// what was found bridges the edge.
void remove_steep_rims(float slope, int rimWidth, int sample, int threads, ParallaxField& field);

struct DoubtLimits {
    float smallestScore;        ///< below it a slot is removed
    float doubtfulScore;        ///< below it a slot is removed where the slots around it disagree
    float largestDisagreement;  ///< pixels for every slot of distance
    float smallestEdgeScore;  ///< below it a slot that is then beside an empty one is removed where others disagree ...
    float edgeDisagreement;   ///< ... by more than so many pixels for every slot of distance
};
/// Removes slots whose windows correlated badly, as they do where they see two surfaces or more of one than a facet can
/// follow, and most of all at gaps, where only a part of the window is left. Badly correlated slots that go on where
/// their neighbours' facets lead stay. Slots disagree when the facet of one that is one or two slots away in the row or
/// column misses the parallax by more than the limit.
void remove_doubtful(const DoubtLimits& limits, int sample, int threads, ParallaxField& field);

/// In cells of `cellSize` x `cellSize` slots: the plane through the cell's slots is fitted robustly (least squares,
/// then again to what is within three robust standard deviations of it, the median absolute deviation times 1.4826, but
/// at least 0.05 pixels), and what lies further off than `factor` of them, but at least `tolerance` pixels, is removed.
/// Cells with fewer than `fewest` slots lose them all.
void remove_cell_outliers(int cellSize, float factor, float tolerance, int fewest, int threads, ParallaxField& field);

struct RimLimits {
    int width;        ///< slots from the nearest empty one that belong to the rim
    int margin;       ///< slots of its surround to each side of a cell
    float factor;     ///< of the robust standard deviation
    float tolerance;  ///< pixels
    float flatness;   ///< largest robust standard deviation of a flat surround, pixels
};
/// Removes slots at gaps that stand off a flat surround: on the narrow side face of a plate, and where the windows saw
/// more of the gap than of the surface. The plane of a cell and its margin is fitted as above, but only to slots that
/// do not belong to the rim, whose windows lie wholly on the surface; where it is flat, the rim's slots in the cell
/// must lie within `factor` deviations of it, or `tolerance`. A bent surround says nothing about its rim.
void remove_rim_outliers(const RimLimits& limits, int cellSize, int threads, ParallaxField& field);

}  // namespace VexelAlgorithm
