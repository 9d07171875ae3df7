// Neighbourhood operations of PointImage on a 1280 x 1024 frame, on all processors.
#include <benchmark/benchmark.h>

#include <cmath>
#include <optional>
#include <random>

#include "foundation/PointImage.h"

using namespace VexelAlgorithm;

namespace {

constexpr int Width = 1280;
constexpr int Height = 1024;
constexpr double Focal = 1500.0;
constexpr double WallDepth = 420.0;
constexpr double WallSlope = 0.3;
const Vector3d ballCentre(20.0, -10.0, 400.0);
constexpr double BallRadius = 60.0;

std::optional<double> ball_depth(const Vector3d& ray) {
    const double a = ray.squaredNorm();
    const double b = ray.dot(ballCentre);
    const double discriminant = b * b - a * (ballCentre.squaredNorm() - BallRadius * BallRadius);
    if (discriminant < 0.0) return std::nullopt;
    return (b - std::sqrt(discriminant)) / a;
}

/// A ball before an inclined wall, about 0.27 mm from slot to slot, with 0.02 mm of noise. A share of the slots is
/// empty, a share of them (specks) stands off the surface.
PointImage make_frame(double dropOuts, double specks) {
    PointImage frame;
    frame.ini(Width, Height);
    frame.enable_vNormal();
    frame.enable_vFlag();
    frame.enable_vWeight();
    std::mt19937 random(1);
    std::normal_distribution<double> noise(0.0, 0.02);
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    for (int y = 0; y < Height; ++y) {
        for (int x = 0; x < Width; ++x) {
            const Vector3d ray((x - Width / 2) / Focal, (y - Height / 2) / Focal, 1.0);
            double depth = ball_depth(ray).value_or(WallDepth / (1.0 - WallSlope * ray.x())) + noise(random);
            if (chance(random) < dropOuts) continue;
            if (chance(random) < specks) depth += 20.0 * chance(random) - 10.0;
            frame.set_point(x, y, Vector3f((depth * ray).cast<float>()));
        }
    }
    return frame;
}

/// Range argument 0: a complete frame; 1: 10 % drop-outs and 1 % specks.
const PointImage& frame_of(const benchmark::State& state) {
    static const PointImage frames[2] = {make_frame(0.0, 0.0), make_frame(0.1, 0.01)};
    return frames[state.range(0)];
}

/// Times `operation` on a fresh copy of the frame each time; the copy is not timed.
template <class Operation>
void time_on_copies(benchmark::State& state, const Operation& operation) {
    PointImage frame;
    for (auto _ : state) {
        state.PauseTiming();
        frame = frame_of(state);
        state.ResumeTiming();
        operation(frame);
    }
}

void normals_5x5(benchmark::State& state) {
    time_on_copies(state, [](PointImage& frame) { frame.update_VNrv(1, 2, 2.0f); });
}
void normals_7x7(benchmark::State& state) {
    time_on_copies(state, [](PointImage& frame) { frame.update_VNrv(1, 3, 2.0f); });
}
void delete_without_normal(benchmark::State& state) {
    time_on_copies(state, [](PointImage& frame) { frame.delete_point_without_normal(); });
}
void delete_flaged(benchmark::State& state) {
    time_on_copies(state, [](PointImage& frame) { frame.delete_point_flaged(Vector3f::Zero()); });
}
void edges_3_03_150(benchmark::State& state) {
    time_on_copies(state, [](PointImage& frame) { frame.find_egde_point(3, 0.3f, 150); });
}
void island_3_500(benchmark::State& state) {
    time_on_copies(state, [](PointImage& frame) { frame.delete_island(3, 1.0f, 500); });
}
void island_through_depth_3_500(benchmark::State& state) {
    time_on_copies(state, [](PointImage& frame) { frame.delete_island_through_depth(3, 1.0f, 500, Vector3f::Zero()); });
}
void plane_02_16(benchmark::State& state) {
    for (auto _ : state) {
        float ratio = 0.0f;
        frame_of(state).plane_detect(ratio, 0.2f, 16);
        benchmark::DoNotOptimize(ratio);
    }
}

}  // namespace

#define VEXEL_FRAME_BENCHMARK(operation) \
    BENCHMARK(operation)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()

VEXEL_FRAME_BENCHMARK(normals_5x5);
VEXEL_FRAME_BENCHMARK(normals_7x7);
VEXEL_FRAME_BENCHMARK(delete_without_normal);
VEXEL_FRAME_BENCHMARK(delete_flaged);
VEXEL_FRAME_BENCHMARK(edges_3_03_150);
VEXEL_FRAME_BENCHMARK(island_3_500);
VEXEL_FRAME_BENCHMARK(island_through_depth_3_500);
VEXEL_FRAME_BENCHMARK(plane_02_16);

BENCHMARK_MAIN();
