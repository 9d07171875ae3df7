#include "bench/trackingData.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <utility>

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "recording/Recording.h"
#include "recording/pointImageFromDepth.h"
#include "recording/selectFrames.h"
#include "simulation/NoiseModel.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"

namespace VexelBench {

using namespace VexelAlgorithm;

namespace {

constexpr int PairCount = 12;

/// Pairs by image size; what failed once is not tried again.
using PairsBySize = std::map<std::pair<int, int>, FramePairs>;

template <class Make>
const FramePairs* made_once(PairsBySize& kept, ImageSize size, const Make& make) {
    const auto key = std::make_pair(size.width, size.height);
    if (kept.count(key) == 0) kept[key] = make(size);
    return kept[key].pairs.empty() ? nullptr : &kept[key];
}

FramePairs read_office(ImageSize size) {
    FramePairs office;
    const char* folder = std::getenv("VEXEL_RECORDINGS");
    if (folder == nullptr) return office;
    const auto recording = Recording::open(std::filesystem::path(folder) / "office_depth", PosePolicy::Required);
    if (!recording) {
        print_line(recording.failure().reason);
        return office;
    }
    const int sampling = recording->image_size().width / size.width;
    const CameraInParam camera = recording->camera().scaled_down(sampling);
    const auto read = [&](const RecordedFrame& recorded) {
        const Outcome<DepthImage> depth = read_depth_png(recorded.depthFile, 1.0);
        return depth ? every_nth_pixel(*depth, sampling) : DepthImage();
    };
    const std::vector<RecordedFrame> frames = select_frames(recording->frames(), 0, 120, 1);
    for (std::size_t i = 0; i + 1 < frames.size(); i += frames.size() / PairCount) {
        FramePair pair;
        pair.fixedDepth = read(frames[i]);
        pair.movingDepth = read(frames[i + 1]);
        pair.fixed = depth_frame_to_point_image(pair.fixedDepth, camera, {}, default_thread_number());
        pair.moving = depth_frame_to_point_image(pair.movingDepth, camera, {}, default_thread_number());
        pair.movingToFixed = frames[i].cameraToWorld->inverse() * *frames[i + 1].cameraToWorld;
        office.pairs.push_back(std::move(pair));
    }
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
    const Simulation::ShapePtr scene = Simulation::make_scene("owl_on_table");
    const double focalLength = 1.4 * size.width;
    const CameraInParam camera(focalLength, focalLength, 0.5 * size.width - 0.5, 0.5 * size.height - 0.5);
    Simulation::Orbit walk;
    walk.target = Simulation::owl_centre();
    Simulation::RenderSettings settings;
    settings.threads = default_thread_number();
    const std::vector<RigidMatrix> poses = Simulation::orbit_poses(walk, 100);

    FramePairs rendered;
    const auto view = [&](std::size_t i) {
        PointImage frame = Simulation::render(*scene, camera, size.width, size.height, poses[i], settings);
        Simulation::apply_noise(frame, {}, i, settings.threads);
        frame.find_egde_point(3, 3.0f, 50);
        frame.delete_point_flaged(Vector3f::Zero());
        return frame;
    };
    for (int i = 0; i < PairCount; ++i) {
        const std::size_t first = static_cast<std::size_t>(i) * poses.size() / PairCount;
        FramePair pair;
        pair.fixed = view(first);
        pair.moving = view(first + 1);
        pair.fixedDepth = depth_of(pair.fixed);
        pair.movingDepth = depth_of(pair.moving);
        pair.movingToFixed = poses[first].inverse() * poses[first + 1];
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
    static PairsBySize kept;
    return made_once(kept, size, read_office);
}

const FramePairs* rendered_pairs(ImageSize size) {
    static PairsBySize kept;
    return made_once(kept, size, render_walk);
}

DepthImage every_nth_pixel(const DepthImage& image, int n) {
    DepthImage sampled;
    sampled.width = image.width / n;
    sampled.height = image.height / n;
    sampled.step = image.step;
    for (int y = 0; y < sampled.height; ++y) {
        for (int x = 0; x < sampled.width; ++x) {
            sampled.millimetres.push_back(image.millimetres[static_cast<std::size_t>(y * n) * image.width + x * n]);
        }
    }
    return sampled;
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
