#include "track/particleIcp.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "track/correspondence.h"
#include "track/distanceRank.h"
#include "track/normalEquations.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

/// Entries 0, step, 2 step, ..., `points` / step of them.
EntryRange every(std::size_t step, std::size_t points) {
    return {0, points / step, step};
}

template <class Body>
void for_chunks(const EntryRange& range, const Body& body) {
    for (std::size_t done = 0; done < range.count; done += KernelChunk) {
        body(EntryRange{range.first + done * range.step, std::min(KernelChunk, range.count - done), range.step});
    }
}

}  // namespace

// Never 0: without a term there is no residual.
std::size_t ParticleIcp::min_valid_count(std::size_t points) const {
    const double share = static_cast<double>(points) * static_cast<double>(minValidRatio);
    if (!(share >= 1.0)) return 1;
    return static_cast<std::size_t>(std::min(share, 1e15));
}

void ParticleIcp::find_correspondences(const RigidMatrix& pose, const EntryRange& looked,
                                       ParticleWorkspace& workspace) const {
    workspace.reserve(looked.count);
    const Alignment aligned = alignment(pose);
    for_chunks(looked, [&](const EntryRange& chunk) {
        workspace.count += kernels.find(aligned, chunk, disThreshold, workspace.arrays().from(workspace.count)).found;
    });
}

bool ParticleIcp::update_pose(RigidMatrix& pose, ParticleWorkspace& workspace) const {
    const float disCut = element_of_rank(workspace.distance.data(), workspace.count,
                                         rank_of_share(workspace.count, keepRatio), workspace.scratch, 1);
    if (disCut < CoincidentDistance) return true;  // no row would be left, and nothing needs to move
    const Alignment aligned = alignment(pose);
    NormalEquations system;
    for_chunks({0, workspace.count, 1}, [&](const EntryRange& chunk) {
        kernels.accumulate(aligned, workspace.arrays().from(chunk.first), chunk.count, disCut, system);
    });
    return step_pose(system, fixed.centre(), pose) && pose.is_finite();
}

// The displacement of the scene's centre, and what the rotation adds at points as far from the centre as the centre is
// from the camera.
bool ParticleIcp::is_at_rest(const RigidMatrix& before, const RigidMatrix& after) const {
    constexpr double rest = 1e-3;  // of the distance threshold
    const Vector3d& centre = fixed.centre();
    const double shift = (after * (before.inverse() * centre) - centre).norm();
    const double turn = (after.get_rotation() - before.get_rotation()).norm() * centre.norm();
    return shift + turn < rest * static_cast<double>(disThreshold);
}

bool ParticleIcp::refine(RigidMatrix& pose, int iterations, std::size_t step, ParticleWorkspace& workspace) const {
    const EntryRange looked = every(step, moving.size());
    for (int i = 1; i <= iterations; ++i) {
        find_correspondences(pose, looked, workspace);
        const bool isLast = i == iterations;
        if (workspace.count < (isLast ? min_valid_count(looked.count) : 1)) return false;
        const RigidMatrix before = pose;
        if (!update_pose(pose, workspace)) return false;
        if (!isLast && is_at_rest(before, pose)) return workspace.count >= min_valid_count(looked.count);
    }
    return pose.is_finite();
}

ResidualSum ParticleIcp::count_residual(const RigidMatrix& pose) const {
    const ResidualRule rule{0, std::numeric_limits<float>::infinity(), disThreshold};
    const double saturation = largest_summed_distance(moving.size());
    const Alignment aligned = alignment(pose);
    ResidualSum total;
    for_chunks(every(1, moving.size()), [&](const EntryRange& chunk) {
        const ResidualSum part = kernels.residual(aligned, chunk, rule, saturation);
        total.count += part.count;
        total.sum += part.sum;
    });
    return total;
}

bool ParticleIcp::judge(const RigidMatrix& pose, float& residual) const {
    const ResidualSum total = count_residual(pose);
    if (total.count < static_cast<std::int64_t>(min_valid_count(moving.size()))) return false;
    residual = static_cast<float>(static_cast<double>(total.sum) / _tbbfloattoint / static_cast<double>(total.count));
    return true;
}

}  // namespace Track
}  // namespace VexelAlgorithm
