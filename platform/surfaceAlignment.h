// Fine alignment of two sampled surfaces and its judgement. Internal to the library.
#pragma once

#include "foundation/RigidMatrix.h"
#include "platform/sampledCloud.h"

namespace VexelAlgorithm {

/// How two surfaces meet in a pose.
struct SurfaceContact {
    int samples = 0;        ///< of the object, that lie on the reference
    double residual = 0.0;  ///< RMS distance of those to the tangent planes of the reference, mm
    /// How many of those samples, in effect, speak against the motion that is least constrained: the smallest
    /// eigenvalue of the normal equations with rotations as arcs at the object's RMS radius (Gelfand, Ikemoto,
    /// Rusinkiewicz and Levoy, "Geometrically stable sampling for the ICP algorithm", 3DIM 2003). About 0 where
    /// surfaces can slide.
    double evidence = 0.0;
};

struct AlignmentSettings {
    float gateBegin = 1.0F;  ///< distance of two samples that count as one place, mm: at first
    float gateEnd = 1.0F;    ///< and at last
    int iterations = 20;
    std::size_t stride = 1;  ///< every how many-th sample of the object takes part
};

/// Improves the pose by point-to-plane ICP (Chen and Medioni, "Object modelling by registration of multiple range
/// images", 1992) and tells how the surfaces then meet. Both clouds' coordinates are those of their samples.
SurfaceContact align_surfaces(const SampledCloud& ref, const SampledCloud& obj, const AlignmentSettings& settings,
                              RigidMatrix& objToRef);

}  // namespace VexelAlgorithm
