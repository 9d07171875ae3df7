#include "trials/kidnapping.h"

#include <algorithm>
#include <memory>

#include "algorithmQorInclude.h"
#include "simulation/combinations.h"
#include "simulation/counterRandom.h"
#include "simulation/primitives.h"
#include "simulation/scenes.h"
#include "trials/virtualScan.h"

namespace VexelTrial {
namespace {

constexpr double kDistance = 400.0;  // mm, of the camera from what it looks at
constexpr double kMillimetresOff = 2.0, kDegreesOff = 1.0;
// How far beside the path the scanner comes back.
constexpr double kAside = 15.0;  // mm along each axis
constexpr double kTurned = 8.0;  // degrees about each axis

struct Release {
    void operator()(void* handle) const { fusiontrack_release(handle); }
};
using Session = std::unique_ptr<void, Release>;

/// With recovery, and the scanned frames fused at their true poses.
Session session_of(const KidnapScene& scene) {
    Records records = records_for(scene.sequence);
    reach_far(records.track);
    Session session(fusion_and_track_ini(records.common, records.track, records.fusion));
    set_feature_recovery(session.get(), true);
    int microseconds = 0;
    for (int i = 0; i < scene.scanned; ++i)
        fusion(session.get(), Simulation::frame_of(scene.sequence, i), scene.sequence.pose_in_model(i), microseconds);
    return session;
}

/// Does not fuse, so that every trial meets the same model.
FusionScanState track_only(const Session& session, const PointImage& frame) {
    int microseconds = 0;
    track(session.get(), frame, microseconds);
    FusionScanState state;
    get_fusion_scan_state(session.get(), state);
    return state;
}

/// The random numbers of one trial.
class Draw {
public:
    Draw(std::uint64_t seed, int trial) : _random(seed, static_cast<std::uint64_t>(trial), 0) {}
    double within(double limit) { return limit * (2.0 * _random.uniform(_next++) - 1.0); }
    int index(int first, int last) {
        return first + static_cast<int>(_random.uniform(_next++) * static_cast<double>(last - first));
    }
    /// A motion of the camera that leaves what it looks at in sight.
    RigidMatrix aside() {
        const Vector3d degrees(within(kTurned), within(kTurned), within(kTurned));
        const Vector3d shift(within(kAside), within(kAside), within(kAside));
        Matrix3d rotation;
        rodrigures(degrees * std::acos(-1.0) / 180.0, rotation);
        const Vector3d pivot(0.0, 0.0, kDistance);
        return {rotation, pivot - rotation * pivot + shift};
    }

private:
    Simulation::PixelRandom _random;
    std::uint64_t _next = 0;
};

/// `error`: millimetres and degrees.
void note_accepted(const Vector2d& error, FrameOutcome outcome, bool isRight, KidnapTally& tally) {
    const bool isRecovered = outcome == FrameOutcome::Recovered;
    if (!isRight) {
        ++(isRecovered ? tally.wrong : tally.wrongByTracking);
        return;
    }
    ++tally.found;
    tally.foundByTracking += isRecovered ? 0 : 1;
    tally.worstMillimetres = std::max(tally.worstMillimetres, error.x());
    tally.worstDegrees = std::max(tally.worstDegrees, error.y());
}

/// The same from four sides, on a table.
Simulation::ShapePtr tower() {
    return Simulation::smooth_union(
        {Simulation::half_space(Vector3d::Zero(), Vector3d::UnitZ()), Simulation::box({0, 0, 20}, {50, 50, 20}),
         Simulation::box({0, 0, 60}, {30, 30, 20}), Simulation::sphere({0, 0, 90}, 20)},
        0);
}

Vector3d centre_of(const std::string& name) {
    if (name.rfind("owl", 0) == 0) return Simulation::owl_centre();
    if (name == "blocks" || name == "tower") return {0, 0, 35};
    return {0, 0, name == "sphere" ? 50.0 : name == "torus" ? 25.0 : 0.0};
}

}  // namespace

KidnapScene scene_on_arc(const std::string& name, int frames, int scanned, int scale, double noise) {
    Simulation::SequenceSettings settings;
    settings.frames = frames;
    settings.width = 160 * scale;
    settings.height = 128 * scale;
    settings.noiseSigma = noise;
    settings.scene = name == "tower" ? tower() : Simulation::make_scene(name);
    settings.centre = centre_of(name);
    return {name, *Simulation::make_sequence("arc", settings), scanned};
}

KidnapTally kidnap(const KidnapScene& scene, int trials, int first, int last, std::uint64_t seed,
                   const KidnapScene* elsewhere) {
    const Session session = session_of(scene);
    const Simulation::Sequence& views = (elsewhere != nullptr ? *elsewhere : scene).sequence;
    const RigidMatrix worldToModel = scene.sequence.poses.front().inverse();
    KidnapTally tally;
    for (; tally.trials < trials; ++tally.trials) {
        Draw draw(seed, tally.trials);
        const int place = draw.index(first, last);
        const RigidMatrix aside = draw.aside();
        for (int i = 0; i < KIDNAP_FRAMES; ++i) {
            const RigidMatrix camera = views.poses[static_cast<std::size_t>(place + i)] * aside;
            const std::uint64_t firstNoise = 100 * (seed + static_cast<std::uint64_t>(tally.trials));
            const PointImage frame = Simulation::frame_from(views, camera, firstNoise + static_cast<std::uint64_t>(i));
            const FusionScanState state = track_only(session, frame);
            ++tally.frames;
            tally.milliseconds += state.times.whole;
            if (!is_accepted(state.outcome)) continue;
            const Vector2d error = pose_error(worldToModel * camera, get_current_rt(session.get()));
            const bool isRight = elsewhere == nullptr && error.x() <= kMillimetresOff && error.y() <= kDegreesOff;
            note_accepted(error, state.outcome, isRight, tally);
            break;
        }
    }
    return tally;
}

}  // namespace VexelTrial
