#include "bench/kinfuVolumes.h"

#include <algorithm>
#include <limits>
#include <map>
#include <opencv2/core.hpp>
#include <tuple>

#include "bench/Stopwatch.h"
#include "bench/kinfu.h"
#include "bench/metricPoses.h"
#include "bench/runBenchmarks.h"

namespace VexelBench {
namespace {

using namespace VexelAlgorithm;
using cv::kinfu::Volume;
using cv::kinfu::VolumeType;

constexpr auto MetresPerMm = static_cast<float>(MetresPerMillimetre);
constexpr float DepthUnitsPerMetre = 1000.0f;
constexpr float BoxMargin = 0.1f;  // m
constexpr double MiB = 1024.0 * 1024.0;

/// One frame as these volumes take it: 32-bit depths in millimetres, poses and points in metres.
struct KinfuFrame {
    cv::Mat depth;
    cv::Matx44f cameraToModel;
};

struct KinfuSequence {
    std::vector<KinfuFrame> frames;
    cv::kinfu::Intr camera;
    cv::Size imageSize;
    cv::Vec3f low, high;  // m, box of all points
};

cv::Mat depth_matrix(const DepthImage& image) {
    cv::Mat depth(image.height, image.width, CV_32FC1);
    std::copy(image.millimetres.begin(), image.millimetres.end(), depth.begin<float>());
    return depth;
}

KinfuSequence convert(const Sequence& sequence) {
    constexpr float Infinity = std::numeric_limits<float>::infinity();
    KinfuSequence converted;
    converted.camera = kinfu_camera(sequence.view().frame.get_camPar());
    converted.imageSize = {sequence.depths.front().width, sequence.depths.front().height};
    Vector3f low = Vector3f::Constant(Infinity), high = -low;
    for (std::size_t i = 0; i < sequence.frames.size(); ++i) {
        const PosedFrame& posed = sequence.frames[i];
        converted.frames.push_back({depth_matrix(sequence.depths[i]), metric_pose(posed.cameraToModel)});
        for (std::size_t slot = 0; slot < posed.frame.get_vn(); ++slot) {
            if (!posed.frame.has_point(slot)) continue;
            const Vector3f point = posed.cameraToModel * posed.frame.get_vCoord(slot);
            low = low.cwiseMin(point);
            high = high.cwiseMax(point);
        }
    }
    for (int axis = 0; axis < 3; ++axis) {
        converted.low[axis] = low[axis] * MetresPerMm - BoxMargin;
        converted.high[axis] = high[axis] * MetresPerMm + BoxMargin;
    }
    return converted;
}

const KinfuSequence& converted_once(const Sequence& sequence) {
    static const KinfuSequence converted = convert(sequence);
    return converted;
}

void integrate(Volume& volume, const KinfuSequence& sequence, int number) {
    const KinfuFrame& frame = sequence.frames[static_cast<std::size_t>(number)];
    volume.integrate(frame.depth, DepthUnitsPerMetre, frame.cameraToModel, sequence.camera, number);
}

struct PeerSettings {
    VolumeType type;
    float truncationVoxels;
    int threads;

    bool operator<(const PeerSettings& other) const {
        return std::tie(type, truncationVoxels, threads) < std::tie(other.type, other.truncationVoxels, other.threads);
    }
};

cv::Ptr<Volume> make_volume(const Sequence& sequence, const KinfuSequence& converted, const PeerSettings& settings) {
    const float voxelSize = sequence.pointDis * MetresPerMm;
    return settings.type == VolumeType::TSDF
               ? make_dense_volume(voxelSize, settings.truncationVoxels, converted.low, converted.high)
               : make_hashed_volume(voxelSize, settings.truncationVoxels);
}

// Integrating takes these volumes long, so the raycast renders what the integration left.
cv::Ptr<Volume>& kept_volume(const PeerSettings& settings) {
    static std::map<PeerSettings, cv::Ptr<Volume>> volumes;
    return volumes[settings];
}

void kinfu_integration(benchmark::State& state, const Sequence* (*source)(), PeerSettings settings) {
    const Sequence* sequence = source();
    if (sequence == nullptr) return state.SkipWithError("no frames");
    const KinfuSequence& converted = converted_once(*sequence);
    use_threads(settings.threads);

    TimeSum time;
    double slowest = 0.0;
    std::int64_t residentBytes = 0;
    for (auto _ : state) {
        const std::int64_t before = resident_bytes();
        const cv::Ptr<Volume> volume = make_volume(*sequence, converted, settings);
        TimeSum run;
        for (int i = 0; i < static_cast<int>(converted.frames.size()); ++i) {
            const Stopwatch watch;
            integrate(*volume, converted, i);
            const TimeSum frame = watch.sum();
            slowest = std::max(slowest, frame.wall);
            run += frame;
        }
        state.SetIterationTime(run.wall);
        time += run;
        if (residentBytes == 0) residentBytes = resident_bytes() - before;
        kept_volume(settings) = volume;
    }
    const double frames = static_cast<double>(converted.frames.size()) * static_cast<double>(state.iterations());
    state.counters["ms/frame"] = time.wall / Milli / frames;
    state.counters["cpu_ms/frame"] = time.cpu / Milli / frames;
    state.counters["slowestFrame_ms"] = slowest / Milli;
    state.counters["residentMiB"] = static_cast<double>(residentBytes) / MiB;
}

std::vector<float> depths_in_millimetres(const cv::Mat& points) {
    std::vector<float> depths;
    for (auto point = points.begin<cv::Vec4f>(); point != points.end<cv::Vec4f>(); ++point) {
        depths.push_back((*point)[2] / MetresPerMm);
    }
    return depths;
}

void kinfu_raycast(benchmark::State& state, const Sequence* (*source)(), PeerSettings settings) {
    const Sequence* sequence = source();
    if (sequence == nullptr) return state.SkipWithError("no frames");
    const KinfuSequence& converted = converted_once(*sequence);
    use_threads(settings.threads);
    cv::Ptr<Volume>& volume = kept_volume(settings);
    if (volume == nullptr) {
        volume = make_volume(*sequence, converted, settings);
        for (int i = 0; i < static_cast<int>(converted.frames.size()); ++i) integrate(*volume, converted, i);
    }

    cv::Mat points, normals;
    TimeSum time;
    for (auto _ : state) {
        const Stopwatch watch;
        volume->raycast(metric_pose(sequence->view().cameraToModel), converted.camera, converted.imageSize, points,
                        normals);
        const TimeSum run = watch.sum();
        state.SetIterationTime(run.wall);
        time += run;
    }
    const std::vector<float> depths = depths_in_millimetres(points);
    const DepthAgreement agreement = compare_depths(depths, depths_of(sequence->view().frame));
    state.counters["cpu_ms"] = time.cpu / Milli / static_cast<double>(state.iterations());
    state.counters["rays/s"] = benchmark::Counter(static_cast<double>(converted.imageSize.area()),
                                                  benchmark::Counter::kIsIterationInvariantRate);
    state.counters["hits"] =
        static_cast<double>(std::count_if(depths.begin(), depths.end(), [](float z) { return z > 0; }));
    state.counters["coverage"] = agreement.coverage;
    state.counters["medianError_mm"] = agreement.medianError;
    if (!agreement.is_same_surface(sequence->pointDis)) state.SkipWithError("the view does not show the surface");
}

}  // namespace

void add_kinfu_volumes(const std::string& data, const Sequence* (*source)()) {
    constexpr float NarrowTruncation = 3.0f;  // voxels
    const struct {
        const char* name;
        PeerSettings settings;
    } peers[] = {{"kinfuHashTsdf", {VolumeType::HASHTSDF, DefaultTruncation, 2}},
                 {"kinfuHashTsdf", {VolumeType::HASHTSDF, NarrowTruncation, 2}},
                 {"kinfuTsdf", {VolumeType::TSDF, DefaultTruncation, 2}}};
    for (const auto& peer : peers) {
        const std::string suffix = std::string("/") + peer.name + "/" + data +
                                   "/truncation:" + std::to_string(static_cast<int>(peer.settings.truncationVoxels)) +
                                   "/threads:" + std::to_string(peer.settings.threads);
        add("integration" + suffix, kinfu_integration, source, peer.settings);
        add("raycast" + suffix, kinfu_raycast, source, peer.settings);
    }
}

}  // namespace VexelBench
