// Remapping of a 1280 x 1024 pair into rectified geometry, beside OpenCV's remap with the same float maps.
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

#include "bench/runBenchmarks.h"
#include "readCaliData/CaliParReadIn.h"

using namespace VexelAlgorithm;
using VexelBench::timed_as_a_whole;

namespace {

constexpr int Width = 1280;
constexpr int Height = 1024;

/// Two distorted cameras that converge by 14 degrees.
const Rebuild::CaliParReadIn& calibration() {
    static const Rebuild::CaliParReadIn rig = [] {
        Matrix3d R;
        rodrigures(Vector3d(0.01, 0.24, 0.02), R);
        std::vector<float> left{1900, 1905, 630, 520, 0, -0.1F, 0.12F, 0.001F, -0.001F, 0, 0,
                                0,    0,    1,   0,   0, 0,     1,     0,      0,       0, 1};
        std::vector<float> right{1880, 1885, 650, 505, 0, -0.12F, 0.1F, -0.001F, 0.001F, 0, -110, 1, 14};
        for (int i = 0; i < 9; ++i) right.push_back(static_cast<float>(R(i / 3, i % 3)));
        return Rebuild::CaliParReadIn(left, right, {}, Vector2i(Width, Height), Vector2i(0, 0));
    }();
    return rig;
}

struct Pair {
    cv::Mat left = cv::Mat(Height, Width, CV_8UC1);
    cv::Mat right = cv::Mat(Height, Width, CV_8UC1);
};

Pair speckle_pair() {
    Pair pair;
    cv::RNG random(1);
    random.fill(pair.left, cv::RNG::UNIFORM, 0, 256);
    random.fill(pair.right, cv::RNG::UNIFORM, 0, 256);
    return pair;
}

void count_pixels(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * 2 * Width * Height);
}

void remap_to_bytes(benchmark::State& state) {
    const Pair raw = speckle_pair();
    Pair rectified;
    for (auto _ : state)
        calibration().remap_image_LR(raw.left.data, raw.right.data, rectified.left.data, rectified.right.data);
    count_pixels(state);
}

void remap_to_floats(benchmark::State& state) {
    const Pair raw = speckle_pair();
    std::vector<float> left(Width * Height), right(Width * Height);
    for (auto _ : state) calibration().remap_image_LR(raw.left.data, raw.right.data, left.data(), right.data());
    count_pixels(state);
}

/// cv::remap with the maps as two float matrices, or as one of interleaved pairs.
void opencv_remap(benchmark::State& state) {
    const Pair raw = speckle_pair();
    Pair rectified;
    const cv::Mat left(Height, Width, CV_32FC2, const_cast<float*>(calibration().get_left_map()));
    const cv::Mat right(Height, Width, CV_32FC2, const_cast<float*>(calibration().get_right_map()));
    cv::Mat leftXY[2], rightXY[2];
    cv::split(left, leftXY);
    cv::split(right, rightXY);
    const bool interleaved = state.range(0) != 0;
    for (auto _ : state) {
        cv::remap(raw.left, rectified.left, interleaved ? left : leftXY[0], interleaved ? cv::Mat() : leftXY[1],
                  cv::INTER_LINEAR);
        cv::remap(raw.right, rectified.right, interleaved ? right : rightXY[0], interleaved ? cv::Mat() : rightXY[1],
                  cv::INTER_LINEAR);
    }
    count_pixels(state);
}

BENCHMARK(remap_to_bytes)->Apply(timed_as_a_whole);
BENCHMARK(remap_to_floats)->Apply(timed_as_a_whole);
BENCHMARK(opencv_remap)->ArgName("interleaved")->Arg(0)->Arg(1)->Apply(timed_as_a_whole);

}  // namespace

BENCHMARK_MAIN();
