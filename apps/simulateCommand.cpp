// vexel-scan simulate: the virtual world writes a recording.
#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>

#include "apps/Progress.h"
#include "apps/commands.h"
#include "apps/numberOptions.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "recording/Recording.h"
#include "simulation/NoiseModel.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"

namespace VexelAlgorithm::Apps {
namespace {

/// What the command line says; lengths in mm.
struct SimulateOptions {
    std::string folder;
    std::string scene = "owl_on_table";
    int frames = 40;
    std::uint64_t seed = 1;
    bool hasNoise = false;
    double distance = 400.0;
    int width = 640;
    int height = 480;
};

/// About as wide as the common depth cameras: 57 degrees.
CameraInParam camera_of(const SimulateOptions& options) {
    const double focalLength = 0.914 * options.width;
    return {focalLength, focalLength, 0.5 * (options.width - 1), 0.5 * (options.height - 1)};
}

/// Two turns around the object that climb from a low to a high view.
std::vector<RigidMatrix> camera_path(const SimulateOptions& options) {
    Simulation::Orbit orbit;
    orbit.target = Simulation::owl_centre();
    orbit.radius = options.distance;
    orbit.turns = 2.0;
    orbit.startElevation = 8.0;
    orbit.endElevation = 60.0;
    return Simulation::orbit_poses(orbit, options.frames);
}

DepthImage depth_image_of(const PointImage& frame) {
    DepthImage image{frame.get_image_width(), frame.get_image_height(), {}};
    image.millimetres.reserve(frame.get_vn());
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        const float z = frame.has_point(i) ? std::round(frame.get_vCoord(i).z()) : 0.0f;
        image.millimetres.push_back(z > 0.0f && z < 65535.0f ? static_cast<std::uint16_t>(z) : std::uint16_t{0});
    }
    return image;
}

int run_simulate(const SimulateOptions& options) {
    const CameraInParam camera = camera_of(options);
    Outcome<RecordingWriter> writer = RecordingWriter::create(options.folder, camera);
    if (!writer) return report_failure(writer.failure());

    const Simulation::ShapePtr scene = Simulation::make_scene(options.scene);
    Simulation::RenderSettings settings;
    settings.threads = default_thread_number();
    settings.farLimit = 1.2 * options.distance;  // a scanner's working range
    Simulation::NoiseModel noise;
    noise.seed = options.seed;

    Progress progress("rendering", options.frames);
    int number = 0;
    for (const RigidMatrix& pose : camera_path(options)) {
        PointImage frame = Simulation::render(*scene, camera, options.width, options.height, pose, settings);
        if (options.hasNoise)
            Simulation::apply_noise(frame, noise, static_cast<std::uint64_t>(number), settings.threads);
        const Outcome<Done> written = writer->write_frame(number, depth_image_of(frame), pose);
        if (!written) return report_failure(written.failure());
        ++number;
        progress.advance();
    }
    print_line(format_text("Recording of %d frames: ", number) + options.folder);
    return EXIT_OK;
}

}  // namespace

void add_simulate_command(CLI::App& app, Command& chosen) {
    CLI::App* command = app.add_subcommand("simulate", "Writes a recording of a virtual scene with its true poses.");
    const auto options = std::make_shared<SimulateOptions>();
    command->add_option("DIR", options->folder, "Folder for the recording; it must hold none yet")->required();
    command->add_option("--scene", options->scene, "What is scanned")
        ->check(CLI::IsMember(Simulation::scene_names()))
        ->capture_default_str();
    command->add_option("--frames", options->frames, "Number of frames on two turns around the object")
        ->check(number_between(1, 100000))
        ->capture_default_str();
    command->add_option("--distance", options->distance, "Distance of the camera from the object in mm")
        ->check(number_between(50, 5000))
        ->capture_default_str();
    command->add_option("--width", options->width, "Pixels of a row")
        ->check(number_between(16, 8192))
        ->capture_default_str();
    command->add_option("--height", options->height, "Pixel rows")
        ->check(number_between(16, 8192))
        ->capture_default_str();
    command->add_flag("--noise", options->hasNoise, "Adds the measurement errors of a good scanner");
    command->add_option("--seed", options->seed, "Seed of the noise")->capture_default_str();
    command->callback([options, &chosen] { chosen = [options] { return run_simulate(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
