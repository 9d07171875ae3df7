// The short registration that one particle runs.
#pragma once

#include <cstddef>
#include <vector>

#include "foundation/RigidMatrix.h"
#include "track/FixedImage.h"
#include "track/correspondenceKernels.h"
#include "track/particleWorkspace.h"

namespace VexelAlgorithm {
namespace Track {

/// What all particles of a tracker share. Reads only, so particles may run at the same time, each with a workspace of
/// its own.
struct ParticleIcp {
    const FixedImage& fixed;
    const std::vector<MovingPoint>& moving;
    const CorrespondenceKernels& kernels;
    float disThreshold;   ///< mm, point to plane
    float minValidRatio;  ///< of the points looked at
    float keepRatio;      ///< share of the sorted distances below the trimming cut

    /// Runs up to `iterations` iterations on every `step`-th point. False when one finds no correspondence or leaves no
    /// finite pose, or when the last has too few correspondences, which is told before its system is solved.
    bool refine(RigidMatrix& pose, int iterations, std::size_t step, ParticleWorkspace& workspace) const;

    /// Sum over all moving points.
    ResidualSum count_residual(const RigidMatrix& pose) const;

    /// Mean of the residual's terms (mm). False when there are none or fewer than the minimum.
    bool judge(const RigidMatrix& pose, float& residual) const;

    Alignment alignment(const RigidMatrix& pose) const { return {fixed, moving.data(), FloatPose(pose)}; }

private:
    std::size_t min_valid_count(std::size_t points) const;
    void find_correspondences(const RigidMatrix& pose, const EntryRange& looked, ParticleWorkspace& workspace) const;
    bool update_pose(RigidMatrix& pose, ParticleWorkspace& workspace) const;
    bool is_at_rest(const RigidMatrix& before, const RigidMatrix& after) const;
};

}  // namespace Track
}  // namespace VexelAlgorithm
