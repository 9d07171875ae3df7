// Where the volume must lie to hold a recording of known poses.
#pragma once

#include <vector>

#include "foundation/types.h"
#include "recording/Recording.h"
#include "recording/pointImageFromDepth.h"

namespace VexelAlgorithm::Apps {

/// An axis-parallel box in world coordinates (mm).
struct Box {
    Vector3d low = Vector3d::Constant(0.0);
    Vector3d high = Vector3d::Constant(0.0);

    Vector3d centre() const { return 0.5 * (low + high); }
    double longest_side() const { return (high - low).maxCoeff(); }
};

/// What a first look at a recording tells.
struct SceneSurvey {
    Box box;                 ///< around the points
    float farDepth = 0.0f;   ///< mm; 95 % of the depths are nearer
    double frameArea = 0.0;  ///< mm^2 of surface that a frame sees on average, as if it faced the camera
};

/// A cube of 2^treeDepth voxels a side.
struct VolumePlacement {
    int treeDepth = 10;
    Vector3f shift = Vector3f::Zero();  ///< world position (mm) of the corner of voxel (0, 0, 0)
};

/// Looks at a sparse sample of the frames' points at their poses: some frames over the whole recording, every
/// eighth pixel of every eighth row. Frames must have poses. Fails when an image cannot be read or when there
/// is no point at all.
Outcome<SceneSurvey> survey_scene(const Recording& recording, const std::vector<RecordedFrame>& frames,
                                  const DepthFrameSettings& settings);

/// The number of voxels along each axis that a point contributes to: as many as the depth error in the far part of
/// the scene spans to either side of the surface, odd, from 5 to 15. A narrower band would let frames that
/// disagree make surfaces of their own; a wider one costs time and rounds thin parts.
int choose_fusion_range(float farDepth, float voxel, const DepthFrameSettings& settings);

/// What one frame may take; systems that promise more memory than they have would end the program without a word.
constexpr double largestMemoryGib = 6.0;
/// A lower bound of the memory that a volume takes, in GiB: the voxels that one frame touches.
double least_memory_gib(const SceneSurvey& survey, float voxel, int range, std::size_t bytesPerVoxel);

/// The smallest volume around the box's centre that holds the box, some voxels of margin included;
/// `largestDepth` bounds it, so that a large scene with fine voxels may stick out. `fixedDepth` above 0
/// replaces the choice of the depth.
VolumePlacement place_volume(const Box& box, float voxel, int fixedDepth, int largestDepth);

}  // namespace VexelAlgorithm::Apps
