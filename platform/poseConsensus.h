// From matched features to rigid motions on which many matches agree. Internal to the library.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/surfaceFeatures.h"

namespace VexelAlgorithm {

struct FeatureMatch {
    std::size_t ref;
    std::size_t obj;
};

/// For every feature of the object the `candidates` of the reference whose descriptors are nearest.
std::vector<FeatureMatch> match_features(const SurfaceFeatures& ref, const SurfaceFeatures& obj, int candidates);

struct PoseHypothesis {
    RigidMatrix objToRef;
    int agreeing = 0;  ///< matches that agree with it
};

struct ConsensusSettings {
    float positionTolerance = 1.0F;  ///< of a match that agrees, mm
    float axisTolerance = 0.4F;      ///< of its x and z axes, radians
    std::size_t mostHypotheses = 16;
};

/// The motions on which most matches agree, best first and different from each other. The two frames of a match
/// already fix a motion; all others vote on it (Mian, Bennamoun and Owens, "Three-dimensional model-based object
/// recognition and segmentation in cluttered scenes", PAMI 28, 2006). What is returned is fitted to the agreeing
/// matches (Umeyama, "Least-squares estimation of transformation parameters between two point patterns", PAMI 13,
/// 1991).
std::vector<PoseHypothesis> agreed_poses(const SurfaceFeatures& ref, const SurfaceFeatures& obj,
                                         const std::vector<FeatureMatch>& matches, const ConsensusSettings& settings);

}  // namespace VexelAlgorithm
