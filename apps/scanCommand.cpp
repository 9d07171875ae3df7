// vexel-scan scan: raw stereo pairs become a model.
#include <memory>
#include <utility>

#include "apps/PairReconstruction.h"
#include "apps/Rig.h"
#include "apps/commands.h"
#include "apps/frameSelection.h"
#include "apps/numberOptions.h"
#include "apps/pairPictures.h"
#include "apps/resultFiles.h"
#include "apps/scanRun.h"
#include "apps/searchRange.h"
#include "apps/stereoOptions.h"
#include "apps/threadLimit.h"
#include "recording/files.h"
#include "recording/frameNames.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

/// What the command line says.
struct StereoScanOptions {
    StereoOptions stereo;
    ScanOptions scan;
    bool hasFrames = false;  ///< --save-frames
    int pictures = 3;
};

// ---- pictures and frames of single pairs -------------------------------------------------------------------

/// Points and normals of a frame in raw left camera coordinates.
Outcome<Done> write_frame(const fs::path& folder, int number, const PointImage& frame, const RigidMatrix& toRaw) {
    BaseTriMesh points;
    points.enable_vNormal();
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (!frame.has_point(i)) continue;
        const std::size_t added = points.add_vCoord(toRaw * frame.get_vCoord(i));
        points.set_vNrv(added, toRaw.transform_normal(frame.get_vNrv(i)));
    }
    return write_mesh_file(folder / frame_name(number, ".ply"), points);
}

Outcome<Done> write_pictures(const fs::path& folder, int number, const ReconstructedPair& pair, const Rig& rig) {
    const auto file = [&](const char* ending) { return folder / frame_name(number, ending); };
    Outcome<Done> written =
        write_picture(file(".rectified.png"), draw_rectified_pair(pair.images, rig), "rectified pair");
    if (written) written = write_picture(file(".parallax.png"), draw_parallax_map(pair.points, rig), "parallax map");
    if (written) written = write_picture(file(".depth.png"), draw_depth_map(pair.points), "depth map");
    return written;
}

// ---- the scan ------------------------------------------------------------------------------------------------

/// Where the frames come from and what is kept of them.
struct PairSource {
    const StereoScanOptions& options;
    const Rig& rig;
    PairReconstruction& pairs;
    bool savesFrames = false;
};

fs::path frame_folder(const StereoScanOptions& options) {
    return fs::path(options.scan.out) / "frames";
}

Outcome<ScanFrame> next_frame(const PairSource& source, std::size_t index, StageClock& clock) {
    Outcome<ReconstructedPair> pair = source.pairs.take();
    if (!pair) return pair.failure();
    clock.add("read", pair->readMs);
    clock.add("reconstruct", pair->reconstructMs);
    const int number = source.pairs.pairs()[index].number;
    Outcome<Done> written = Done{};
    if (source.savesFrames) {
        written = clock.time("save frames", [&] {
            return write_frame(frame_folder(source.options), number, pair->points, source.rig.rectified_to_raw());
        });
    }
    if (written && index < static_cast<std::size_t>(source.options.pictures)) {
        written =
            clock.time("pictures", [&] { return write_pictures(source.options.scan.out, number, *pair, source.rig); });
    }
    if (!written) return written.failure();
    pair->points.delete_point_flaged(Vector3f::Zero());  // edges, which are drawn and saved but not scanned
    return ScanFrame{number, std::move(pair->points), pair->readMs, pair->reconstructMs};
}

RigSummary summary_of(const Rig& rig, const ScanSettings& settings) {
    const ParallaxOfDepth parallax(rig.calibration);
    RigSummary summary;
    summary.baseline = parallax.baseline(rig.calibration);
    summary.focalLength = rig.calibration.get_fxRect();
    summary.findRange = rig.param.findRange;
    summary.depthRange = settings.rig.depthRange;
    summary.sampleRatio = rig.param.sampleRatio;
    return summary;
}

std::vector<PosedFrame> posed(const std::vector<RecordedPair>& pairs) {
    std::vector<PosedFrame> result;
    for (const RecordedPair& pair : pairs) result.push_back({pair.number, pair.leftToWorld});
    return result;
}

Outcome<Done> prepare_folders(const StereoScanOptions& options, bool savesFrames) {
    const Outcome<Done> prepared = prepare_output_folder(options.scan.out);
    return prepared && savesFrames ? prepare_output_folder(frame_folder(options)) : prepared;
}

int scan_pairs(const StereoScanOptions& options) {
    const Outcome<StereoRecording> recording = open_stereo(options.stereo);
    if (!recording) return report_failure(recording.failure());
    const Outcome<std::vector<RecordedPair>> pairs = selected_pairs(*recording, options.stereo.selection);
    if (!pairs) return report_failure(pairs.failure());
    const Outcome<GivenPoses> given = given_poses(options.scan.truth, name_of(options.stereo), posed(*pairs));
    if (!given) return report_failure(given.failure());
    Outcome<ScanSettings> settings = chosen_settings(options.scan, recording->settings_file());
    if (!settings) return report_failure(settings.failure());
    apply(options.stereo, *settings);
    if (settings->common.outputPath.empty()) settings->common.outputPath = options.scan.out;
    const Outcome<Done> usable = check_usable(*settings);
    if (!usable) return report_failure(usable.failure());
    const Outcome<Rig> rig =
        make_rig(*settings, calibration_files(options.stereo, *recording), recording->image_size());
    if (!rig) return report_failure(rig.failure());
    const bool savesFrames = options.hasFrames || pairs->size() == 1;
    const Outcome<Done> prepared = prepare_folders(options, savesFrames);
    if (!prepared) return report_failure(prepared.failure());
    const Outcome<Done> dumped = dump_settings(options.scan, "scan", *settings);
    if (!dumped) return report_failure(dumped.failure());

    const ThreadLimit threads(settings->fusion.codeNumSet);
    PairReconstruction reconstruction(settings->rig, *pairs);
    if (!reconstruction.is_ready())
        return report_failure({"the reconstruction refused its settings; the line above says why"});
    TrackReport report = begin_report(name_of(options.stereo), options.scan, *settings, recording->image_size(),
                                      pairs->size(), options.stereo.selection.step);
    report.pointsStage = "reconstruct";
    report.rig = summary_of(*rig, *settings);
    const PairSource pairSource{options, *rig, reconstruction, savesFrames};
    const FrameSource frames = [&](std::size_t index) { return next_frame(pairSource, index, report.clock); };
    return run_scan({options.scan, *settings, *given, pairs->size(), frames, rig->calibration.get_rectified_camera(),
                     rig->rectified_to_raw()},
                    report);
}

}  // namespace

void add_scan_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command("scan", "Turns raw stereo pairs of a speckle scanner into a model.");
    const auto options = std::make_shared<StereoScanOptions>();
    options->scan.preset = "desk";
    add_stereo_options(command, options->stereo);
    add_scan_options(command, options->scan,
                     "Folder for mesh, preview.png, trajectory.txt, plot.png, report.txt, report.json and the pictures "
                     "of the first pairs");
    command.add_flag("--save-frames", options->hasFrames,
                     "Writes each frame's points and normals to frames/frame-NNNNNN.ply (mm, raw left camera "
                     "coordinates); a single pair is always written");
    command.add_option("--pictures", options->pictures, "Number of pairs to draw: rectified, parallax, depth")
        .check(number_between(0, 999999999))
        .show_default();
    command.when_given([options, &chosen] { chosen = [options] { return scan_pairs(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
