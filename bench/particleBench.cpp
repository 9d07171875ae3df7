// The particle tracker by itself: a jump over two particles and a turn of two degrees, seen in full frames.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bench/Stopwatch.h"
#include "simulation/NoiseModel.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"
#include "track/ParticleTrack.h"

using namespace VexelAlgorithm;

namespace {

constexpr float ParticleSize = 10.0F;  // mm
constexpr float DisThreshold = 18.0F;  // mm
constexpr float LargestError = 1.0F;   // mm; a search that ends farther away is no work to be timed

struct JumpPair {
    PointImage fixed, moving;
    RigidMatrix movingToFixed;
};

RigidMatrix jump() {
    Matrix3d rotation;
    rodrigures(Vector3d(0.02, -0.025, 0.012), rotation);
    return {rotation, Vector3d(2.0 * ParticleSize, -ParticleSize, 0.0)};
}

/// The owl on a table that fills the view, from 400 mm, about 280 mm wide.
JumpPair render_pair(int width, int height) {
    const Simulation::ShapePtr scene = Simulation::make_scene("owl_on_table");
    const CameraInParam camera(1.42 * width, 1.42 * width, 0.5 * width - 0.5, 0.5 * height - 0.5);
    const Vector3d target = Simulation::owl_centre();
    const RigidMatrix cameraToWorld = Simulation::look_at(target + Vector3d(60, -320, 230), target);
    JumpPair pair;
    pair.movingToFixed = jump();
    pair.fixed = Simulation::render(*scene, camera, width, height, cameraToWorld);
    pair.moving = Simulation::render(*scene, camera, width, height, cameraToWorld * pair.movingToFixed);
    const Simulation::NoiseModel noise;
    Simulation::apply_noise(pair.fixed, noise, 1);
    Simulation::apply_noise(pair.moving, noise, 2);
    return pair;
}

double error_at_centre(const RigidMatrix& found, const RigidMatrix& truth) {
    const Vector3d centre(0.0, 0.0, 400.0);
    return (found * centre - truth * centre).norm();
}

void particle_track(benchmark::State& state, int width, int height, int codeNum, bool vectorSteps) {
    const JumpPair pair = render_pair(width, height);
    Track::ParticleTrack tracker(DisThreshold, 5, "", codeNum, {5, 5, 1}, Vector3f::Constant(ParticleSize), 0.5F, 0.8F,
                                 static_cast<int>(state.range(0)));
    if (!vectorSteps) tracker.set_vector_steps(nullptr);
    RigidMatrix found;
    tracker.partical_track(pair.fixed, pair.moving, found, 0, nullptr);
    const double error = error_at_centre(found, pair.movingToFixed);
    if (error > LargestError) {
        state.SkipWithError("the jump was not found");
        return;
    }
    const VexelBench::Stopwatch watch;
    for (auto _ : state) tracker.partical_track(pair.fixed, pair.moving, found, 0, nullptr);
    state.counters["cpu_ms"] = benchmark::Counter(1e3 * watch.sum().cpu, benchmark::Counter::kAvgIterations);
    state.counters["points"] = pair.moving.count_vaildNum() / codeNum;
    state.counters["error_mm"] = error;
}

// Steps without a common factor with the width, so that the points do not stand in few columns.
struct Size {
    int width, height, codeNum;
};

[[maybe_unused]] const bool registered = [] {
    for (const Size& size : {Size{320, 240, 19}, Size{640, 480, 77}, Size{640, 512, 83}}) {
        for (const bool vectorSteps : {true, false}) {
            const std::string name = "particleTrack/" + std::to_string(size.width) + "x" + std::to_string(size.height) +
                                     (vectorSteps ? "" : "/plain");
            benchmark::RegisterBenchmark(name.c_str(), particle_track, size.width, size.height, size.codeNum,
                                         vectorSteps)
                ->ArgName("threads")
                ->Arg(1)
                ->Arg(2)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
        }
    }
    return true;
}();

}  // namespace
