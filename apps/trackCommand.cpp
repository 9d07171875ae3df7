// vexel-scan track: a recording without poses becomes a mesh and a trajectory, through the session's handle.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <memory>

#include "algorithmQorInclude.h"
#include "apps/Progress.h"
#include "apps/ScanSettings.h"
#include "apps/TrackReport.h"
#include "apps/commands.h"
#include "apps/frameSelection.h"
#include "apps/interrupt.h"
#include "apps/numberOptions.h"
#include "apps/peakMemory.h"
#include "apps/resultFiles.h"
#include "apps/settingsFile.h"
#include "apps/threadLimit.h"
#include "apps/trackPlot.h"
#include "apps/volumePlacement.h"
#include "foundation/diagnostics.h"
#include "recording/files.h"
#include "recording/numberText.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

/// What the command line says.
struct TrackOptions {
    FrameSelection selection;
    std::string out;
    std::string preset = "room";
    std::string settingsFile;
    std::string dumpFile;
    int threads = 0;  ///< 0: as the settings say
    double rate = 30.0;
    std::string format = "ply";
    bool isCompared = false;
    std::string truthFile;
    std::vector<std::string> truthRanges;
};

/// What one frame may take; systems that promise more memory than they have would end the program without a word.
constexpr double largestMemoryGib = 6.0;

// ---- settings ---------------------------------------------------------------------------------------------

Failure not_usable(const std::vector<ParameterFinding>& findings) {
    std::string text;
    for (const ParameterFinding& finding : findings) {
        text += (text.empty() ? "the settings cannot be used: " : "; ") + finding.field + ": " + finding.reason;
    }
    return {text};
}

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
    ScanSettings settings = preset_settings(options.preset);
    if (!options.settingsFile.empty()) {
        const Outcome<Done> read = read_settings_file(options.settingsFile, settings);
        if (!read) return read.failure();
    }
    if (options.threads > 0) settings.fusion.codeNumSet = options.threads;
    fill_in(settings, recording, options.out);
    const std::vector<ParameterFinding> findings = check_settings(settings);
    if (!findings.empty()) return not_usable(findings);
    const Outcome<Done> sizeChecked = check_image_size(settings, recording);
    if (!sizeChecked) return sizeChecked.failure();
    const Outcome<Done> memoryChecked = check_memory(settings, recording, firstFrame);
    if (!memoryChecked) return memoryChecked.failure();
    return settings;
}

// ---- the scan, as an application runs it ------------------------------------------------------------------

/// A scan session; released when it goes.
class Scan {
public:
    explicit Scan(const ScanSettings& settings)
        : _handle(settings.texture.isUsed ? fusion_and_track_ini(settings.common, settings.track, settings.fusion,
                                                                 settings.texture.param, settings.texture.leftToTexture)
                                          : fusion_and_track_ini(settings.common, settings.track, settings.fusion)) {
        if (_handle != nullptr) set_icpStableThreadhold(_handle, settings.session.icpStableThreadhold);
    }
    ~Scan() {
        if (_handle != nullptr) fusiontrack_release(_handle);
    }
    Scan(const Scan&) = delete;
    Scan& operator=(const Scan&) = delete;

    void* handle() const { return _handle; }

private:
    void* _handle;
};

/// Runs the work; adds its time to the stage and writes it to `milliseconds`.
template <class Work>
auto timed(StageClock& clock, const char* stage, double& milliseconds, Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    auto result = clock.time(stage, work);
    milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    return result;
}

void scan_frame(void* handle, const PointImage& frame, TrackedFrame& tracked, StageClock& clock) {
    int elapsedMicroseconds = 0;
    tracked.isAccepted = timed(clock, "frame step", tracked.stepMs,
                               [&] { return fusion_and_track(handle, frame, elapsedMicroseconds); });
    get_fusion_scan_state(handle, tracked.state);
    tracked.displayPoints =
        timed(clock, "display", tracked.displayMs, [&] { return static_cast<int>(get_show_data(handle).get_vn()); });
    if (tracked.isAccepted) tracked.pose = get_current_rt(handle);
}

/// Scans frame after frame until the last one or an interrupt. Fails on an image that cannot be read. `compared` gets
/// the frames' numbers, found poses and points.
Outcome<Done> scan_frames(void* handle, const std::vector<RecordedFrame>& frames, const ScanSettings& settings,
                          TrackReport& report, std::vector<ComparedFrame>& compared) {
    const InterruptGuard interrupt;
    Progress progress("tracking", static_cast<int>(frames.size()));
    for (const RecordedFrame& recorded : frames) {
        TrackedFrame tracked;
        tracked.number = recorded.number;
        const Outcome<DepthImage> image =
            timed(report.clock, "read", tracked.readMs, [&] { return read_depth(recorded); });
        if (!image) return image.failure();
        const PointImage frame = timed(report.clock, "points", tracked.pointsMs, [&] {
            return every_sample_th(
                depth_frame_to_point_image(*image, settings.common.campar, settings.frame, report.threads),
                settings.common.sample);
        });
        scan_frame(handle, frame, tracked, report.clock);
        report.frames.push_back(tracked);
        compared.push_back({tracked.number, std::nullopt, std::nullopt, point_moments(frame)});
        if (tracked.isAccepted) compared.back().found = tracked.pose;
        progress.advance();
        if (interrupt.is_interrupted()) {
            report.isInterrupted = true;
            return Done{};
        }
    }
    return Done{};
}

Outcome<BaseTriMesh> extract_mesh(void* handle, const ScanSettings& settings, TrackReport& report) {
    if (report.accepted() == 0) {
        return Failure{format_text("no frame was accepted; frame %d: ", report.frames.front().number) +
                       outcome_text(report.frames.front().state.outcome)};
    }
    BaseTriMesh mesh;
    const RetVal result =
        report.clock.time("extract", [&] { return get_fusion_result_tbb(handle, settings.fusion.pointDis, mesh); });
    if (result != RET_SUCCESS) return Failure{"the mesh could not be extracted; take a larger fusion.pointDis"};
    if (mesh.get_fn() == 0) return Failure{"no surface came out; scan more frames"};
    report.vertices = mesh.get_vn();
    report.triangles = mesh.get_fn();
    mesh.get_boundBox(report.low, report.high);
    return mesh;
}

// ---- comparison with given poses --------------------------------------------------------------------------

using GivenPoses = std::vector<std::optional<RigidMatrix>>;

GivenPoses recorded_poses(const std::vector<RecordedFrame>& frames) {
    GivenPoses poses;
    for (const RecordedFrame& frame : frames) poses.push_back(frame.cameraToWorld);
    return poses;
}

/// The pose nearest in time to each frame, at most half a frame away.
GivenPoses poses_at_frames(const std::vector<TimedPose>& trajectory, const std::vector<RecordedFrame>& frames,
                           double rate) {
    GivenPoses poses;
    const auto isBefore = [](const TimedPose& pose, double time) { return pose.time < time; };
    for (const RecordedFrame& frame : frames) {
        const double time = frame.number / rate;
        auto nearest = std::lower_bound(trajectory.begin(), trajectory.end(), time, isBefore);
        const bool isPreviousNearer =
            nearest == trajectory.end() ||
            (nearest != trajectory.begin() && time - std::prev(nearest)->time < nearest->time - time);
        if (isPreviousNearer) --nearest;
        const bool isNear = std::abs(nearest->time - time) <= 0.5 / rate;
        poses.push_back(isNear ? std::optional<RigidMatrix>(nearest->cameraToWorld) : std::nullopt);
    }
    return poses;
}

/// Empty when nothing is to be compared.
Outcome<GivenPoses> given_poses(const TrackOptions& options, const std::vector<RecordedFrame>& frames) {
    GivenPoses poses;
    if (!options.truthFile.empty()) {
        const Outcome<std::vector<TimedPose>> trajectory = read_trajectory(options.truthFile);
        if (!trajectory) return trajectory.failure();
        poses = poses_at_frames(*trajectory, frames, options.rate);
    } else if (options.isCompared || !options.truthRanges.empty()) {
        poses = recorded_poses(frames);
    }
    const bool hasPose = std::any_of(poses.begin(), poses.end(), [](const auto& pose) { return pose.has_value(); });
    if (poses.empty() || hasPose) return poses;
    if (options.truthFile.empty()) {
        return Failure{options.selection.recording + " holds no poses to compare with; name a --truth-file"};
    }
    return Failure{options.truthFile +
                   format_text(" has no pose at the times of the frames; they are the frames' numbers "
                               "divided by the --rate of %g",
                               options.rate)};
}

Outcome<FrameRange> range_of(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon != std::string::npos) {
        const Outcome<std::vector<double>> numbers =
            parse_numbers(text.substr(0, colon) + ' ' + text.substr(colon + 1), 2);
        const double largest = 999999999.0;
        if (numbers && (*numbers)[0] >= 0.0 && (*numbers)[0] <= (*numbers)[1] && (*numbers)[1] <= largest) {
            return FrameRange{static_cast<int>((*numbers)[0]), static_cast<int>((*numbers)[1])};
        }
    }
    return Failure{"'" + text + "' is no range of frames like 0:121"};
}

/// All frames, then the given ranges or else those between jumps.
std::vector<FrameRange> ranges_to_compare(const TrackOptions& options, const std::vector<ComparedFrame>& compared) {
    std::vector<FrameRange> ranges{{compared.front().number, compared.back().number}};
    for (const std::string& text : options.truthRanges) ranges.push_back(*range_of(text));
    if (!options.truthRanges.empty()) return ranges;
    const std::vector<FrameRange> pieces = ranges_between_jumps(compared);
    if (pieces.size() > 1) ranges.insert(ranges.end(), pieces.begin(), pieces.end());
    return ranges;
}

/// Completes the frames with their given poses and adds the figures to the report; without a truth they are dropped.
void compare(const TrackOptions& options, const GivenPoses& given, std::vector<ComparedFrame>& compared,
             TrackReport& report) {
    if (given.empty()) return compared.clear();
    for (std::size_t i = 0; i < compared.size(); ++i) compared[i].given = given[i];
    report.truth = options.truthFile.empty() ? "the recording's own poses" : options.truthFile;
    for (const FrameRange range : ranges_to_compare(options, compared)) {
        report.errors.push_back(evaluate_trajectory(compared, range));
    }
}

// ---- results ----------------------------------------------------------------------------------------------

std::vector<RigidMatrix> accepted_poses(const TrackReport& report) {
    std::vector<RigidMatrix> poses;
    for (const TrackedFrame& frame : report.frames) {
        if (frame.isAccepted) poses.push_back(frame.pose);
    }
    return poses;
}

Outcome<Done> write_model(const BaseTriMesh& mesh, const Recording& recording, const TrackOptions& options,
                          TrackReport& report) {
    const fs::path folder = options.out;
    const Outcome<Done> written =
        report.clock.time("write mesh", [&] { return write_mesh_file(folder / ("mesh." + options.format), mesh); });
    if (!written) return written;
    return report.clock.time("draw", [&] {
        return write_preview(folder / "preview.png", mesh, recording, accepted_poses(report), report.threads);
    });
}

Outcome<Done> write_account(const fs::path& folder, TrackReport& report, const std::vector<ComparedFrame>& compared) {
    Outcome<Done> written = write_whole_file(folder / "trajectory.txt", trajectory_text(report.trajectory()));
    if (written) written = write_picture(folder / "plot.png", draw_track_plot(report, compared), "plot");
    report.peakMemoryMib = peak_memory_mib();
    if (written) written = write_whole_file(folder / "report.json", json_text(report));
    if (written) written = write_whole_file(folder / "report.txt", plain_text(report));
    return written;
}

void print_results(const TrackOptions& options, const TrackReport& report) {
    const fs::path folder = options.out;
    print_text('\n' + summary_text(report));
    print_line("\nMesh          " + (folder / ("mesh." + options.format)).string());
    print_line("Trajectory    " + (folder / "trajectory.txt").string());
    print_line("Pictures      " + (folder / "preview.png").string() + ", plot.png");
    print_line("Report        " + (folder / "report.txt").string() + ", report.json");
}

TrackReport begin_report(const Recording& recording, const std::vector<RecordedFrame>& frames,
                         const TrackOptions& options, const ScanSettings& settings) {
    TrackReport report;
    report.recording = options.selection.recording;
    report.preset = options.preset;
    report.settingsFile = options.settingsFile;
    report.imageSize = recording.image_size();
    report.framesSelected = static_cast<int>(frames.size());
    report.step = options.selection.step;
    report.threads = settings.fusion.codeNumSet;
    report.rate = options.rate;
    report.voxel = settings.fusion.pointDis;
    return report;
}

Outcome<Done> dump_settings(const TrackOptions& options, const ScanSettings& settings) {
    if (options.dumpFile.empty()) return Done{};
    return write_whole_file(options.dumpFile,
                            settings_text(settings, "Settings of vexel-scan track, preset " + options.preset));
}

int scan_recording(const TrackOptions& options, const Recording& recording, const std::vector<RecordedFrame>& frames,
                   const ScanSettings& settings, const GivenPoses& given) {
    const ThreadLimit threads(settings.fusion.codeNumSet);
    const Scan scan(settings);
    if (scan.handle() == nullptr) return report_failure({"the session refused its settings"});
    TrackReport report = begin_report(recording, frames, options, settings);
    std::vector<ComparedFrame> compared;
    const Outcome<Done> scanned = scan_frames(scan.handle(), frames, settings, report, compared);
    if (!scanned) return report_failure(scanned.failure());
    if (report.isInterrupted) {
        print_line(
            format_text("interrupted: writing what the first %d frames gave", static_cast<int>(report.frames.size())));
    }

    const Outcome<BaseTriMesh> mesh = extract_mesh(scan.handle(), settings, report);
    Outcome<Done> modelWritten = mesh ? write_model(*mesh, recording, options, report) : mesh.failure();
    compare(options, given, compared, report);
    const Outcome<Done> accountWritten = write_account(options.out, report, compared);
    if (!modelWritten) return report_failure(modelWritten.failure());
    if (!accountWritten) return report_failure(accountWritten.failure());
    print_results(options, report);
    return report.isInterrupted ? EXIT_INTERRUPTED : EXIT_OK;
}

int run_track(const TrackOptions& options) {
    const Outcome<Recording> recording = Recording::open(options.selection.recording, PosePolicy::Optional);
    if (!recording) return report_failure(recording.failure());
    const Outcome<std::vector<RecordedFrame>> frames = selected_frames(*recording, options.selection);
    if (!frames) return report_failure(frames.failure());
    const Outcome<GivenPoses> given = given_poses(options, *frames);
    if (!given) return report_failure(given.failure());
    const Outcome<ScanSettings> settings = settings_for(options, *recording, frames->front());
    if (!settings) return report_failure(settings.failure());
    const Outcome<Done> prepared = prepare_output_folder(options.out);
    if (!prepared) return report_failure(prepared.failure());
    const Outcome<Done> dumped = dump_settings(options, *settings);
    if (!dumped) return report_failure(dumped.failure());
    return scan_recording(options, *recording, *frames, *settings, *given);
}

void add_comparison_options(CLI::App& command, TrackOptions& options) {
    command.add_flag("--truth", options.isCompared, "Compares the trajectory with the recording's own poses");
    command.add_option("--truth-file", options.truthFile,
                       "Compares the trajectory with this one: lines of time (s), translation (m), quaternion x y z w");
    command
        .add_option("--truth-range", options.truthRanges,
                    "Frames FIRST:LAST to give the figures for beside those of all; may be repeated. Without it the "
                    "frames are cut where the poses jump against each other")
        ->check([](const std::string& text) {
            const Outcome<FrameRange> range = range_of(text);
            return range ? std::string() : range.failure().reason;
        });
    command.add_option("--rate", options.rate, "Frames a second: frame number / rate is the time in trajectories")
        ->check(number_between(0.001, 1e6))
        ->capture_default_str();
}

}  // namespace

void add_track_command(CLI::App& app, Command& chosen) {
    CLI::App* command = app.add_subcommand("track", "Tracks and fuses depth frames of unknown poses.");
    const auto options = std::make_shared<TrackOptions>();
    add_selection_options(
        *command, options->selection,
        "frame-NNNNNN.depth.png (16 bit, mm) and camera-intrinsics.txt; poses are only compared with");
    command
        ->add_option("--out", options->out,
                     "Folder for mesh, preview.png, trajectory.txt, plot.png, report.txt and report.json")
        ->required();
    command->add_option("--preset", options->preset, "Settings for a room-size depth camera or for a small object")
        ->check(CLI::IsMember(preset_names()))
        ->capture_default_str();
    command->add_option("--settings", options->settingsFile,
                        "YAML file with settings that replace the preset's; vexel-scan settings writes one");
    command->add_option("--dump-settings", options->dumpFile, "Writes the settings used, with their documentation");
    command->add_option("--threads", options->threads, "Worker threads; 0 leaves it to fusion.codeNumSet")
        ->check(number_between(0, 256))
        ->capture_default_str();
    command->add_option("--format", options->format, "Mesh format")
        ->check(CLI::IsMember({"ply", "obj", "stl"}))
        ->capture_default_str();
    add_comparison_options(*command, *options);
    command->callback([options, &chosen] { chosen = [options] { return run_track(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
