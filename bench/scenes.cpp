#include "bench/scenes.h"

#include <cstdlib>
#include <filesystem>

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "recording/selectFrames.h"
#include "simulation/NoiseModel.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"

namespace VexelBench {

using namespace VexelAlgorithm;

namespace {

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

}  // namespace

OfficeRecording::OfficeRecording(Recording recording, int sampling)
    : _recording(std::move(recording)), _sampling(sampling), _camera(_recording.camera().scaled_down(sampling)) {}

std::optional<OfficeRecording> OfficeRecording::open(ImageSize size) {
    const char* folder = std::getenv("VEXEL_RECORDINGS");
    if (folder == nullptr) return std::nullopt;
    Outcome<Recording> recording =
        Recording::open(std::filesystem::path(folder) / "office_depth", PosePolicy::Required);
    if (!recording) {
        print_line(recording.failure().reason);
        return std::nullopt;
    }
    const int sampling = recording->image_size().width / size.width;
    return OfficeRecording(std::move(*recording), sampling);
}

std::vector<RecordedFrame> OfficeRecording::frames(int first, int last) const {
    return select_frames(_recording.frames(), first, last, 1);
}

std::optional<DepthImage> OfficeRecording::depth(const RecordedFrame& recorded) const {
    const Outcome<DepthImage> depth = read_depth_png(recorded.depthFile, 1.0);
    if (!depth) return std::nullopt;
    return every_nth_pixel(*depth, _sampling);
}

ObjectWalk::ObjectWalk(ImageSize size) : _size(size), _scene(Simulation::make_scene("owl_on_table")) {
    const double focalLength = 1.4 * size.width;
    _camera.set_param(focalLength, focalLength, 0.5 * size.width - 0.5, 0.5 * size.height - 0.5);
    Simulation::Orbit walk;
    walk.target = Simulation::owl_centre();
    _poses = Simulation::orbit_poses(walk, 100);
}

PointImage ObjectWalk::view(std::size_t step, std::size_t noiseSeed) const {
    Simulation::RenderSettings settings;
    settings.threads = default_thread_number();
    PointImage frame = Simulation::render(*_scene, _camera, _size.width, _size.height, _poses[step], settings);
    Simulation::apply_noise(frame, {}, noiseSeed, settings.threads);
    frame.find_egde_point(3, 3.0f, 50);
    frame.delete_point_flaged(Vector3f::Zero());
    return frame;
}

}  // namespace VexelBench
