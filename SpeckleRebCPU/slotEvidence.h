// What the pixels of both images say about the parallax and the gain of every slot.
#pragma once

#include <cstdint>

#include "SpeckleRebCPU/secondDifferences.h"
#include "SpeckleRebCPU/subPixelStep.h"

namespace VexelAlgorithm {

/// A left image as the right one shows it through a parallax field, pixel by pixel; rows are padded to whole blocks.
/// All zero where there is no pair (nor, which does no harm, where both are black).
struct PairedImage {
    Raster<std::int16_t> left;   ///< quarters of grey values
    Raster<std::int16_t> right;  ///< interpolated, as sharp as the left image, quarters of grey values
    Raster<std::int16_t> slope;  ///< derivative of the right image along the row, halves of grey values a pixel
};

/// What changes slowly over the image, in cells of `CELL` x `CELL` pixels that cover the rows of `PairedImage`, padding
/// included: the right image's gain, and how much more it is blurred than the left one, along rows and along columns.
/// Cameras at different distances are out of focus differently; what slants do to blur (`pair_images`) is taken off
/// before. To first order a difference of blur adds the second derivatives of the image (M. Subbarao and G. Surya,
/// "Depth from defocus: a spatial domain approach", 1994). Left out, it costs more than the noise of the cameras does.
struct ImageRelation {
    static constexpr int CELL = 8;
    Raster<float> blurX, blurY;  ///< of second differences in grey values
    Raster<float> gain;
    float offset = 0.0F;  ///< grey values, one for the whole image: what the sensors' dark levels differ by
    float misfit = 0.0F;  ///< grey values, what is left: root mean square over 3 x 3 cells, median of these
};

/// The least squares of gain * left - slope * step - (right - offset - blur) over the pixels around each slot, squared
/// grey values: half the second derivatives by step (pixels) and gain, and minus half the first ones. Dark pixels
/// weigh 1 at the slot, and all of them fall to 0 at its neighbours.
struct SlotEvidence {
    Raster<float> stepStep, stepGain, gainGain;
    Raster<float> step, gain;

    /// Values of the same size stay as they are.
    void resize(int width, int height);
};

/// A pixel of each camera takes in a spot of the same size. On a slanted surface the two spots differ, one camera's is
/// narrower than the other's, and skewed against it; what that does to the right image is taken back, to first order
/// (see `ImageRelation`).
void pair_images(const SubPixelTask& task, const SecondDifferences& leftDifferences, const ParallaxField& field,
                 int threads, PairedImage& paired);

/// From the pairs, over 3 x 3 cells: the offset is the median of the cells', then come blur and gain. Blur is shrunk
/// towards none by `ridge` (squared grey values of second difference), the gain a little towards the median, which
/// cells that see nothing get.
ImageRelation relate_images(const PairedImage& paired, const SecondDifferences& leftDifferences, float ridge,
                            int threads);

struct EvidenceTask {
    const PairedImage& paired;
    const SecondDifferences& leftDifferences;
    const ImageRelation& relation;
    const Raster<float>& gain;  ///< present one of every slot
    int sample;                 ///< pixels per slot
    float outlier;              ///< deviation at which a dark pixel has half its weight, grey values
};
/// Pixels lose weight as they deviate from what the gain of the nearest slot predicts (Cauchy's function): what belongs
/// to another surface. Bright ones weigh less, as shot noise grows with the light, and in highlights the gain changes
/// from pixel to pixel.
void gather_evidence(const EvidenceTask& task, int threads, SlotEvidence& evidence);

}  // namespace VexelAlgorithm
