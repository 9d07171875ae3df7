// The surface that explains a whole pair of images.
#pragma once

#include "SpeckleRebCPU/slotEvidence.h"
#include "SpeckleRebCPU/surfaceSolver.h"

namespace VexelAlgorithm {

/// Gauss-Newton steps of all parallaxes together, each with the gain of its surroundings. One object at a time fits one
/// frame; the larger buffers stay from frame to frame.
class WholeSurfaceFit {
public:
    /// Forgets the frame before. Blur, offset and the first gains will be taken from the pairs of cells
    /// (`relate_images`) under the first field, blur, offset and misfit once more under the second one.
    void begin(const GreyImage& left, int threads);

    /// `step`: pixels, to be added to the parallaxes, 0 for empty slots. Pixels weigh half when they deviate from the
    /// fit by `outlier` grey values. In images that agree worse than with `prior.noise`, as with little light and much
    /// gain, noise and `outlier` are larger.
    void find_steps(const SubPixelTask& task, const SurfacePrior& prior, float outlier, const ParallaxField& field,
                    int threads, Raster<float>& step);

private:
    SecondDifferences _differences;  ///< of the left image
    PairedImage _paired;
    ImageRelation _relation;
    SlotEvidence _evidence;
    Raster<float> _gain;
    int _fits = 0;  ///< of this frame
};

/// Slopes from the neighbours that are within `jump` pixels; where there are none, the slope stays.
void take_slopes(float jump, int sample, int threads, ParallaxField& field);

}  // namespace VexelAlgorithm
