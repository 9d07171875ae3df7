#include "simulation/Sequence.h"

#include <algorithm>
#include <cmath>

#include "foundation/diagnostics.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kWorkingDistance = 400.0;
constexpr double kFocalLengthPerColumn = 1.5625;
constexpr int kBlackFrames = 10;
constexpr int kMostFrames = 100000;

/// Where a frame stands within its sequence.
struct Moment {
    int frame = 0;
    int frames = 1;

    double progress() const { return static_cast<double>(frame) / frames; }
    bool is_in_second_half() const { return frame >= frames / 2; }
};

RigidMatrix orbit_view(const Vector3d& target, double azimuth, double elevation) {
    Orbit orbit;
    orbit.target = target;
    orbit.radius = kWorkingDistance;
    orbit.startAzimuth = azimuth;
    orbit.startElevation = elevation;
    return orbit_poses(orbit, 1).front();
}

Vector3d blocks_centre() {
    return {0, 0, 35};
}

Vector3d table_centre() {
    return Vector3d::Zero();
}

RigidMatrix around_the_owl(const Moment& moment) {
    return orbit_view(owl_centre(), -90.0 + 360.0 * moment.progress(), 20.0);
}

constexpr double kArcStep = 3.6;

RigidMatrix along_the_arc(const Moment& moment) {
    return orbit_view(owl_centre(), -90.0 + kArcStep * (moment.frame - moment.frames / 2), 20.0);
}

RigidMatrix slow_sweep_at(double progress) {
    return orbit_view(blocks_centre(), -110.0 + 40.0 * progress, 40.0 + 8.0 * std::sin(2.0 * kPi * progress));
}

RigidMatrix slow_sweep(const Moment& moment) {
    return slow_sweep_at(moment.progress());
}

RigidMatrix to_and_fro(const Moment& moment) {
    const double swing = 4.0 * kPi * moment.progress();
    return orbit_view(blocks_centre(), -90.0 + 10.0 * std::sin(swing), 45.0 + 5.0 * std::cos(0.5 * swing));
}

RigidMatrix sweep_with_jump(const Moment& moment) {
    if (!moment.is_in_second_half()) return slow_sweep(moment);
    Matrix3d rotation;
    rodrigures(Vector3d::Ones().normalized() * (2.0 * kPi / 180.0), rotation);
    return slow_sweep({moment.frame - 1, moment.frames}) * RigidMatrix(rotation, {20, -20, 0});
}

int first_black_frame(int frames) {
    return std::max(1, (frames - kBlackFrames) / 2);
}

RigidMatrix sweep_that_waits(const Moment& moment) {
    const int waited = std::clamp(moment.frame - first_black_frame(moment.frames), 0, kBlackFrames);
    return slow_sweep({moment.frame - waited, moment.frames});
}

bool covered_in_the_middle(const Moment& moment) {
    const int first = first_black_frame(moment.frames);
    return moment.frame >= first && moment.frame < first + kBlackFrames;
}

/// Looks down on the table, tilted as nobody holds a scanner straight.
RigidMatrix above_table(double x) {
    return orbit_view({x, 0, 0}, -90.0, 65.0);
}

RigidMatrix away_and_back(const Moment& moment) {
    return above_table(200.0 * (1.0 - std::cos(2.0 * kPi * moment.progress())));
}

RigidMatrix over_the_table(const Moment& moment) {
    return above_table(100.0 * moment.progress());
}

RigidMatrix one_view(const Moment&) {
    return slow_sweep_at(0.5);
}

struct NamedSequence {
    SequenceDescription description;
    const char* scene;
    Vector3d (*centre)();  ///< of the scene, about which the path leads
    RigidMatrix (*steadyPose)(const Moment&);
    double tremorTranslation;  ///< mm
    double tremorRotation;     ///< degrees
    bool (*isBlack)(const Moment&);
};

const NamedSequence kSequences[] = {
    {{"full_turn", "Once around the owl on a table", 100},
     "owl_on_table",
     owl_centre,
     around_the_owl,
     1.0,
     0.2,
     nullptr},
    {{"arc", "A part of the turn around the owl, as far as the frames reach", 40},
     "owl_on_table",
     owl_centre,
     along_the_arc,
     1.0,
     0.2,
     nullptr},
    {{"smooth", "A slow sweep about the blocks", 40}, "blocks", blocks_centre, slow_sweep, 1.0, 0.2, nullptr},
    {{"fast", "To and fro about the blocks, with a strong tremor", 40},
     "blocks",
     blocks_centre,
     to_and_fro,
     3.0,
     0.5,
     nullptr},
    {{"jump", "A slow sweep with a jump in the middle", 40},
     "blocks",
     blocks_centre,
     sweep_with_jump,
     0.3,
     0.05,
     nullptr},
    {{"black_out", "A slow sweep with ten black frames in the middle", 40},
     "blocks",
     blocks_centre,
     sweep_that_waits,
     0.3,
     0.05,
     covered_in_the_middle},
    {{"past_plane", "From the blocks over the bare table and back", 90},
     "blocks",
     table_centre,
     away_and_back,
     1.0,
     0.2,
     nullptr},
    {{"bare_plane", "A slow sweep over the bare table", 20}, "table", table_centre, over_the_table, 1.0, 0.2, nullptr},
    {{"still", "A view of the blocks that stays", 1000}, "blocks", blocks_centre, one_view, 0.3, 0.05, nullptr},
};

const NamedSequence* find_sequence(const std::string& name) {
    for (const NamedSequence& sequence : kSequences)
        if (name == sequence.description.name) return &sequence;
    std::string known;
    for (const NamedSequence& sequence : kSequences) known += (known.empty() ? "" : ", ") + sequence.description.name;
    print_line("no sequence is called \"" + name + "\"; there are " + known);
    return nullptr;
}

const char* fault_of(const SequenceSettings& settings) {
    if (settings.frames < 0 || settings.frames > kMostFrames) return "sequence: there can be 1 to 100000 frames";
    if (settings.width < 16 || settings.height < 16 || settings.width > 8192 || settings.height > 8192)
        return "sequence: the image must have 16 to 8192 columns and rows";
    if (!(std::isfinite(settings.noiseSigma) && settings.noiseSigma >= 0.0))
        return "sequence: the noise must be at least 0 mm";
    if (!(std::isfinite(settings.tremor) && settings.tremor >= 0.0))
        return "sequence: the factor on the tremor must be at least 0";
    if (!settings.centre.allFinite()) return "sequence: the centre of the scene is not finite";
    return nullptr;
}

NoiseModel constant_noise(double sigma, std::uint64_t seed) {
    NoiseModel noise;
    noise.seed = seed;
    noise.depthSigma = sigma;
    noise.depthExponent = 0.0;
    noise.depthStep = 0.0;
    noise.tiltGain = 0.0;
    return noise;
}

/// The window in pixels, with at most seven rows and columns of neighbours.
void compute_normals(PointImage& frame, const Sequence& sequence) {
    const double pixel = kWorkingDistance / sequence.camera.get_fx();
    const int window = std::max(2, static_cast<int>(std::lround(sequence.normalWindow / pixel)));
    const auto reach = static_cast<float>(3.0 * window * pixel);
    frame.update_VNrv(std::max(1, window / 3), window, reach);
    frame.delete_point_without_normal();
}

}  // namespace

PointImage frame_from(const Sequence& sequence, const RigidMatrix& cameraToWorld, std::uint64_t number, int threads) {
    RenderSettings settings;
    settings.farLimit = sequence.farLimit;
    settings.threads = threads;
    PointImage frame =
        render(*sequence.scene, sequence.camera, sequence.width, sequence.height, cameraToWorld, settings);
    if (sequence.noise) apply_noise(frame, *sequence.noise, number, threads);
    if (sequence.normalWindow > 0.0) compute_normals(frame, sequence);
    return frame;
}

PointImage frame_of(const Sequence& sequence, int frame, int threads) {
    const auto index = static_cast<std::size_t>(frame);
    if (sequence.isBlack[index] == 0) return frame_from(sequence, sequence.poses[index], index, threads);
    PointImage black;
    black.enable_vNormal();
    black.enable_vWeight();
    black.enable_vFlag();
    black.ini(sequence.width, sequence.height, sequence.camera, 1, Vector2f::Zero());
    return black;
}

std::vector<SequenceDescription> sequence_descriptions() {
    std::vector<SequenceDescription> descriptions;
    for (const NamedSequence& sequence : kSequences) descriptions.push_back(sequence.description);
    return descriptions;
}

std::optional<Sequence> make_sequence(const std::string& name, const SequenceSettings& settings) {
    const NamedSequence* plan = find_sequence(name);
    if (plan == nullptr) return std::nullopt;
    if (const char* fault = fault_of(settings)) {
        print_line(fault);
        return std::nullopt;
    }
    Sequence sequence;
    sequence.name = name;
    sequence.scene = settings.scene ? settings.scene : make_scene(plan->scene);
    const Vector3d shift = settings.scene ? Vector3d(settings.centre - plan->centre()) : Vector3d(Vector3d::Zero());
    const RigidMatrix toScene(Matrix3d::Identity(), shift);
    sequence.width = settings.width;
    sequence.height = settings.height;
    const double focalLength = kFocalLengthPerColumn * settings.width;
    sequence.camera = {focalLength, focalLength, 0.5 * (settings.width - 1), 0.5 * (settings.height - 1)};
    if (settings.noiseSigma > 0.0) sequence.noise = constant_noise(settings.noiseSigma, settings.seed);

    const int frames = settings.frames > 0 ? settings.frames : plan->description.frames;
    for (int frame = 0; frame < frames; ++frame) {
        const Moment moment{frame, frames};
        sequence.poses.push_back(toScene * plan->steadyPose(moment));
        sequence.isBlack.push_back(plan->isBlack != nullptr && plan->isBlack(moment) ? 1 : 0);
    }
    HandTremor tremor;
    tremor.seed = settings.seed;
    tremor.translation = settings.tremor * plan->tremorTranslation;
    tremor.rotation = settings.tremor * plan->tremorRotation;
    sequence.poses = shaken(sequence.poses, tremor);
    return sequence;
}

}  // namespace VexelAlgorithm::Simulation
