#include "bench/sessionData.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <utility>

#include "bench/trackingData.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "recording/Recording.h"
#include "recording/selectFrames.h"
#include "simulation/NoiseModel.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"

namespace VexelBench {

using namespace VexelAlgorithm;

namespace {

using ScansBySize = std::map<std::pair<int, int>, ScanSequence>;

/// What failed once is not tried again.
template <class Make>
const ScanSequence* made_once(ScansBySize& kept, ImageSize size, const Make& make) {
    const auto key = std::make_pair(size.width, size.height);
    if (kept.count(key) == 0) kept[key] = make(size);
    return kept[key].frames.empty() ? nullptr : &kept[key];
}

ScanSequence read_office(ImageSize size) {
    ScanSequence office;
    const char* folder = std::getenv("VEXEL_RECORDINGS");
    if (folder == nullptr) return office;
    const auto recording = Recording::open(std::filesystem::path(folder) / "office_depth", PosePolicy::Required);
    if (!recording) {
        print_line(recording.failure().reason);
        return office;
    }
    const int sampling = recording->image_size().width / size.width;
    office.settings = Apps::preset_settings("room");
    office.settings.common.imageSize = {size.width, size.height};
    office.settings.common.campar = recording->camera().scaled_down(sampling);
    for (const RecordedFrame& recorded : select_frames(recording->frames(), 0, 59, 1)) {
        const Outcome<DepthImage> depth = read_depth_png(recorded.depthFile, 1.0);
        if (!depth) return {};
        ScanFrame scanned;
        scanned.depth = every_nth_pixel(*depth, sampling);
        scanned.frame = depth_frame_to_point_image(scanned.depth, office.settings.common.campar, office.settings.frame,
                                                   default_thread_number());
        scanned.cameraToWorld = *recorded.cameraToWorld;
        office.frames.push_back(std::move(scanned));
    }
    return office;
}

constexpr std::size_t OrbitSteps = 100;

/// Views of the demo object from steps around it, one for each seed of the noise.
ScanSequence render_object(ImageSize size, const std::vector<std::size_t>& steps) {
    const Simulation::ShapePtr scene = Simulation::make_scene("owl_on_table");
    const double focalLength = 1.4 * size.width;
    const CameraInParam camera(focalLength, focalLength, 0.5 * size.width - 0.5, 0.5 * size.height - 0.5);
    Simulation::Orbit walk;
    walk.target = Simulation::owl_centre();
    const std::vector<RigidMatrix> poses = Simulation::orbit_poses(walk, OrbitSteps);
    Simulation::RenderSettings settings;
    settings.threads = default_thread_number();

    ScanSequence rendered;
    rendered.settings = Apps::preset_settings("object");
    rendered.settings.common.imageSize = {size.width, size.height};
    rendered.settings.common.campar = camera;
    for (std::size_t seed = 0; seed < steps.size(); ++seed) {
        ScanFrame scanned;
        scanned.cameraToWorld = poses[steps[seed]];
        scanned.frame = Simulation::render(*scene, camera, size.width, size.height, scanned.cameraToWorld, settings);
        Simulation::apply_noise(scanned.frame, {}, seed, settings.threads);
        scanned.frame.find_egde_point(3, 3.0f, 50);
        scanned.frame.delete_point_flaged(Vector3f::Zero());
        rendered.frames.push_back(std::move(scanned));
    }
    return rendered;
}

}  // namespace

const ScanSequence* office_scan(ImageSize size) {
    static ScansBySize kept;
    return made_once(kept, size, read_office);
}

const ScanSequence* rendered_scan(ImageSize size) {
    static ScansBySize kept;
    return made_once(kept, size, [](ImageSize wanted) {
        std::vector<std::size_t> steps(40);
        for (std::size_t i = 0; i < steps.size(); ++i) steps[i] = i;
        return render_object(wanted, steps);
    });
}

const ScanSequence* still_scan(ImageSize size) {
    static ScansBySize kept;
    return made_once(kept, size,
                     [](ImageSize wanted) { return render_object(wanted, std::vector<std::size_t>(8, 0)); });
}

double trajectory_error(const ScanSequence& sequence, const std::vector<RigidMatrix>& cameraToFirst) {
    const RigidMatrix worldToFirst = sequence.frames.front().cameraToWorld.inverse();
    double sum = 0.0;
    for (std::size_t i = 0; i < cameraToFirst.size(); ++i) {
        const RigidMatrix truth = worldToFirst * sequence.frames[i].cameraToWorld;
        sum += (cameraToFirst[i].get_translation() - truth.get_translation()).squaredNorm();
    }
    return cameraToFirst.empty() ? 0.0 : std::sqrt(sum / static_cast<double>(cameraToFirst.size()));
}

}  // namespace VexelBench
