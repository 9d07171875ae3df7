// vexel-scan fuse: a recording of known poses becomes a mesh.
#include <algorithm>
#include <memory>

#include "apps/FuseReport.h"
#include "apps/Progress.h"
#include "apps/commands.h"
#include "apps/commonOptions.h"
#include "apps/frameSelection.h"
#include "apps/interrupt.h"
#include "apps/numberOptions.h"
#include "apps/peakMemory.h"
#include "apps/resultFiles.h"
#include "apps/threadLimit.h"
#include "apps/volumePlacement.h"
#include "foundation/diagnostics.h"
#include "fusion/FusionTsdf.h"
#include "recording/files.h"
#include "recording/pointImageFromDepth.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

using SpeckleVolume = Fusion::FusionTsdf<Fusion::LeafTSDFSpeckle>;

/// What the command line says; lengths in mm.
struct FuseOptions {
    FrameSelection selection;
    std::string out;
    float voxel = 5.0f;
    int threads = 0;  ///< 0: all processors
    int depth = 0;    ///< 0: from the scene
    int range = 0;    ///< 0: from the camera's depth error
    float minWeight = 3.0f;
    std::string format = "ply";
    DepthFrameSettings frame;
};

constexpr float coneHalfWidth = 0.5f;
/// 2^14 voxels a side; the choice from the scene stops here, --depth may go on.
constexpr int largestChosenDepth = 14;

Outcome<std::unique_ptr<SpeckleVolume>> make_volume(const FuseOptions& options, const SceneSurvey& survey,
                                                    int threads) {
    const VolumePlacement placement = place_volume(survey.box, options.voxel, options.depth, largestChosenDepth);
    const int range =
        options.range > 0 ? options.range : choose_fusion_range(survey.farDepth, options.voxel, options.frame);
    const double memory = least_memory_gib(survey, options.voxel, range, sizeof(Fusion::LeafTSDFSpeckle));
    if (memory > largestMemoryGib) {
        return Failure{format_text("one frame alone would take %.0f GiB with voxels of %g mm; take a larger --voxel",
                                   memory, options.voxel)};
    }
    auto volume =
        std::make_unique<SpeckleVolume>(placement.treeDepth, options.voxel, coneHalfWidth, range, threads, options.out);
    volume->set_shift(placement.shift);
    return volume;
}

/// The number of points that integration will skip because they lie outside the volume or too near its faces.
std::uint64_t count_outside(const PointImage& frame, const RigidMatrix& pose, const SpeckleVolume& volume) {
    const float low = 3.0f;
    const float high = std::ldexp(1.0f, volume.get_treeDepth()) - 3.0f;
    std::uint64_t outside = 0;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (!frame.has_point(i)) continue;
        const Vector3f voxel = (pose * frame.get_vCoord(i) - volume.get_treeShift()) / volume.get_pointDis();
        const bool isInside = (voxel.array() >= low).all() && (voxel.array() < high).all();
        outside += isInside ? 0 : 1;
    }
    return outside;
}

/// Fuses frame after frame until the last one or an interrupt. Fails on an image that cannot be read.
Outcome<Done> fuse_frames(const Recording& recording, const std::vector<RecordedFrame>& frames,
                          const FuseOptions& options, SpeckleVolume& volume, FuseReport& report) {
    const InterruptGuard interrupt;
    Progress progress("fusing", static_cast<int>(frames.size()));
    for (const RecordedFrame& recorded : frames) {
        const Outcome<DepthImage> image = report.clock.time("read", [&] { return read_depth(recorded); });
        if (!image) return image.failure();
        const PointImage frame = report.clock.time("points", [&] {
            return depth_frame_to_point_image(*image, recording.camera(), options.frame, volume.get_code_Num());
        });
        const int points = frame.count_vaildNum();
        report.points += static_cast<std::uint64_t>(points);
        report.pointsOutside += count_outside(frame, *recorded.cameraToWorld, volume);
        if (points == 0) ++report.framesWithoutPoints;

        const bool isFused = report.clock.time("integrate", [&] {
            Fusion::ChangedLeaves changed;
            return volume.fusion_one_frame_speckle_parallel(frame, *recorded.cameraToWorld, changed, true, true,
                                                            nullptr);
        });
        if (!isFused) return Failure{recorded.depthFile.string() + " was refused by the volume"};
        report.framesFused += points > 0 ? 1 : 0;
        progress.advance();
        if (interrupt.is_interrupted()) {
            report.isInterrupted = true;
            return Done{};
        }
    }
    return Done{};
}

std::uint64_t count_used_voxels(const SpeckleVolume& volume) {
    std::uint64_t used = 0;
    const int slots = volume.get_vaild_leaf_num();
    for (int i = 0; i < slots; ++i) used += volume.get_fusion_tree().leaf_at(i).is_used() ? 1 : 0;
    return used;
}

Outcome<BaseTriMesh> extract_mesh(SpeckleVolume& volume, const FuseOptions& options, FuseReport& report) {
    BaseTriMesh mesh;
    std::vector<int> vertexAxis;
    volume.set_opt_mc(true, false, true);
    const RetVal result =
        report.clock.time("extract", [&] { return volume.get_result_tbb(options.minWeight, mesh, vertexAxis, true); });
    if (result != RET_SUCCESS) return Failure{"the mesh could not be extracted; take a larger --voxel"};
    if (mesh.get_fn() == 0) return Failure{"no surface came out; lower --min-weight or fuse more frames"};
    report.voxels = count_used_voxels(volume);
    report.mesh = figures_of(mesh);
    return mesh;
}

std::vector<RigidMatrix> poses_of(const std::vector<RecordedFrame>& frames) {
    std::vector<RigidMatrix> poses;
    for (const RecordedFrame& frame : frames) poses.push_back(*frame.cameraToWorld);
    return poses;
}

Outcome<Done> write_results(const BaseTriMesh& mesh, const Recording& recording,
                            const std::vector<RecordedFrame>& frames, const FuseOptions& options, FuseReport& report) {
    const fs::path folder = options.out;
    const fs::path meshFile = folder / ("mesh." + options.format);
    Outcome<Done> written = report.clock.time("write mesh", [&] { return write_mesh_file(meshFile, mesh); });
    if (written) {
        written = report.clock.time("draw", [&] {
            return write_preview(folder / "preview.png", mesh, recording.camera(), recording.image_size(),
                                 poses_of(frames), report.threads);
        });
    }
    report.peakMemoryMib = peak_memory_mib();
    if (written) written = write_whole_file(folder / "report.json", json_text(report));
    if (written) written = write_whole_file(folder / "report.txt", plain_text(report));
    if (!written) return written;
    print_text(plain_text(report));
    print_line("\nMesh          " + meshFile.string());
    print_line("Pictures      " + (folder / "preview.png").string());
    print_line("Report        " + (folder / "report.txt").string() + ", report.json");
    return Done{};
}

FuseReport begin_report(const Recording& recording, const std::vector<RecordedFrame>& frames,
                        const FuseOptions& options, const SpeckleVolume& volume) {
    FuseReport report;
    report.recording = options.selection.recording;
    report.imageSize = recording.image_size();
    report.framesSelected = static_cast<int>(frames.size());
    report.firstFrame = frames.front().number;
    report.lastFrame = frames.back().number;
    report.step = options.selection.step;
    report.threads = volume.get_code_Num();
    report.voxel = volume.get_pointDis();
    report.treeDepth = volume.get_treeDepth();
    report.shift = volume.get_treeShift();
    report.fusionRange = volume.get_fusionRange();
    report.minWeight = options.minWeight;
    return report;
}

int run_fuse(const FuseOptions& options) {
    const ThreadLimit threads(options.threads);
    const Outcome<Recording> recording = Recording::open(options.selection.recording, PosePolicy::Required);
    if (!recording) return report_failure(recording.failure());
    const Outcome<std::vector<RecordedFrame>> selected = selected_frames(*recording, options.selection);
    if (!selected) return report_failure(selected.failure());
    const std::vector<RecordedFrame>& frames = *selected;
    const Outcome<Done> prepared = prepare_output_folder(options.out);
    if (!prepared) return report_failure(prepared.failure());
    const Outcome<SceneSurvey> survey = survey_scene(*recording, frames, options.frame);
    if (!survey) return report_failure(survey.failure());

    const Outcome<std::unique_ptr<SpeckleVolume>> made = make_volume(options, *survey, threads.count());
    if (!made) return report_failure(made.failure());
    SpeckleVolume& volume = **made;
    FuseReport report = begin_report(*recording, frames, options, volume);
    const Outcome<Done> fused = fuse_frames(*recording, frames, options, volume, report);
    if (!fused) return report_failure(fused.failure());
    if (report.isInterrupted) {
        print_line(format_text("interrupted: writing what the first %d frames gave", report.framesFused));
    }

    const Outcome<BaseTriMesh> mesh = extract_mesh(volume, options, report);
    if (!mesh) return report_failure(mesh.failure());
    const Outcome<Done> written = write_results(*mesh, *recording, frames, options, report);
    if (!written) return report_failure(written.failure());
    return report.isInterrupted ? EXIT_INTERRUPTED : EXIT_OK;
}

}  // namespace

void add_fuse_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command("fuse", "Fuses depth frames of known poses into a mesh.");
    const auto options = std::make_shared<FuseOptions>();
    add_selection_options(command, options->selection,
                          "frame-NNNNNN.depth.png (16 bit, mm), frame-NNNNNN.pose.txt (camera to world, m) and "
                          "camera-intrinsics.txt")
        .required();
    command.add_option("--out", options->out, "Folder for mesh, preview.png, report.txt and report.json").required();
    command.add_option("--voxel", options->voxel, "Edge of a voxel in mm")
        .check(number_between(0.01, 1000))
        .show_default();
    command.add_option("--threads", options->threads, "Worker threads; 0 takes all processors")
        .check(number_between(0, 1024))
        .show_default();
    command.add_option("--depth", options->depth, "Bits of the volume along each axis; without it as the scene needs")
        .check(number_between(SpeckleVolume::Octree::MinTreeDepth, SpeckleVolume::Octree::MaxTreeDepth));
    command
        .add_option(
            "--range", options->range,
            "Voxels along each axis that a point contributes to, an odd number; without it as the depth error needs")
        .check(number_between(1, SpeckleVolume::MaxFusionRange));
    command.add_option("--min-weight", options->minWeight, "Contributions that a voxel needs to make surface")
        .check(number_between(0, 1e9))
        .show_default();
    command.add_option("--max-range", options->frame.farthest, "Farthest depth in mm that is used")
        .check(number_between(1, 65534))
        .show_default();
    command
        .add_option("--smoothing", options->frame.smoothingRadius,
                    "Pixels of the edge-preserving smoothing of each depth image, 0 for none")
        .check(number_between(0, 16))
        .show_default();
    add_mesh_format_option(command, options->format);
    command.when_given([options, &chosen] { chosen = [options] { return run_fuse(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
