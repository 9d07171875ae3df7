// Finds the pose of a frame that is far from the prediction: short ICPs from a grid of start poses.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/RigidMatrix.h"
#include "foundation/export.h"

namespace VexelAlgorithm {
namespace Track {

class ParticleVectorSteps;

/// The steps inside one particle for the widest vectors of this processor. One object serves any number of trackers
/// and threads.
VEXEL_API std::shared_ptr<const ParticleVectorSteps> shared_particle_vector_steps();

/// Registers a frame (the moving image) against a view of the model (the fixed image) from a grid of start poses, the
/// particles. Every particle runs one iteration of a projective point-to-plane ICP, the best four go on, and a small
/// grid around the winner ends the search. Poses take points of the moving image's camera to the fixed image's camera,
/// in mm; both images are in camera coordinates.
///
/// Threads: `partical_track` runs its particles in parallel inside and must not overlap any other call on the same
/// object. After `data_prepare`, `count_one_particle` and `count_residual` may be called from several threads.
/// Working arrays are kept between calls; images of the same size need no new memory.
class VEXEL_API ParticleTrack {
public:
    static constexpr float FailedResidual = 1000000.0F;  ///< of a particle that ended without a pose
    static constexpr int MaxParticlesPerAxis = 63;
    static constexpr int MaxParticles = 4096;  ///< of a grid without its rotated poses, and of the extra poses
    static constexpr int MaxIterations = 1000;

    /// `disThreshold`, mm: a correspondence or residual term counts up to this point-to-plane distance; NaN and
    /// negative ones find none. `iterNum`: the refinement of the rough stage runs `iterNum` - 1 iterations, 0 to
    /// `MaxIterations` of them. `codeNum`: every `codeNum`-th usable moving point is used, as many as their number
    /// divided by it; below 1 counts as 1. `particleCounts` and `particleSizes` (mm) as in `generate_partical`.
    /// `minValidRatio`: share of these points that must end as valid terms, at least one. `keepRatio`: share of the
    /// sorted correspondence distances below the trimming cut; held within [0, 1], NaN is 1. `threadNum`: at least 1.
    ///
    /// What serves well: a threshold of three times the widest gate of the ICP that follows, 5 iterations, ratios 0.5
    /// and 0.8, and a `codeNum` that leaves about 4000 points of a full image and has no common factor with its width,
    /// so that the points do not stand in few columns: 19 at 320 x 240, 77 at 640 x 480, 83 at 640 x 512.
    ParticleTrack(float disThreshold, int iterNum, const std::string& debugPath, int codeNum,
                  const Vector3i& particleCounts, const Vector3f& particleSizes, float minValidRatio, float keepRatio,
                  int threadNum);
    ~ParticleTrack();
    ParticleTrack(const ParticleTrack&) = delete;
    ParticleTrack& operator=(const ParticleTrack&) = delete;

    /// The whole search. `extraPoses`, when not null, are start poses beside the grid; those with numbers that are not
    /// finite, and those beyond the first `MaxParticles`, are left out with one line.
    ///
    /// RET_SUCCESS. RET_INPUT_ERROR and one line for images that are not consistent in themselves, lack normals (or the
    /// moving one weights) or a usable camera (the fixed one); `result` stays as it was. RET_RUN_FAIL with
    /// "partical filter fail\n" or "partcial filter fails because bestParticleId < 0" when no particle is left;
    /// `result` is then the identity. When every particle of the last, fine grid fails, the pose that the grid was put
    /// around is the result.
    RetVal partical_track(const PointImage& fixed, const PointImage& moving, RigidMatrix& result, int frameId,
                          const std::vector<RigidMatrix>* extraPoses);

    // ---- the operations that the search is made of ------------------------------------------------------

    /// Fills the list with a grid of poses: along each axis the count with its lowest bit cleared plus one (4 gives 5,
    /// negative counts are 0), with the centre's rotation and the translation centre + (i size.x, j size.y, k size.z);
    /// k varies fastest, then j. With rotations, 18 absolute poses follow: translations (a size.x, b size.y, 0) for a,
    /// b in -1, 0, 1, each turned about z by -15 and by +15 degrees. Counts above `MaxParticlesPerAxis`, or of more
    /// than `MaxParticles` together, are lowered with one line; sizes that are not finite count as 0.
    static void generate_partical(const Vector3i& counts, const Vector3f& sizes, std::vector<RigidMatrix>& particles,
                                  const RigidMatrix& centre, bool withRotations);

    /// Copies what the calls below need from both images. Results as for `partical_track`; after a failure there are no
    /// moving points, so that every particle fails.
    RetVal data_prepare(const PointImage& fixed, const PointImage& moving);

    /// One short ICP from `start` with every `step`-th of the prepared moving points. `residual` is the mean of the
    /// terms that `count_residual` counts at the refined pose. Identity and `FailedResidual` when an iteration finds no
    /// correspondence or leaves no finite pose, or when the correspondences of the last iteration or the final terms
    /// are fewer than the minimum: the points looked at (every `step`-th; all for the terms) times the minimum valid
    /// ratio, truncated. The iterations end early when one moves the scene by less than a thousandth of the distance
    /// threshold. `particleId` and `label` name the debug file; without a label there is none.
    void count_one_particle(int particleId, const RigidMatrix& start, RigidMatrix& refined, float& residual,
                            int iterations, int step, int frameId = 0, const char* label = nullptr) const;

    /// Number and sum (mm) of the point-to-plane distances of all prepared moving points at the pose, as far as they
    /// fall on a usable pixel of the fixed image and are at most the distance threshold.
    void count_residual(const RigidMatrix& pose, int& count, float& sum) const;

    /// Indices, in order, of the particles that leave the rough stage: with fewer than four particles those better than
    /// the second best, otherwise those better than the fifth best, in both cases by at least 1e-5. All, when there are
    /// exactly one or four.
    static std::vector<int> select_particles(const std::vector<float>& residuals);

    /// The pose of the smallest residual below `FailedResidual`, the first of equal ones; `bestId` is -1 and `result`
    /// stays when there is none.
    void get_result(const std::vector<RigidMatrix>& poses, RigidMatrix& result, int frameId,
                    const std::vector<float>& residuals, int& bestId) const;

    // ---- settings -------------------------------------------------------------------------------------------

    Vector3f get_particleSize() const;
    /// The same grid step (mm) along all axes. One line, and no change, when it is not finite.
    void reset_particleSize(float size);
    /// Below 1 counts as 1.
    void reset_code_Num(int codeNum);
    /// The smallest residual (mm) of the last stage that `partical_track` ended with; `FailedResidual` before the first
    /// call and after a failed one.
    float get_the_min_residual() const;
    /// Gives the memory of the working arrays back. The next call allocates them anew.
    void release();

    /// Null: the plain implementation. A new tracker uses `shared_particle_vector_steps()`.
    void set_vector_steps(std::shared_ptr<const ParticleVectorSteps> steps);

    /// With the process-wide switch on, off by default, a call whose `frameId` is the tracker's debug frame (1000000 by
    /// default) writes clouds and correspondences as ASCII points to the debug path and prints the best residuals.
    static void set_debug_switch(bool on);
    void set_debug_frame(int frameId);

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace Track
}  // namespace VexelAlgorithm
