#include "bench/kinfuLoop.h"

#include <opencv2/core.hpp>
#include <opencv2/rgbd/depth.hpp>
#include <vector>

#include "bench/Stopwatch.h"
#include "bench/kinfu.h"
#include "bench/metricPoses.h"

namespace VexelBench {
namespace {

using namespace VexelAlgorithm;
using cv::rgbd::FastICPOdometry;
using cv::rgbd::OdometryFrame;

class KinfuLoop {
public:
    KinfuLoop(const CameraInParam& camera, float pointDis)
        : _intrinsics(kinfu_camera(camera)),
          _odometry(FastICPOdometry::create(camera_matrix(camera))),
          _volume(make_hashed_volume(static_cast<float>(pointDis * MetresPerMillimetre), DefaultTruncation)) {}

    const RigidMatrix& pose() const { return _pose; }

    /// `depth` in metres. False when the odometry finds no pose.
    bool step(const cv::Mat& depth) {
        if (_frameCount > 0 && !track(depth)) return false;
        _volume->integrate(depth, 1.0f, metric_pose(_pose), _intrinsics, _frameCount++);
        render(depth.size());
        return true;
    }

private:
    bool track(const cv::Mat& depth) {
        cv::Ptr<OdometryFrame> seen = OdometryFrame::create(cv::Mat(), depth, cv::Mat(), cv::Mat());
        cv::Ptr<OdometryFrame> model = OdometryFrame::create(cv::Mat(), _modelDepth, cv::Mat(), cv::Mat());
        cv::Mat seenToModel;
        if (!_odometry->compute(seen, model, seenToModel)) return false;
        _pose = _pose * pose_of(seenToModel);
        return true;
    }

    void render(cv::Size size) {
        cv::Mat points, normals;
        _volume->raycast(metric_pose(_pose), _intrinsics, size, points, normals);
        cv::extractChannel(points, _modelDepth, 2);
        cv::patchNaNs(_modelDepth, 0.0);
    }

    cv::kinfu::Intr _intrinsics;
    cv::Ptr<FastICPOdometry> _odometry;
    cv::Ptr<cv::kinfu::Volume> _volume;
    cv::Mat _modelDepth;  // m, from the last pose
    RigidMatrix _pose;    // camera to model, mm
    int _frameCount = 0;
};

}  // namespace

void kinfu_loop(benchmark::State& state, ScanSource source, ImageSize size) {
    const ScanSequence* sequence = source(size);
    if (sequence == nullptr) return state.SkipWithError("no frames");
    use_threads(2);
    std::vector<cv::Mat> depths;
    for (const ScanFrame& scanned : sequence->frames) depths.push_back(metric_depth(scanned.depth));

    TimeSum time;
    std::vector<RigidMatrix> poses;
    for (auto _ : state) {
        KinfuLoop loop(sequence->settings.common.campar, sequence->settings.fusion.pointDis);
        loop.step(depths.front());
        poses.assign(1, loop.pose());
        TimeSum run;
        for (std::size_t i = 1; i < depths.size(); ++i) {
            const Stopwatch watch;
            if (!loop.step(depths[i])) return state.SkipWithError("a frame was lost");
            run += watch.sum();
            poses.push_back(loop.pose());
        }
        state.SetIterationTime(run.wall);
        time += run;
    }
    const double frames = static_cast<double>(depths.size() - 1) * static_cast<double>(state.iterations());
    state.counters["ms/frame"] = time.wall / Milli / frames;
    state.counters["cpu_ms/frame"] = time.cpu / Milli / frames;
    state.counters["frames/s"] = frames / time.wall;
    state.counters["trajectoryError_mm"] = trajectory_error(*sequence, poses);
}

}  // namespace VexelBench
