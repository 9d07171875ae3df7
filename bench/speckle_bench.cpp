// Stereo reconstruction of a 1280 x 1024 pair on all processors, stage by stage, beside OpenCV's block and semi-global
// matchers on the same rectified pair and search range, and its remap.
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

#include "SpeckleRebCPU/parallaxFacets.h"
#include "SpeckleRebCPU/pixelMatch.h"
#include "SpeckleRebCPU/speckleRebuild.h"
#include "SpeckleRebCPU/subPixelStep.h"
#include "SpeckleRebCPU/wholeSurfaceFit.h"
#include "bench/runBenchmarks.h"
#include "foundation/parallel.h"
#include "readCaliData/CaliParReadIn.h"
#include "trials/finePair.h"

using namespace VexelAlgorithm;
using VexelBench::timed_as_a_whole;

namespace {

constexpr int Width = 1280;
constexpr int Height = 1024;
constexpr int Candidates = 128;
constexpr int FirstCandidate = -164;  // of c - x
constexpr int Window = 11;

/// Parallax of a wavy, slanted surface; a function of the left pixel.
float true_parallax(float x, float y) {
    return -100.0F + 0.04F * (x - 640.0F) + 8.0F * std::sin(x * 0.01F) * std::cos(y * 0.012F);
}

struct Pair {
    GreyImage left{Width, Height};
    GreyImage right{Width, Height};
};

/// Speckle of some three pixels with camera noise.
const Pair& speckle_pair() {
    static const Pair pair = [] {
        cv::RNG random(1);
        cv::Mat texture(Height, Width, CV_32FC1);
        random.fill(texture, cv::RNG::NORMAL, 0.0, 1.0);
        cv::GaussianBlur(texture, texture, {}, 1.3);
        texture = texture * (40.0 / 0.22) + 110.0;
        cv::Mat mapX(Height, Width, CV_32FC1), mapY(Height, Width, CV_32FC1);
        for (int y = 0; y < Height; ++y)
            for (int c = 0; c < Width; ++c) {
                float x = static_cast<float>(c) + 100.0F;
                for (int i = 0; i < 8; ++i) x = static_cast<float>(c) - true_parallax(x, static_cast<float>(y));
                mapX.at<float>(y, c) = x;
                mapY.at<float>(y, c) = static_cast<float>(y);
            }
        cv::Mat moved, noise(Height, Width, CV_32FC1);
        cv::remap(texture, moved, mapX, mapY, cv::INTER_CUBIC, cv::BORDER_REFLECT);
        Pair made;
        for (auto& [source, target] : {std::pair(&texture, &made.left), std::pair(&moved, &made.right)}) {
            random.fill(noise, cv::RNG::NORMAL, 0.0, 1.5);
            cv::Mat bytes(Height, Width, CV_8UC1, target->data());
            cv::Mat(*source + noise).convertTo(bytes, CV_8UC1);
        }
        return made;
    }();
    return pair;
}

/// The pair's own geometry with some distortion, so that the maps are no copies.
Rebuild::CaliParReadIn distorted_rig() {
    std::vector<float> left{2000, 2000, 639.5F, 511.5F, 0, -0.1F, 0.1F, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::vector<float> right = left;
    right[10] = -20.0F;
    return {left, right, {}, Vector2i(Width, Height), Vector2i::Zero()};
}

void rectification(benchmark::State& state) {
    const Rebuild::CaliParReadIn calibration = distorted_rig();
    GreyImage left(Width, Height), right(Width, Height);
    for (auto _ : state)
        calibration.remap_image_LR(speckle_pair().left.data(), speckle_pair().right.data(), left.data(), right.data());
    state.SetItemsProcessed(state.iterations() * 2 * Width * Height);
    state.SetLabel("pixels");
}

void opencv_remap(benchmark::State& state) {
    const Rebuild::CaliParReadIn calibration = distorted_rig();
    std::vector<cv::Mat> sources, maps, targets;
    for (const auto& [image, map] : {std::pair(&speckle_pair().left, calibration.get_left_map()),
                                     std::pair(&speckle_pair().right, calibration.get_right_map())}) {
        sources.emplace_back(Height, Width, CV_8UC1, const_cast<std::uint8_t*>(image->data()));
        maps.emplace_back(Height, Width, CV_32FC2, const_cast<float*>(map));
        targets.emplace_back(Height, Width, CV_8UC1);
    }
    for (auto _ : state)
        for (std::size_t k = 0; k < 2; ++k) cv::remap(sources[k], targets[k], maps[k], cv::noArray(), cv::INTER_LINEAR);
    state.SetItemsProcessed(state.iterations() * 2 * Width * Height);
    state.SetLabel("pixels");
}

void pixel_matching(benchmark::State& state) {
    const Mask all(Width, Height, 1);
    const Pair& pair = speckle_pair();
    const PixelMatchTask task{pair.left,
                              pair.right,
                              all,
                              all,
                              Window,
                              Window,
                              FirstCandidate,
                              FirstCandidate + Candidates,
                              {0, Width, 0, Height}};
    Raster<float> position, score;
    for (auto _ : state) match_pixels(task, default_thread_number(), position, score);
    state.SetItemsProcessed(state.iterations() * Width * Height * Candidates);
    state.SetLabel("candidates");
}

const FinePair& speckle_fine() {
    static const FinePair pair = VexelTrial::fine_pair(speckle_pair().left, speckle_pair().right);
    return pair;
}

/// Both images, as sub-pixel matching takes them.
void fine_rectification(benchmark::State& state) {
    const Rebuild::CaliParReadIn calibration = distorted_rig();
    FineRectification fine;
    FineImage left(Width, Height), right(Width, Height), spline;
    for (auto _ : state) {
        fine.rectify(speckle_pair().left.data(), calibration.get_left_map(), default_thread_number(), left);
        fine.rectify(speckle_pair().right.data(), calibration.get_right_map(), default_thread_number(), right);
        spline_rows(right, default_thread_number(), spline);
    }
    state.SetItemsProcessed(state.iterations() * 2 * Width * Height);
    state.SetLabel("pixels");
}

/// Sampling 2, the truth moved by a fifth of a pixel.
ParallaxField shifted_field() {
    ParallaxField field;
    field.assign(Width / 2, Height / 2);
    for (int y = 0; y < Height / 2; ++y)
        for (int x = 0; x < Width / 2; ++x)
            field.parallax.at(x, y) = true_parallax(2.0F * static_cast<float>(x), 2.0F * static_cast<float>(y)) + 0.2F;
    fit_facets({2, 1, 1.2F, 0.5F, 0.5F, 0.057F}, 2, default_thread_number(), field);
    return field;
}

/// Points refined once.
void sub_pixel_matching(benchmark::State& state) {
    const Mask all(Width, Height, 1);
    const ParallaxField field = shifted_field();
    const auto window = static_cast<int>(state.range(0));
    const SubPixelTask task{speckle_pair().left, speckle_pair().right, speckle_fine(), all, 2, window, window, 2.1F};
    Raster<float> step, score;
    for (auto _ : state) find_sub_pixel_steps(task, field, default_thread_number(), step, score);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(step.size()));
    state.SetLabel("points");
}

/// Points fitted together, as once in a frame's four fits.
void whole_surface_fit(benchmark::State& state) {
    const Mask all(Width, Height, 1);
    const ParallaxField field = shifted_field();
    const SubPixelTask task{speckle_pair().left, speckle_pair().right, speckle_fine(), all, 2, 13, 13, 2.1F};
    const SurfacePrior prior{2.4F, 0.065F, 0.015F, 2.1F, 1.5F, 0.042F, 20};
    WholeSurfaceFit fit;
    Raster<float> step;
    for (auto _ : state) {
        fit.begin(task.left, default_thread_number());
        fit.find_steps(task, prior, 8.0F, field, default_thread_number(), step);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(step.size()));
    state.SetLabel("points");
}

void whole_frame(benchmark::State& state) {
    RebParam param;
    param.sampleRatio = static_cast<int>(state.range(0));
    param.findRange = {FirstCandidate, FirstCandidate + static_cast<int>(state.range(1)) * param.sampleRatio};
    param.leftCalib = {2000, 2000, 639.5F, 511.5F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    param.rightCalib = param.leftCalib;
    param.rightCalib[10] = -20.0F;
    void* handle = speckle_rebuild_cpu_ini(param);
    PointImage frame;
    frame.ini(Width / param.sampleRatio, Height / param.sampleRatio);
    int timeMs = 0;
    for (auto _ : state)
        run_speckle_rebuild_cpu(handle, speckle_pair().left.data(), speckle_pair().right.data(), frame, timeMs);
    state.counters["filled"] = static_cast<double>(frame.count_vaildNum()) / static_cast<double>(frame.get_vn());
    speckle_rebuild_cpu_release(handle);
}

void run_opencv(benchmark::State& state, cv::StereoMatcher& matcher) {
    const cv::Mat left(Height, Width, CV_8UC1, const_cast<std::uint8_t*>(speckle_pair().left.data()));
    const cv::Mat right(Height, Width, CV_8UC1, const_cast<std::uint8_t*>(speckle_pair().right.data()));
    cv::Mat disparity;
    for (auto _ : state) matcher.compute(left, right, disparity);
    state.SetItemsProcessed(state.iterations() * Width * Height * Candidates);
    state.SetLabel("candidates");
}

constexpr int SmallestDisparity = -(FirstCandidate + Candidates) + 1;

void opencv_block_matching(benchmark::State& state) {
    const cv::Ptr<cv::StereoBM> matcher = cv::StereoBM::create(Candidates, Window);
    matcher->setMinDisparity(SmallestDisparity);
    run_opencv(state, *matcher);
}

void opencv_semi_global_3way(benchmark::State& state) {
    const cv::Ptr<cv::StereoSGBM> matcher = cv::StereoSGBM::create(SmallestDisparity, Candidates, 5, 200, 800, 1, 0, 5,
                                                                   0, 0, cv::StereoSGBM::MODE_SGBM_3WAY);
    run_opencv(state, *matcher);
}

BENCHMARK(rectification)->Apply(timed_as_a_whole);
BENCHMARK(fine_rectification)->Apply(timed_as_a_whole);
BENCHMARK(opencv_remap)->Apply(timed_as_a_whole);
BENCHMARK(pixel_matching)->Apply(timed_as_a_whole);
BENCHMARK(sub_pixel_matching)->ArgName("window")->Arg(25)->Arg(13)->Apply(timed_as_a_whole);
BENCHMARK(whole_surface_fit)->Apply(timed_as_a_whole);
BENCHMARK(whole_frame)->ArgNames({"sample", "candidates"})->Args({2, 128})->Args({1, 128})->Apply(timed_as_a_whole);
BENCHMARK(opencv_block_matching)->Apply(timed_as_a_whole);
BENCHMARK(opencv_semi_global_3way)->Apply(timed_as_a_whole);

}  // namespace

BENCHMARK_MAIN();
