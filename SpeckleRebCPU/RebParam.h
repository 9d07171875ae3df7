// Settings of the speckle reconstruction.
#pragma once

#include <string>
#include <vector>

#include "foundation/export.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// The defaults describe a hand-held scanner with 1.3 megapixel cameras; the calibration and the search range have to
/// be filled in.
struct RebParam {
    Vector2i imgSize{1280, 1024};  ///< width, height of the raw images, pixels
    int sampleRatio = 2;           ///< one point per sampleRatio x sampleRatio pixels, 1 to 16
    bool isDebug2OutPut = false;   ///< dump every stage into `debugPath`
    /// Window (full width, pixels of the sampled image) and threshold of the texture test: the root mean square of the
    /// grey-value differences I(x + 1) - I(x - 1). 0 takes everything.
    Vector2i gradientTh{11, 3};
    /// Parallax search range [first, last) of c - x, pixels of the rectified full-size images: the point seen at left
    /// column x is looked for at right columns c from x + first on, below x + last.
    Vector2i findRange{-128, 128};
    Vector2i pixMatchWin{11, 11};  ///< width, height, odd, 3 to 63; pixels of the sampled image
    /// Width, height, odd, 3 to 63; pixels of the full-size image. Noise falls with the window, detail too: the smaller
    /// side says how stiff the fitted surface is (a plate that smooths over as much has a stiffness that grows with the
    /// fourth power). Larger than 13 pixels stands for smooth surfaces: the result is then also averaged over what the
    /// window is larger, which is off by q w^2 / 24 over w columns where the parallax curves by q pixels per squared
    /// pixel.
    Vector2i subPixMatchWin{13, 13};
    Vector4i imageRange{0, 1280, 0, 1024};  ///< xBegin, xEnd, yBegin, yEnd: processed rectangle, full-size pixels
    /// Camera vectors of 22 values: fx, fy, cx, cy, alpha, k1, k2, p1, p2, k3, translation, rotation row by row.
    std::vector<float> leftCalib;
    std::vector<float> rightCalib;
    /// Directory and prefix of the debug dumps: "dumps/first_" or, without a prefix, "dumps/" or "dumps". The directory
    /// must exist; empty stands for the current one.
    std::string debugPath;
};

}  // namespace VexelAlgorithm
