#include "bench/fastIcp.h"

#include <opencv2/core.hpp>
#include <opencv2/rgbd/depth.hpp>

#include "bench/Stopwatch.h"

namespace VexelBench {
namespace {

using namespace VexelAlgorithm;
using cv::rgbd::FastICPOdometry;
using cv::rgbd::OdometryFrame;

constexpr double MetresPerMillimetre = 1e-3, Milli = 1e-3;

cv::Mat metric_depth(const DepthImage& image) {
    cv::Mat depth(image.height, image.width, CV_32FC1);
    for (std::size_t i = 0; i < image.millimetres.size(); ++i) {
        depth.ptr<float>()[i] = static_cast<float>(image.millimetres[i] * MetresPerMillimetre);
    }
    return depth;
}

cv::Ptr<OdometryFrame> odometry_frame(const DepthImage& image) {
    const cv::Mat depth = metric_depth(image);
    return OdometryFrame::create(cv::Mat(), depth, cv::Mat(), cv::Mat());
}

cv::Mat camera_matrix(const CameraInParam& camera) {
    const cv::Matx33f matrix(static_cast<float>(camera.get_fx()), 0, static_cast<float>(camera.get_cx()), 0,
                             static_cast<float>(camera.get_fy()), static_cast<float>(camera.get_cy()), 0, 0, 1);
    return cv::Mat(matrix).clone();
}

RigidMatrix pose_of(const cv::Mat& matrix) {
    const cv::Matx44d metric = matrix;
    RigidMatrix pose;
    Matrix3d rotation;
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) rotation(row, column) = metric(row, column);
        pose.get_translation()[row] = metric(row, 3) / MetresPerMillimetre;
    }
    pose.set_rotation(rotation);
    return pose;
}

}  // namespace

void fast_icp_odometry(benchmark::State& state, FramePairsSource source, ImageSize size) {
    const FramePairs* pairs = source(size);
    if (pairs == nullptr) return state.SkipWithError("no frames");
    const auto odometry = FastICPOdometry::create(camera_matrix(pairs->pairs.front().fixed.get_camPar()));
    std::vector<double> errors;
    TimeSum time;
    std::size_t next = 0;
    for (auto _ : state) {
        const FramePair& pair = pairs->pairs[next++ % pairs->pairs.size()];
        cv::Ptr<OdometryFrame> fixed = odometry_frame(pair.fixedDepth), moving = odometry_frame(pair.movingDepth);
        odometry->prepareFrameCache(fixed, OdometryFrame::CACHE_DST);
        cv::Mat movingToFixed;
        const Stopwatch watch;
        if (!odometry->compute(moving, fixed, movingToFixed)) return state.SkipWithError("a pair was not registered");
        const TimeSum run = watch.sum();
        state.SetIterationTime(run.wall);
        time += run;
        errors.push_back(rms_distance(pair.moving, pose_of(movingToFixed), pair.movingToFixed));
    }
    state.counters["cpu_ms"] = time.cpu / Milli / static_cast<double>(state.iterations());
    state.counters["medianError_mm"] = median(errors);
}

}  // namespace VexelBench
