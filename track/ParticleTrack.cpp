#include "track/ParticleTrack.h"

#include <tbb/enumerable_thread_specific.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <utility>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "track/FixedImage.h"
#include "track/MovingPoints.h"
#include "track/correspondenceKernels.h"
#include "track/particleDebug.h"
#include "track/particleGrid.h"
#include "track/particleIcp.h"
#include "track/particleWorkspace.h"

namespace VexelAlgorithm {
namespace Track {

/// Takes the place of the plain correspondence and matrix steps.
class ParticleVectorSteps {
public:
    const CorrespondenceKernels& kernels = best_correspondence_kernels();
};

std::shared_ptr<const ParticleVectorSteps> shared_particle_vector_steps() {
    static const auto steps = std::make_shared<const ParticleVectorSteps>();
    return steps;
}

namespace {

std::atomic<bool> debugSwitch{false};
constexpr int UsualDebugFrame = 1000000;

constexpr int RoughIterations = 1;
constexpr int FineIterations = 2;
constexpr float FineStep = 0.15F;  // of the particle sizes
const Vector3i FineCounts{3, 3, 1};

float usable_keep_ratio(float ratio) {
    return std::isnan(ratio) ? 1.0F : std::clamp(ratio, 0.0F, 1.0F);
}

std::string fault_of(const PointImage& fixed, const PointImage& moving) {
    std::string fault = FixedImage::fault(fixed);
    if (fault.empty()) fault = MovingPoints::fault(moving);
    if (!fault.empty()) return fault;
    if (!fixed.is_enable_vNormal() || !moving.is_enable_vNormal()) return "an image has no normals";
    if (!moving.is_enable_vWeight()) return "the moving image has no weights";
    return {};
}

}  // namespace

struct ParticleTrack::State {
    float disThreshold;
    int iterNum;
    std::string debugPath;
    int codeNum;
    Vector3i particleCounts;
    Vector3f particleSizes;
    float minValidRatio;
    float keepRatio;
    int threadNum;
    int debugFrame = UsualDebugFrame;
    std::shared_ptr<const ParticleVectorSteps> vectorSteps = shared_particle_vector_steps();

    std::vector<RigidMatrix> particles{};  // start poses of the stage
    std::vector<RigidMatrix> refined{};
    std::vector<float> residuals{};
    float minResidual = FailedResidual;

    FixedImage fixedImage{};
    MovingPoints movingImage{};
    std::vector<MovingPoint> movingCloud{};  // every codeNum-th point of the moving image
    mutable tbb::enumerable_thread_specific<ParticleWorkspace> workspaces{};  // one a worker

    ParticleIcp icp() const {
        const CorrespondenceKernels& kernels = vectorSteps ? vectorSteps->kernels : plain_correspondence_kernels();
        return {fixedImage, movingCloud, kernels, disThreshold, minValidRatio, keepRatio};
    }
    bool is_debugged(int frameId) const { return debugSwitch && frameId == debugFrame; }

    void generate_grid() { generate_partical(particleCounts, particleSizes, particles, RigidMatrix(), true); }
    void append_extra_poses(const std::vector<RigidMatrix>& extraPoses);

    // The stages of a search.
    RetVal rough_stages(int frameId, RigidMatrix& found);
    void fine_stage(int frameId, RigidMatrix& found);
    void run_particles(int iterations, int frameId, const char* label);
    bool filter_particles();
    /// Takes the best of the refined poses and its residual; false when every particle has failed.
    bool take_best(int frameId, RigidMatrix& found);

    void count_one_particle(int particleId, const RigidMatrix& start, RigidMatrix& pose, float& residual,
                            int iterations, int step, int frameId, const char* label) const;
    int get_result(const std::vector<RigidMatrix>& poses, RigidMatrix& result, int frameId,
                   const std::vector<float>& scores) const;
};

void ParticleTrack::State::append_extra_poses(const std::vector<RigidMatrix>& extraPoses) {
    const std::size_t grid = particles.size();
    for (const RigidMatrix& pose : extraPoses) {
        if (particles.size() - grid >= static_cast<std::size_t>(MaxParticles)) break;
        if (pose.is_finite()) particles.push_back(pose);
    }
    const std::size_t leftOut = extraPoses.size() - (particles.size() - grid);
    if (leftOut > 0) print_line(std::to_string(leftOut) + " extra start poses are not finite or too many, left out");
}

RetVal ParticleTrack::State::rough_stages(int frameId, RigidMatrix& found) {
    run_particles(RoughIterations, frameId, "roughtPosition");
    if (!filter_particles()) {
        print_line("partical filter fail");
        return RET_RUN_FAIL;
    }
    run_particles(iterNum - 1, frameId, "roughtPosition_fine");
    if (take_best(frameId, found)) return RET_SUCCESS;
    print_line("partcial filter fails because bestParticleId < 0");
    return RET_RUN_FAIL;
}

void ParticleTrack::State::fine_stage(int frameId, RigidMatrix& found) {
    generate_partical(FineCounts, FineStep * particleSizes, particles, found, false);
    run_particles(FineIterations, frameId, "finePosition");
    take_best(frameId, found);
}

void ParticleTrack::State::run_particles(int iterations, int frameId, const char* label) {
    refined.resize(particles.size());
    residuals.resize(particles.size());
    parallel_ranges(threadNum, particles.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            count_one_particle(static_cast<int>(i), particles[i], refined[i], residuals[i], iterations, 1, frameId,
                               label);
        }
    });
}

// The refined poses of the particles that go on become start poses.
bool ParticleTrack::State::filter_particles() {
    const std::vector<int> kept = select_particles(residuals);
    particles.clear();
    for (const int id : kept) particles.push_back(refined[static_cast<std::size_t>(id)]);
    return !kept.empty();
}

bool ParticleTrack::State::take_best(int frameId, RigidMatrix& found) {
    const int bestParticleId = get_result(refined, found, frameId, residuals);
    if (bestParticleId < 0) return false;
    minResidual = residuals[static_cast<std::size_t>(bestParticleId)];
    return true;
}

void ParticleTrack::State::count_one_particle(int particleId, const RigidMatrix& start, RigidMatrix& pose,
                                              float& residual, int iterations, int step, int frameId,
                                              const char* label) const {
    RigidMatrix moved = start;
    pose.set_identity();
    residual = FailedResidual;
    guarded("count_one_particle", [&] {
        const ParticleIcp particle = icp();
        ParticleWorkspace& workspace = workspaces.local();
        const bool isRefined = particle.refine(moved, std::min(iterations, MaxIterations),
                                               static_cast<std::size_t>(std::max(step, 1)), workspace);
        if (label != nullptr && is_debugged(frameId)) {
            dump_correspondences(debugPath, label, frameId, particleId, workspace, particle.alignment(moved));
        }
        if (isRefined && particle.judge(moved, residual)) pose = moved;
    });
}

int ParticleTrack::State::get_result(const std::vector<RigidMatrix>& poses, RigidMatrix& result, int frameId,
                                     const std::vector<float>& scores) const {
    float minDis = FailedResidual;
    int minId = -1;
    for (std::size_t i = 0; i < std::min(poses.size(), scores.size()); ++i) {
        if (scores[i] < minDis) {
            minDis = scores[i];
            minId = static_cast<int>(i);
        }
    }
    if (minId >= 0) result = poses[static_cast<std::size_t>(minId)];
    if (is_debugged(frameId)) {
        guarded("get_result", [&] {
            print_line(format_text("minDis = %f", static_cast<double>(minDis)));
            print_line(format_text("minId = %d", minId));
        });
    }
    return minId;
}

ParticleTrack::ParticleTrack(float disThreshold, int iterNum, const std::string& debugPath, int codeNum,
                             const Vector3i& particleCounts, const Vector3f& particleSizes, float minValidRatio,
                             float keepRatio, int threadNum)
    : _state(new State{disThreshold, std::clamp(iterNum, 1, MaxIterations), debugPath, std::max(codeNum, 1),
                       usable_particle_counts(particleCounts), usable_particle_sizes(particleSizes), minValidRatio,
                       usable_keep_ratio(keepRatio), usable_threads(threadNum)}) {
    _state->generate_grid();
}

ParticleTrack::~ParticleTrack() = default;

RetVal ParticleTrack::partical_track(const PointImage& fixed, const PointImage& moving, RigidMatrix& result,
                                     int frameId, const std::vector<RigidMatrix>* extraPoses) {
    return guarded<RetVal>("partical_track", RET_RUN_FAIL, [&] {
        State& state = *_state;
        state.minResidual = FailedResidual;
        const RetVal prepared = data_prepare(fixed, moving);
        if (prepared != RET_SUCCESS) return prepared;
        state.generate_grid();
        if (extraPoses != nullptr) state.append_extra_poses(*extraPoses);

        RigidMatrix found;
        const RetVal ended = state.rough_stages(frameId, found);
        const RigidMatrix rough = found;
        if (ended == RET_SUCCESS) state.fine_stage(frameId, found);
        result = found;
        if (state.is_debugged(frameId)) {
            dump_cloud(state.debugPath, "fixCloud", frameId, fixed, RigidMatrix());
            dump_cloud(state.debugPath, "roughtResult", frameId, moving, rough);
            dump_cloud(state.debugPath, "fineResult", frameId, moving, found);
        }
        return ended;
    });
}

RetVal ParticleTrack::data_prepare(const PointImage& fixed, const PointImage& moving) {
    return guarded<RetVal>("data_prepare", RET_RUN_FAIL, [&] {
        State& state = *_state;
        state.movingCloud.clear();
        const std::string fault = fault_of(fixed, moving);
        if (!fault.empty()) {
            print_line("partical_track fail because " + fault);
            return RET_INPUT_ERROR;
        }
        state.fixedImage.prepare(fixed, state.threadNum);
        state.movingImage.prepare(moving, state.threadNum);
        const auto step = static_cast<std::size_t>(state.codeNum);
        state.movingCloud.resize(state.movingImage.count() / step);
        for (std::size_t i = 0; i < state.movingCloud.size(); ++i) {
            state.movingCloud[i] = state.movingImage.points()[i * step];
        }
        return RET_SUCCESS;
    });
}

void ParticleTrack::count_one_particle(int particleId, const RigidMatrix& start, RigidMatrix& refined, float& residual,
                                       int iterations, int step, int frameId, const char* label) const {
    _state->count_one_particle(particleId, start, refined, residual, iterations, step, frameId, label);
}

void ParticleTrack::count_residual(const RigidMatrix& pose, int& count, float& sum) const {
    count = 0;
    sum = 0.0F;
    guarded("count_residual", [&] {
        const ResidualSum total = _state->icp().count_residual(pose);
        count = static_cast<int>(total.count);
        sum = static_cast<float>(static_cast<double>(total.sum) / _tbbfloattoint);
    });
}

void ParticleTrack::get_result(const std::vector<RigidMatrix>& poses, RigidMatrix& result, int frameId,
                               const std::vector<float>& residuals, int& bestId) const {
    bestId = _state->get_result(poses, result, frameId, residuals);
}

Vector3f ParticleTrack::get_particleSize() const {
    return _state->particleSizes;
}

void ParticleTrack::reset_particleSize(float size) {
    guarded("reset_particleSize", [&] {
        if (!std::isfinite(size)) {
            print_line("reset_particleSize fail because the size is not finite");
            return;
        }
        _state->particleSizes.setConstant(size);
        _state->generate_grid();
    });
}

void ParticleTrack::reset_code_Num(int codeNum) {
    _state->codeNum = std::max(codeNum, 1);
}

float ParticleTrack::get_the_min_residual() const {
    return _state->minResidual;
}

void ParticleTrack::release() {
    guarded("release", [&] {
        State& state = *_state;
        state.particles = {};
        state.refined = {};
        state.residuals = {};
        state.fixedImage = FixedImage();
        state.movingImage = MovingPoints();
        state.movingCloud = {};
        state.workspaces.clear();
    });
}

void ParticleTrack::set_vector_steps(std::shared_ptr<const ParticleVectorSteps> steps) {
    _state->vectorSteps = std::move(steps);
}

void ParticleTrack::set_debug_switch(bool on) {
    debugSwitch = on;
}

void ParticleTrack::set_debug_frame(int frameId) {
    _state->debugFrame = frameId;
}

}  // namespace Track
}  // namespace VexelAlgorithm
