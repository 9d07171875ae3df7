// Settings of the registration of a new frame against the model.
#pragma once

#include "foundation/types.h"

namespace VexelAlgorithm {

/// The fields named "...Feature..." hold for frames whose tracking starts from a feature alignment, which is
/// coarser than the usual prediction; their defaults are wider. The defaults suit frames of about 0.4 mm
/// spacing and steps of a few millimetres between frames.
struct TrackParmeter {
    int icpIterNum = 20;       ///< total number of ICP iterations
    int icpInterNumFixed = 6;  ///< leading iterations with a scheduled distance gate; at least four fewer than all

    /// Point-to-plane distance gates, mm: (0) of the last iterations, (1) of the first one, not smaller than (0).
    Vector2f icpDis{1.0F, 6.0F};
    Vector2f icpDisFeature{1.0F, 10.0F};

    float icpDisAvgThread = 0.5F;         ///< largest mean point-to-plane distance of an accepted registration, mm
    float icpDisAvgFeatureThread = 0.6F;  ///< mm

    /// Least share, in [0, 1), that must end as correspondences: (0) of the valid pixels of the prediction,
    /// (1) of the valid points of the frame, not smaller than (0).
    Vector2f icpRataRay{0.15F, 0.3F};
    Vector2f icpRataRayFeature{0.15F, 0.3F};

    float icpParticleSize = 10.0F;  ///< grid step between the start positions of the particle tracker, mm
    float disUniform = 2.0F;        ///< spacing of the uniformly sampled clouds of the feature registration, mm
};

}  // namespace VexelAlgorithm
