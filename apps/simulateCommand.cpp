// vexel-scan simulate: the virtual world writes a recording.
#include <cmath>
#include <memory>

#include "apps/Progress.h"
#include "apps/calibrated.h"
#include "apps/commands.h"
#include "apps/meshPlacement.h"
#include "apps/numberOptions.h"
#include "apps/searchRange.h"
#include "apps/settingsFile.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "recording/Recording.h"
#include "recording/StereoRecording.h"
#include "recording/files.h"
#include "simulation/Sequence.h"
#include "simulation/cameraPaths.h"
#include "simulation/primitives.h"
#include "simulation/scenes.h"
#include "simulation/stereoImages.h"

namespace VexelAlgorithm::Apps {
namespace {

/// A hundredth of a millimetre resolves the noise of a good scanner; 16 bits then reach to 655 mm.
constexpr double fineDepthStep = 0.01;

/// What the command line says; lengths in mm. Numbers that a sequence has itself are 0 until they are given.
struct SimulateOptions {
    std::string folder;
    std::string scene = "owl_on_table";
    std::string sequence;
    int frames = 0;
    std::uint64_t seed = 1;
    bool hasNoise = false;
    double distance = 400.0;
    int width = 0;
    int height = 0;
    double depthStep = 0.0;
    bool isStereo = false;
    std::string meshFile;
    MeshPlacement placement;
};

/// Two turns around the object that climb from a low to a high view, seen by a camera about as wide as the common
/// depth cameras: 57 degrees.
Simulation::Sequence two_turns(const SimulateOptions& options, const std::optional<PlacedMesh>& mesh) {
    Simulation::Sequence sequence;
    sequence.name = options.scene;
    sequence.scene = mesh ? mesh->scene : Simulation::make_scene(options.scene);
    sequence.normalWindow = 0.0;  // no pixel is lost for want of neighbours
    sequence.width = options.width > 0 ? options.width : 640;
    sequence.height = options.height > 0 ? options.height : 480;
    const double focalLength = 0.914 * sequence.width;
    sequence.camera = {focalLength, focalLength, 0.5 * (sequence.width - 1), 0.5 * (sequence.height - 1)};
    sequence.farLimit = 1.2 * options.distance;  // a scanner's working range
    Simulation::Orbit orbit;
    orbit.target = mesh ? mesh->centre : Simulation::owl_centre();
    orbit.radius = options.distance;
    orbit.turns = 2.0;
    orbit.startElevation = 8.0;
    orbit.endElevation = 60.0;
    sequence.poses = Simulation::orbit_poses(orbit, options.frames > 0 ? options.frames : 40);
    sequence.isBlack.assign(sequence.poses.size(), 0);
    if (options.hasNoise) {
        sequence.noise.emplace();
        sequence.noise->seed = options.seed;
    }
    return sequence;
}

std::optional<Simulation::Sequence> hand_held(const SimulateOptions& options, const std::optional<PlacedMesh>& mesh) {
    Simulation::SequenceSettings settings;
    settings.frames = options.frames;
    settings.width = options.width > 0 ? options.width : 640;
    settings.height = options.height > 0 ? options.height : 512;
    settings.seed = options.seed;
    if (!options.hasNoise) settings.noiseSigma = 0.0;
    if (mesh) {
        settings.scene = mesh->scene;
        settings.centre = mesh->centre;
    }
    return Simulation::make_sequence(options.sequence, settings);
}

DepthImage depth_image_of(const PointImage& frame) {
    DepthImage image{frame.get_image_width(), frame.get_image_height(), {}};
    image.millimetres.reserve(frame.get_vn());
    for (std::size_t i = 0; i < frame.get_vn(); ++i)
        image.millimetres.push_back(frame.has_point(i) ? frame.get_vCoord(i).z() : 0.0F);
    return image;
}

void print_speed(const Simulation::Sequence& sequence) {
    const Simulation::PathSpeed speed = Simulation::path_speed(sequence.poses);
    print_line(format_text("Speed         mean %.1f mm and %.2f degrees a frame, at most %.1f mm and %.2f degrees",
                           speed.meanTranslation, speed.meanRotation, speed.largestTranslation, speed.largestRotation));
}

/// One line a sequence, for the help.
std::string described_sequences() {
    std::string text = "A hand-held scan instead of two turns:";
    for (const Simulation::SequenceDescription& sequence : Simulation::sequence_descriptions())
        text += format_text("\n%-11s %s (%d frames)", sequence.name.c_str(), sequence.text.c_str(), sequence.frames);
    return text;
}

std::vector<std::string> sequence_names() {
    std::vector<std::string> names;
    for (const Simulation::SequenceDescription& sequence : Simulation::sequence_descriptions())
        names.push_back(sequence.name);
    return names;
}

Simulation::StereoRig rig_of(const SimulateOptions& options) {
    Simulation::StereoRig rig = Simulation::make_stereo_rig(options.width > 0 ? options.width : 1280,
                                                            options.height > 0 ? options.height : 1024);
    rig.sensor.hasNoise = options.hasNoise;
    rig.sensor.seed = options.seed;
    return rig;
}

std::string notes_about(const Simulation::Sequence& sequence, const Simulation::StereoRig& rig) {
    return "Virtual recording of the hand-held scan '" + sequence.name + "'\n" +
           format_text("working range %g to %g mm of depth in the left camera\n", rig.nearLimit, rig.farLimit) +
           format_text("noise %s, seed %llu\n", rig.sensor.hasNoise ? "on" : "off",
                       static_cast<unsigned long long>(rig.sensor.seed));
}

/// The depths are those of everything that the left camera can see. `folder` holds the calibration.
std::string settings_of(const Simulation::StereoRig& rig, const std::filesystem::path& folder) {
    const Rebuild::CaliParReadIn calibration((folder / "calib_left.txt").string(),
                                             (folder / "calib_right.txt").string(), {rig.left.width, rig.left.height});
    ScanSettings settings = preset_settings("desk");
    const Vector2d depths = rectified_depths(calibration, rig.nearLimit, rig.farLimit);
    settings.rig.depthRange = {std::floor(static_cast<float>(depths(0))), std::ceil(static_cast<float>(depths(1)))};
    return rig_settings_text(settings, "The scanner of this recording, for vexel-scan scan");
}

StereoFrame recorded(Simulation::StereoPair&& pair, const RigidMatrix& leftToWorld) {
    StereoFrame frame;
    const int width = pair.left.width, height = pair.left.height;
    frame.left = {width, height, std::move(pair.left.pixels)};
    frame.right = {pair.right.width, pair.right.height, std::move(pair.right.pixels)};
    frame.leftToWorld = leftToWorld;
    frame.trueDepth = {width, height, std::move(pair.trueDepth)};
    frame.visibility = {width, height, std::move(pair.visibility)};
    return frame;
}

int run_stereo(const SimulateOptions& options, const std::optional<PlacedMesh>& mesh) {
    SimulateOptions path = options;
    if (path.sequence.empty()) path.sequence = "arc";
    path.width = path.height = 0;
    const auto sequence = hand_held(path, mesh);
    if (!sequence) return EXIT_FAILED;
    const Simulation::StereoRig rig = rig_of(options);
    Outcome<StereoRecordingWriter> writer = StereoRecordingWriter::create(
        options.folder, calibrated(rig.left), calibrated(rig.right), fineDepthStep, notes_about(*sequence, rig));
    if (!writer) return report_failure(writer.failure());
    const Outcome<Done> described =
        write_whole_file(std::filesystem::path(options.folder) / "settings.yml", settings_of(rig, options.folder));
    if (!described) return report_failure(described.failure());

    const Simulation::StereoCamera camera(rig, default_thread_number());
    const Simulation::ShapePtr nothing = Simulation::nothing();
    Progress progress("rendering", sequence->frame_count());
    for (int number = 0; number < sequence->frame_count(); ++number) {
        const auto index = static_cast<std::size_t>(number);
        const RigidMatrix& pose = sequence->poses[index];
        const Simulation::ShapePtr& scene = sequence->isBlack[index] != 0 ? nothing : sequence->scene;
        const Outcome<Done> written = writer->write_frame(number, recorded(camera.take(*scene, pose, index), pose));
        if (!written) return report_failure(written.failure());
        progress.advance();
    }
    print_line(format_text("Recording of %d stereo pairs: ", sequence->frame_count()) + options.folder);
    print_speed(*sequence);
    return EXIT_OK;
}

int run_simulate(const SimulateOptions& options) {
    std::optional<PlacedMesh> mesh;
    if (!options.meshFile.empty()) {
        Outcome<PlacedMesh> placed = place_mesh(options.meshFile, options.placement);
        if (!placed) return report_failure(placed.failure());
        print_line("Mesh          " + placed->description);
        mesh = std::move(*placed);
    }
    if (options.isStereo) return run_stereo(options, mesh);
    const bool isHandHeld = !options.sequence.empty();
    const auto sequence = isHandHeld ? hand_held(options, mesh) : two_turns(options, mesh);
    if (!sequence) return EXIT_FAILED;
    const double depthStep = options.depthStep > 0.0 ? options.depthStep : isHandHeld ? fineDepthStep : 1.0;
    Outcome<RecordingWriter> writer = RecordingWriter::create(options.folder, sequence->camera, depthStep);
    if (!writer) return report_failure(writer.failure());

    Progress progress("rendering", sequence->frame_count());
    for (int number = 0; number < sequence->frame_count(); ++number) {
        const PointImage frame = Simulation::frame_of(*sequence, number, default_thread_number());
        const RigidMatrix& pose = sequence->poses[static_cast<std::size_t>(number)];
        const Outcome<Done> written = writer->write_frame(number, depth_image_of(frame), pose);
        if (!written) return report_failure(written.failure());
        progress.advance();
    }
    print_line(format_text("Recording of %d frames: ", sequence->frame_count()) + options.folder);
    print_speed(*sequence);
    return EXIT_OK;
}

void add_mesh_options(const CommandLine& command, SimulateOptions& options, const CommandOption& scene) {
    const CommandOption mesh =
        command
            .add_option("--mesh", options.meshFile,
                        "What is scanned: a mesh file (.ply, .obj, .stl), stood on z = 0; taken for\n"
                        "millimetres when it is 40 to 220 of them large, else scaled to 150 mm")
            .excludes(scene);
    const CommandOption unit =
        command.add_option("--mesh-unit", options.placement.unit, "Unit of the mesh file, which is then not scaled")
            .check(one_of({"mm", "cm", "m", "inch"}))
            .needs(mesh);
    command.add_option("--mesh-size", options.placement.size, "Scales the mesh to this largest side in mm")
        .check(number_between(1, 2000))
        .needs(mesh)
        .excludes(unit);
    command.add_option("--mesh-up", options.placement.up, "Axis of the mesh file that points upwards")
        .check(one_of({"x", "y", "z", "-x", "-y", "-z"}))
        .show_default()
        .needs(mesh);
    command.add_flag("--on-table", options.placement.isOnTable, "Puts a table under the mesh").needs(mesh);
}

}  // namespace

void add_simulate_command(const CommandLine& app, Command& chosen) {
    const CommandLine command =
        app.add_command("simulate", "Writes a recording of a virtual scene with its true poses.");
    const auto options = std::make_shared<SimulateOptions>();
    command.add_option("DIR", options->folder, "Folder for the recording; it must hold none yet").required();
    const CommandOption sequence =
        command.add_option("--sequence", options->sequence, described_sequences()).check(one_of(sequence_names()));
    const CommandOption stereo = command.add_flag(
        "--stereo", options->isStereo,
        "Writes raw pairs of a speckle scanner, its calibration, true depths and poses; the sequence 'arc' and\n"
        "1280 x 1024 pixels if nothing else is said");
    const CommandOption scene = command.add_option("--scene", options->scene, "What is scanned on two turns around it")
                                    .check(one_of(Simulation::scene_names()))
                                    .show_default()
                                    .excludes(sequence)
                                    .excludes(stereo);
    add_mesh_options(command, *options, scene);
    command.add_option("--frames", options->frames, "Number of frames; on two turns 40")
        .check(number_between(1, 100000));
    command.add_option("--distance", options->distance, "Distance of the camera from the object in mm, on two turns")
        .check(number_between(50, 5000))
        .show_default()
        .excludes(sequence)
        .excludes(stereo);
    command.add_option("--width", options->width, "Pixels of a row; 640").check(number_between(16, 8192));
    command.add_option("--height", options->height, "Pixel rows; 480 on two turns, 512 in a sequence")
        .check(number_between(16, 8192));
    command
        .add_option("--depth-step", options->depthStep,
                    "Millimetres between the depths that the images can hold; 1 on two turns, 0.01 in a sequence")
        .check(number_between(0.001, 1))
        .excludes(stereo);
    command.add_flag("--noise", options->hasNoise,
                     "Adds the measurement errors of a good scanner; in a sequence 0.1 mm everywhere");
    command.add_option("--seed", options->seed, "Seed of noise and tremor").show_default();
    command.when_given([options, &chosen] { chosen = [options] { return run_simulate(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
