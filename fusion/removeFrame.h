// Taking one frame's contribution out of the volume of the real-time session again.
#pragma once

#include <cstdint>

#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"
#include "fusion/FusionTsdf.h"

namespace VexelAlgorithm {
namespace Fusion {

/// How a frame was integrated. To the bit, or something else is taken out than was put in.
struct FrameSettings {
    FusionCone cone;
    int fusionRange = 0;
};

/// Subtracts what integration at `rt` has added, `times` times, from every leaf that has not been emptied by a later
/// edit than number `edit`. A leaf without contributions left is empty to the bit; what others added to the rest stays
/// but for the rounding of one sum. Touched leaves, and those whose display point may depend on them, are marked
/// changed and listed. The volume must be where it was then, and not be read or written by others meanwhile.
void remove_frame(FusionTsdf<LeafTSDFSpeckle>& volume, const PointImage& frame, const RigidMatrix& rt,
                  const FrameSettings& settings, int times, std::uint16_t edit, int threads,
                  ChangedLeaves& changedLeaves);

}  // namespace Fusion
}  // namespace VexelAlgorithm
