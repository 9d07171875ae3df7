// What works on images alone: their registration, and the choice of exposure.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "bench/Stopwatch.h"
#include "exposure/autoExposureC.h"
#include "track/IcpOnImage.h"
#include "trials/markImages.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelBench;

// An iteration registers two images that are turned by 1.5 degrees and shifted by 3 pixels against each other.
void image_icp(benchmark::State& state, const VexelTrial::ImagePair& pair, int iterations,
               const Vector2d& pixelOffset) {
    Track::IcpOnImage icp(2 * iterations, iterations, {41, 21}, 1e6F, pair.moving.size, "");
    Track::RigidMatrix2D found;
    TimeSum time;
    for (auto _ : state) {
        const Stopwatch watch;
        const RetVal code = icp.real_time_image_icp(pair.fixed.pixels.data(), pair.moving.pixels.data(), found.rotation,
                                                    found.translation);
        const TimeSum run = watch.sum();
        if (code != RET_SUCCESS) return state.SkipWithError("not registered");
        state.SetIterationTime(run.wall);
        time += run;
    }
    found.translation -= found.rotation * pixelOffset;
    const auto& pixels = pair.moving.pixels;
    state.counters["cpu_ms"] = time.cpu * 1e3 / static_cast<double>(state.iterations());
    state.counters["points"] =
        static_cast<double>(std::count_if(pixels.begin(), pixels.end(), [](int p) { return p != 0; }));
    state.counters["error_pixels"] = VexelTrial::error_of(found, pair.movingToFixed, pair.moving.size).pixels;
}

const Vector2i kSize(640, 480);
const Track::RigidMatrix2D kMotion = VexelTrial::motion_about_middle(kSize, 1.5, {2.5, -1.7});

void image_icp_outlines(benchmark::State& state) {
    image_icp(state, VexelTrial::draw_outlines(kSize, kMotion, 1), 20, {0.5, 0.5});
}

void image_icp_dots(benchmark::State& state) {
    image_icp(state, VexelTrial::draw_dots(kSize, 41, kMotion, 1), 10, {0, 0});
}

// An iteration measures one image of 1280 x 1024: spots of about five pixels and noise.
void exposure(benchmark::State& state) {
    const Vector2i size(1280, 1024);
    std::mt19937 random(1);
    std::vector<unsigned char> spots(256 * 205), image;
    for (auto& spot : spots) spot = random() % 2 == 0 ? 30 : 190;
    for (int y = 0; y < size.y(); ++y)
        for (int x = 0; x < size.x(); ++x)
            image.push_back(
                static_cast<unsigned char>(spots[static_cast<std::size_t>(y / 5 * 256 + x / 5)] + random() % 16));
    autoExposureFoot::autoExposureC calculator(nullptr, size, {1, 0, 1, 0}, "");
    TimeSum time;
    for (auto _ : state) {
        const Stopwatch watch;
        const RetVal code = calculator.exposure_parameter_calculation(image.data());
        const TimeSum run = watch.sum();
        if (code != RET_SUCCESS) return state.SkipWithError("not measured");
        state.SetIterationTime(run.wall);
        time += run;
    }
    state.counters["cpu_ms"] = time.cpu * 1e3 / static_cast<double>(state.iterations());
    state.counters["patternShare"] = static_cast<double>(calculator.get_statistics().P2);
}

}  // namespace

BENCHMARK(exposure)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(image_icp_outlines)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(image_icp_dots)->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
