#include "bench/fastIcp.h"

#include <opencv2/core.hpp>
#include <opencv2/rgbd/depth.hpp>

#include "bench/Stopwatch.h"
#include "bench/metricPoses.h"

namespace VexelBench {
namespace {

using namespace VexelAlgorithm;
using cv::rgbd::FastICPOdometry;
using cv::rgbd::OdometryFrame;

cv::Ptr<OdometryFrame> odometry_frame(const DepthImage& image) {
    const cv::Mat depth = metric_depth(image);
    return OdometryFrame::create(cv::Mat(), depth, cv::Mat(), cv::Mat());
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
