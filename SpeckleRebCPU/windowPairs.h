// A small window of the left image beside the right image along a facet.
#pragma once

#include "SpeckleRebCPU/Raster.h"

namespace VexelAlgorithm {

/// Images of the same size, at least four pixels wide.
struct WindowTask {
    const GreyImage& left;
    const GreyImage& right;
    const Mask* leftCover;   ///< pixels that count; null for all
    const Mask* rightCover;  ///< both right pixels beside a position must count; null for all
    int width;               ///< of the window, odd, at most 63 pixels
    int height;
};

/// Pixel (x + dx, y + dy) is seen at right column x + dx + parallax + slopeX * dx + slopeY * dy.
struct WindowFacet {
    int x, y;
    float parallax, slopeX, slopeY;
};

/// Over the pairs: of the left grey values f and the right ones g, both around 128 and in quarters of a grey value, and
/// of the derivative d of the right image along the row, in grey values.
struct PairSums {
    std::int32_t count, f, g, ff, fg, gg;
    std::int32_t d, fd, gd, dd;
};

/// The right image is interpolated linearly. Pairs beyond an image or its cover are left out. Integers, so that the
/// sums do not depend on the vector instructions. Without `withDerivative` those of d are zero.
PairSums sum_pairs(const WindowTask& task, const WindowFacet& facet, bool withDerivative);

/// Sums of products around the means.
struct PairCovariances {
    double ff, fg, gg, fd, gd, dd;

    explicit PairCovariances(const PairSums& sums);
    double correlation() const;
};

}  // namespace VexelAlgorithm
