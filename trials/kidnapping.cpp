#include "trials/kidnapping.h"

#include <algorithm>
#include <cmath>

#include "algorithmQorInclude.h"
#include "simulation/combinations.h"
#include "simulation/counterRandom.h"
#include "simulation/primitives.h"
#include "simulation/scenes.h"
#include "trials/virtualScan.h"

namespace VexelTrial {

using namespace VexelAlgorithm;

namespace {

constexpr double kDegree = 3.14159265358979323846 / 180.0;
constexpr double kMillimetresOff = 2.0;
constexpr double kDegreesOff = 1.0;
// How far beside the path the scanner comes back.
constexpr double kAside = 15.0;  // mm along each axis
constexpr double kTurned = 8.0;  // degrees about each axis

void* make_session(const Simulation::Sequence& sequence) {
    Records records = records_for(sequence);
    records.track.icpIterNum = 26;
    records.track.icpInterNumFixed = 12;
    records.track.icpDis = {1.0F, 15.0F};
    records.track.icpDisAvgThread = 0.3F;
    void* const handle = fusion_and_track_ini(records.common, records.track, records.fusion);
    set_feature_recovery(handle, true);
    return handle;
}

class Session {
public:
    explicit Session(const Simulation::Sequence& sequence) : _handle(make_session(sequence)) {}
    ~Session() { fusiontrack_release(_handle); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Does not fuse, so that every trial meets the same model.
    FusionScanState track(const PointImage& frame) {
        int microseconds = 0;
        VexelAlgorithm::track(_handle, frame, microseconds);
        FusionScanState state;
        get_fusion_scan_state(_handle, state);
        return state;
    }
    void fuse(const PointImage& frame, const RigidMatrix& pose) {
        int microseconds = 0;
        fusion(_handle, frame, pose, microseconds);
    }
    RigidMatrix pose() const { return get_current_rt(_handle); }

private:
    void* _handle;
};

/// Millimetres and degrees.
bool is_wrong(const Vector2d& error) {
    return error.x() > kMillimetresOff || error.y() > kDegreesOff;
}

/// The random numbers of one trial.
class Draw {
public:
    Draw(std::uint64_t seed, int trial) : _random(seed, static_cast<std::uint64_t>(trial), 0) {}
    double within(double limit) { return limit * (2.0 * _random.uniform(_next++) - 1.0); }
    int index(int first, int last) {
        return first + static_cast<int>(_random.uniform(_next++) * static_cast<double>(last - first));
    }
    /// A motion of the camera that leaves what stands `distance` before it in sight.
    RigidMatrix aside(double distance) {
        const Vector3d degrees(within(kTurned), within(kTurned), within(kTurned));
        const Vector3d shift(within(kAside), within(kAside), within(kAside));
        Matrix3d rotation;
        rodrigures(degrees * kDegree, rotation);
        const Vector3d pivot(0.0, 0.0, distance);
        return {rotation, pivot - rotation * pivot + shift};
    }

private:
    Simulation::PixelRandom _random;
    std::uint64_t _next = 0;
};

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

/// Where a scanner comes back: beside a pose of a sequence.
struct Return {
    int place;
    RigidMatrix aside;
    std::uint64_t number;  ///< chooses the noise
};

/// `origin`: the pose in the world of what the session calls its model; null when no pose is right.
void carry_off(Session& session, const Simulation::Sequence& views, const Return& back, const RigidMatrix* origin,
               KidnapTally& tally) {
    ++tally.trials;
    for (int i = 0; i < KIDNAP_FRAMES; ++i) {
        const RigidMatrix camera = views.poses[static_cast<std::size_t>(back.place + i)] * back.aside;
        const std::uint64_t number = 100 * back.number + static_cast<std::uint64_t>(i);
        const FusionScanState state = session.track(Simulation::frame_from(views, camera, number));
        ++tally.frames;
        tally.milliseconds += state.times.whole;
        if (!is_accepted(state.outcome)) continue;
        const Vector2d error =
            origin != nullptr ? pose_error(origin->inverse() * camera, session.pose()) : Vector2d(Vector2d::Zero());
        note_accepted(error, state.outcome, origin != nullptr && !is_wrong(error), tally);
        return;
    }
}

void scan(Session& session, const KidnapScene& scene) {
    for (int i = 0; i < scene.scanned; ++i) {
        session.fuse(Simulation::frame_of(scene.sequence, i), scene.sequence.pose_in_model(i));
    }
}

/// The same from four sides, on a table.
Simulation::ShapePtr tower() {
    return Simulation::smooth_union(
        {Simulation::half_space(Vector3d::Zero(), Vector3d::UnitZ()), Simulation::box({0, 0, 20}, {50, 50, 20}),
         Simulation::box({0, 0, 60}, {30, 30, 20}), Simulation::sphere({0, 0, 90}, 20)},
        0);
}

struct NamedScene {
    const char* name;
    Vector3d centre;  ///< mm; what the scanner looks at
};

constexpr double kDistance = 400.0;  // mm

const NamedScene kScenes[] = {
    {"owl", Simulation::owl_centre()},
    {"owl_on_table", Simulation::owl_centre()},
    {"blocks", {0, 0, 35}},
    {"tower", {0, 0, 35}},
    {"sphere", {0, 0, 50}},
    {"torus", {0, 0, 25}},
    {"table", {0, 0, 0}},
};

Vector3d centre_of(const std::string& name) {
    for (const NamedScene& scene : kScenes)
        if (name == scene.name) return scene.centre;
    return Vector3d::Zero();
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

KidnapTally kidnap(const KidnapScene& scene, int trials, int first, int last, std::uint64_t seed) {
    Session session(scene.sequence);
    scan(session, scene);
    KidnapTally tally;
    for (int trial = 0; trial < trials; ++trial) {
        Draw draw(seed, trial);
        const int place = draw.index(first, last);
        carry_off(session, scene.sequence, {place, draw.aside(kDistance), seed + static_cast<std::uint64_t>(trial)},
                  &scene.sequence.poses.front(), tally);
    }
    return tally;
}

KidnapTally kidnap_elsewhere(const KidnapScene& scene, const KidnapScene& elsewhere, int trials, std::uint64_t seed) {
    Session session(scene.sequence);
    scan(session, scene);
    KidnapTally tally;
    for (int trial = 0; trial < trials; ++trial) {
        Draw draw(seed, trial);
        const int place = draw.index(0, elsewhere.sequence.frame_count() - KIDNAP_FRAMES);
        carry_off(session, elsewhere.sequence, {place, draw.aside(kDistance), seed + static_cast<std::uint64_t>(trial)},
                  nullptr, tally);
    }
    return tally;
}

}  // namespace VexelTrial
