// vexel-scan track: a recording without poses becomes a mesh and a trajectory, through the session's handle.
#include <memory>

#include "apps/commands.h"
#include "apps/frameSelection.h"
#include "apps/scanRun.h"
#include "apps/threadLimit.h"
#include "apps/volumePlacement.h"
#include "foundation/diagnostics.h"
#include "fusion/LeafTSDFSpeckle.h"
#include "recording/files.h"

namespace VexelAlgorithm::Apps {
namespace {

/// What the command line says.
struct TrackOptions {
    FrameSelection selection;
    ScanOptions scan;
};

/// A frame of another size would be refused by the session, one by one.
Outcome<Done> check_image_size(const ScanSettings& settings, const Recording& recording) {
    const ImageSize size = recording.image_size();
    const Vector2i& expected = settings.common.imageSize;
    if (expected == Vector2i(size.width, size.height)) return Done{};
    return Failure{
        format_text("common.imageSize is %d x %d where the recording has %d x %d; [ 0, 0 ] takes the recording's",
                    expected(0), expected(1), size.width, size.height)};
}

/// The voxels of the first frame, as far as a sparse look tells.
Outcome<Done> check_memory(const ScanSettings& settings, const Recording& recording, RecordedFrame firstFrame) {
    firstFrame.cameraToWorld = RigidMatrix();
    const Outcome<SceneSurvey> survey = survey_scene(recording, {firstFrame}, settings.frame);
    if (!survey) return Done{};  // the session has its own words for frames without points
    const double memory = least_memory_gib(*survey, settings.fusion.pointDis, settings.fusion.fusionDataSize(0),
                                           sizeof(Fusion::LeafTSDFSpeckle));
    if (memory <= largestMemoryGib) return Done{};
    return Failure{
        format_text("one frame alone would take %.0f GiB with voxels of %g mm; take a larger fusion.pointDis", memory,
                    settings.fusion.pointDis)};
}

Outcome<ScanSettings> settings_for(const TrackOptions& options, const Recording& recording,
                                   const RecordedFrame& firstFrame) {
    Outcome<ScanSettings> settings = chosen_settings(options.scan, std::nullopt);
    if (!settings) return settings;
    fill_in(*settings, recording, options.scan.out);
    const Outcome<Done> usable = check_usable(*settings);
    if (!usable) return usable.failure();
    const Outcome<Done> sizeChecked = check_image_size(*settings, recording);
    if (!sizeChecked) return sizeChecked.failure();
    const Outcome<Done> memoryChecked = check_memory(*settings, recording, firstFrame);
    if (!memoryChecked) return memoryChecked.failure();
    return settings;
}

/// Reads a depth image and makes points with normals of it.
Outcome<ScanFrame> frame_from(const RecordedFrame& recorded, const ScanSettings& settings, int threads,
                              StageClock& clock) {
    ScanFrame frame;
    frame.number = recorded.number;
    const Outcome<DepthImage> image = timed(clock, "read", frame.readMs, [&] { return read_depth(recorded); });
    if (!image) return image.failure();
    frame.points = timed(clock, "points", frame.pointsMs, [&] {
        return every_sample_th(depth_frame_to_point_image(*image, settings.common.campar, settings.frame, threads),
                               settings.common.sample);
    });
    return frame;
}

int scan_recording(const TrackOptions& options, const Recording& recording, const std::vector<RecordedFrame>& frames,
                   const ScanSettings& settings, const GivenPoses& given) {
    const ThreadLimit threads(settings.fusion.codeNumSet);
    TrackReport report = begin_report(options.selection.recording, options.scan, settings, recording.image_size(),
                                      frames.size(), options.selection.step);
    const FrameSource source = [&](std::size_t index) {
        return frame_from(frames[index], settings, report.threads, report.clock);
    };
    return run_scan({options.scan, settings, given, frames.size(), source, recording.camera(), RigidMatrix()}, report);
}

std::vector<PosedFrame> posed(const std::vector<RecordedFrame>& frames) {
    std::vector<PosedFrame> result;
    for (const RecordedFrame& frame : frames) result.push_back({frame.number, frame.cameraToWorld});
    return result;
}

int run_track(const TrackOptions& options) {
    const Outcome<Recording> recording = Recording::open(options.selection.recording, PosePolicy::Optional);
    if (!recording) return report_failure(recording.failure());
    const Outcome<std::vector<RecordedFrame>> frames = selected_frames(*recording, options.selection);
    if (!frames) return report_failure(frames.failure());
    const Outcome<GivenPoses> given = given_poses(options.scan.truth, options.selection.recording, posed(*frames));
    if (!given) return report_failure(given.failure());
    const Outcome<ScanSettings> settings = settings_for(options, *recording, frames->front());
    if (!settings) return report_failure(settings.failure());
    const Outcome<Done> prepared = prepare_output_folder(options.scan.out);
    if (!prepared) return report_failure(prepared.failure());
    const Outcome<Done> dumped = dump_settings(options.scan, "track", *settings);
    if (!dumped) return report_failure(dumped.failure());
    return scan_recording(options, *recording, *frames, *settings, *given);
}

}  // namespace

void add_track_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command("track", "Tracks and fuses depth frames of unknown poses.");
    const auto options = std::make_shared<TrackOptions>();
    options->scan.preset = "room";
    add_selection_options(command, options->selection,
                          "frame-NNNNNN.depth.png (16 bit, mm) and camera-intrinsics.txt; poses are only compared with")
        .required();
    add_scan_options(command, options->scan,
                     "Folder for mesh, preview.png, trajectory.txt, plot.png, report.txt and report.json");
    command.when_given([options, &chosen] { chosen = [options] { return run_track(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
