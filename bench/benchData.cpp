#include "bench/benchData.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>

#ifdef __linux__
#    include <unistd.h>
#endif

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "recording/Recording.h"
#include "recording/pointImageFromDepth.h"
#include "recording/selectFrames.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"

namespace VexelBench {

using namespace VexelAlgorithm;

namespace {

constexpr float ConeHalfWidth = 0.5f;
constexpr int FusionRange = 5;

std::filesystem::path office_folder() {
    const char* folder = std::getenv("VEXEL_RECORDINGS");
    return folder == nullptr ? std::filesystem::path() : std::filesystem::path(folder) / "office_depth";
}

// Every measured pixel counts, so that all volumes of the comparison get the same amount of work.
DepthFrameSettings keep_every_pixel() {
    DepthFrameSettings settings;
    settings.edgeMargin = 0;
    settings.smallestIsland = 0;
    return settings;
}

Sequence read_office() {
    const Outcome<Recording> recording = Recording::open(office_folder(), PosePolicy::Required);
    if (!recording) throw std::runtime_error(recording.failure().reason);

    Sequence sequence;
    sequence.name = "office";
    sequence.pointDis = 5.0f;
    sequence.nearFar = {400.0f, 4000.0f};
    for (const RecordedFrame& recorded : select_frames(recording->frames(), 0, 118, 2)) {
        Outcome<DepthImage> depth = read_depth(recorded);
        if (!depth) throw std::runtime_error(depth.failure().reason);
        PointImage frame =
            depth_frame_to_point_image(*depth, recording->camera(), keep_every_pixel(), default_thread_number());
        sequence.pointCount += static_cast<std::size_t>(frame.count_vaildNum());
        sequence.frames.push_back({std::move(frame), *recorded.cameraToWorld});
        sequence.depths.push_back(std::move(*depth));
    }
    if (sequence.frames.empty()) throw std::runtime_error("office_depth holds none of the frames 0, 2, .., 118");
    return sequence;
}

Sequence render_object() {
    const Simulation::ShapePtr object = Simulation::owl_on_books();
    const CameraInParam camera(900.0, 900.0, 319.5, 239.5);
    Simulation::Orbit walk;
    walk.target = Simulation::owl_centre();
    Simulation::RenderSettings settings;
    settings.threads = default_thread_number();

    Sequence sequence;
    sequence.name = "rendered";
    sequence.pointDis = 0.5f;
    sequence.treeDepth = 12;
    sequence.nearFar = {200.0f, 800.0f};
    for (const RigidMatrix& pose : Simulation::orbit_poses(walk, 60)) {
        PointImage frame = Simulation::render(*object, camera, 640, 480, pose, settings);
        sequence.pointCount += static_cast<std::size_t>(frame.count_vaildNum());
        sequence.frames.push_back({std::move(frame), pose});
    }
    return sequence;
}

}  // namespace

bool has_recordings() {
    std::error_code error;
    return std::filesystem::is_directory(office_folder(), error);
}

const Sequence* office_recording() {
    static const std::optional<Sequence> office = []() -> std::optional<Sequence> {
        try {
            return read_office();
        } catch (const std::exception& failure) {
            print_line(failure.what());
            return std::nullopt;
        }
    }();
    return office ? &*office : nullptr;
}

const Sequence* rendered_object() {
    static const Sequence rendered = render_object();
    return &rendered;
}

std::unique_ptr<Volume> empty_volume(const Sequence& sequence, int threads) {
    return std::make_unique<Volume>(sequence.treeDepth, sequence.pointDis, ConeHalfWidth, FusionRange, threads, "");
}

void integrate(Volume& volume, const PosedFrame& posed, Fusion::ChangedLeaves& changed) {
    if (!volume.fusion_one_frame_speckle_parallel(posed.frame, posed.cameraToModel, changed, true, false, nullptr)) {
        throw std::runtime_error("the volume refused a frame");
    }
}

Volume& fused_volume(const Sequence& sequence) {
    static std::map<std::string, std::unique_ptr<Volume>> volumes;
    std::unique_ptr<Volume>& volume = volumes[sequence.name];
    if (volume == nullptr) {
        volume = empty_volume(sequence, default_thread_number());
        Fusion::ChangedLeaves changed;
        for (const PosedFrame& posed : sequence.frames) integrate(*volume, posed, changed);
    }
    return *volume;
}

LeafCounts count_leaves(const Volume& volume) {
    LeafCounts counts;
    for (std::int32_t leaf = 0; leaf < volume.get_vaild_leaf_num(); ++leaf) {
        const Leaf& record = volume.get_fusion_tree().leaf_at(leaf);
        if (!record.is_used()) continue;
        ++counts.used;
        counts.contributions += record.count();
    }
    return counts;
}

std::int64_t handed_out_bytes(const Volume& volume) {
    constexpr std::int64_t entryBytes = sizeof(VexelOctree::ChildEntry), coordinateBytes = sizeof(std::uint64_t);
    const auto& tree = volume.get_fusion_tree();
    std::int64_t octets = tree.top_tree().get_octet_count(), bytes = 0;
    for (int level = 0; level < tree.get_level_count(); ++level) {
        bytes += octets * 8 * entryBytes;
        octets = tree.level(level).octets.load();
    }
    return bytes + octets * (8 * static_cast<std::int64_t>(sizeof(Leaf)) + coordinateBytes);
}

std::int64_t resident_bytes() {
#ifdef __linux__
    std::int64_t total = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE);
#else
    return 0;
#endif
}

DepthAgreement compare_depths(const std::vector<float>& rendered, const std::vector<float>& measured) {
    std::vector<float> errors;
    std::size_t measuredCount = 0;
    for (std::size_t i = 0; i < std::min(rendered.size(), measured.size()); ++i) {
        if (!(measured[i] > 0.0f)) continue;
        ++measuredCount;
        if (rendered[i] > 0.0f) errors.push_back(std::abs(rendered[i] - measured[i]));
    }
    if (errors.empty()) return {};
    const auto middle = errors.begin() + static_cast<std::ptrdiff_t>(errors.size() / 2);
    std::nth_element(errors.begin(), middle, errors.end());
    return {static_cast<double>(errors.size()) / static_cast<double>(measuredCount), *middle};
}

std::vector<float> depths_of(const PointImage& frame) {
    std::vector<float> depths;
    depths.reserve(frame.get_vn());
    for (std::size_t i = 0; i < frame.get_vn(); ++i) depths.push_back(frame.has_point(i) ? frame.get_vCoord(i).z() : 0);
    return depths;
}

}  // namespace VexelBench
