#include "bench/trackingData.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "bench/scenes.h"
#include "foundation/parallel.h"
#include "recording/pointImageFromDepth.h"

namespace VexelBench {

using namespace VexelAlgorithm;

namespace {

constexpr int PairCount = 12;

std::optional<FramePairs> read_office(ImageSize size) {
    const std::optional<OfficeRecording> recording = OfficeRecording::open(size);
    if (!recording) return std::nullopt;
    FramePairs office;
    const std::vector<RecordedFrame> frames = recording->frames(0, 120);
    for (std::size_t i = 0; i + 1 < frames.size(); i += frames.size() / PairCount) {
        FramePair pair;
        pair.fixedDepth = recording->depth(frames[i]).value_or(DepthImage());
        pair.movingDepth = recording->depth(frames[i + 1]).value_or(DepthImage());
        pair.fixed = depth_frame_to_point_image(pair.fixedDepth, recording->camera(), {}, default_thread_number());
        pair.moving = depth_frame_to_point_image(pair.movingDepth, recording->camera(), {}, default_thread_number());
        pair.movingToFixed = frames[i].cameraToWorld->inverse() * *frames[i + 1].cameraToWorld;
        office.pairs.push_back(std::move(pair));
    }
    if (office.pairs.empty()) return std::nullopt;
    office.settings.icpDis = {20.0f, 100.0f};
    office.settings.disAvgThread = 20.0f;
    return office;
}

DepthImage depth_of(const PointImage& frame) {
    DepthImage depth;
    depth.width = frame.get_image_width();
    depth.height = frame.get_image_height();
    for (const Vector3f& point : frame.get_vCoords()) depth.millimetres.push_back(point.z());
    return depth;
}

FramePairs render_walk(ImageSize size) {
    const ObjectWalk walk(size);
    FramePairs rendered;
    for (int i = 0; i < PairCount; ++i) {
        const std::size_t first = static_cast<std::size_t>(i) * walk.poses().size() / PairCount;
        FramePair pair;
        pair.fixed = walk.view(first, first);
        pair.moving = walk.view(first + 1, first + 1);
        pair.fixedDepth = depth_of(pair.fixed);
        pair.movingDepth = depth_of(pair.moving);
        pair.movingToFixed = walk.poses()[first].inverse() * walk.poses()[first + 1];
        rendered.pairs.push_back(std::move(pair));
    }
    rendered.settings.iterNumFixed = 12;
    rendered.settings.iterNum = 26;
    rendered.settings.icpDis = {1.0f, 20.0f};
    rendered.settings.disAvgThread = 0.5f;
    return rendered;
}

}  // namespace

const FramePairs* office_pairs(ImageSize size) {
    static MadeBySize<FramePairs> kept;
    return kept.get(size, read_office);
}

const FramePairs* rendered_pairs(ImageSize size) {
    static MadeBySize<FramePairs> kept;
    return kept.get(size, render_walk);
}

double rms_distance(const PointImage& frame, const RigidMatrix& one, const RigidMatrix& other) {
    double sum = 0.0;
    int count = 0;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (!frame.has_point(i)) continue;
        const Vector3d point = frame.get_vCoord(i).cast<double>();
        sum += (one * point - other * point).squaredNorm();
        ++count;
    }
    return count > 0 ? std::sqrt(sum / count) : 0.0;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0.0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace VexelBench
