#include "apps/scanOptions.h"

#include "apps/numberOptions.h"
#include "apps/peakMemory.h"
#include "apps/resultFiles.h"
#include "apps/settingsFile.h"
#include "apps/trackPlot.h"
#include "foundation/diagnostics.h"
#include "recording/files.h"
#include "recording/trajectoryText.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

}  // namespace

void add_scan_options(CLI::App& command, ScanOptions& options, const std::string& outContent) {
    command.add_option("--out", options.out, outContent)->required();
    command
        .add_option(
            "--preset", options.preset,
            "Settings for a depth camera in a room, for one before a small object, or for a stereo scanner of such")
        ->check(CLI::IsMember(preset_names()))
        ->capture_default_str();
    command.add_option("--settings", options.settingsFile,
                       "YAML file with settings that replace the preset's; vexel-scan settings writes one");
    command.add_option("--dump-settings", options.dumpFile, "Writes the settings used, with their documentation");
    command.add_option("--threads", options.threads, "Worker threads; 0 leaves it to fusion.codeNumSet")
        ->check(number_between(0, 256))
        ->capture_default_str();
    command.add_option("--format", options.format, "Mesh format")
        ->check(CLI::IsMember({"ply", "obj", "stl"}))
        ->capture_default_str();
    add_truth_options(command, options.truth);
}

Outcome<ScanSettings> chosen_settings(const ScanOptions& options, const std::optional<fs::path>& recordingsFile) {
    ScanSettings settings = preset_settings(options.preset);
    if (recordingsFile) {
        const Outcome<Done> read = read_settings_file(*recordingsFile, settings);
        if (!read) return read.failure();
    }
    if (!options.settingsFile.empty()) {
        const Outcome<Done> read = read_settings_file(options.settingsFile, settings);
        if (!read) return read.failure();
    }
    if (options.threads > 0) settings.fusion.codeNumSet = options.threads;
    return settings;
}

Outcome<Done> check_usable(const ScanSettings& settings) {
    std::string text;
    for (const ParameterFinding& finding : check_settings(settings)) {
        text += (text.empty() ? "the settings cannot be used: " : "; ") + finding.field + ": " + finding.reason;
    }
    if (text.empty()) return Done{};
    return Failure{text};
}

Outcome<Done> dump_settings(const ScanOptions& options, const std::string& command, const ScanSettings& settings) {
    if (options.dumpFile.empty()) return Done{};
    return write_whole_file(
        options.dumpFile, settings_text(settings, "Settings of vexel-scan " + command + ", preset " + options.preset));
}

TrackReport begin_report(const std::string& recording, const ScanOptions& options, const ScanSettings& settings,
                         ImageSize imageSize, std::size_t frames, int step) {
    TrackReport report;
    report.recording = recording;
    report.preset = options.preset;
    report.settingsFile = options.settingsFile;
    report.imageSize = imageSize;
    report.framesSelected = static_cast<int>(frames);
    report.step = step;
    report.threads = settings.fusion.codeNumSet;
    report.rate = options.truth.rate;
    report.voxel = settings.fusion.pointDis;
    return report;
}

std::string interruption_text(const TrackReport& report) {
    return format_text("interrupted: writing what the first %d frames gave", static_cast<int>(report.frames.size()));
}

std::vector<RigidMatrix> accepted_poses(const TrackReport& report) {
    std::vector<RigidMatrix> poses;
    for (const TrackedFrame& frame : report.frames) {
        if (frame.isAccepted) poses.push_back(frame.pose);
    }
    return poses;
}

fs::path mesh_file(const ScanOptions& options) {
    return fs::path(options.out) / ("mesh." + options.format);
}

Outcome<Done> write_model(const ScanOptions& options, const BaseTriMesh& mesh, const std::vector<RigidMatrix>& poses,
                          const CameraInParam& camera, TrackReport& report) {
    const Outcome<Done> written =
        report.clock.time("write mesh", [&] { return write_mesh_file(mesh_file(options), mesh); });
    if (!written) return written;
    return report.clock.time("draw", [&] {
        return write_preview(fs::path(options.out) / "preview.png", mesh, camera, report.imageSize, poses,
                             report.threads);
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

void print_results(const ScanOptions& options, const TrackReport& report) {
    const fs::path folder = options.out;
    print_text('\n' + summary_text(report));
    print_line("\nMesh          " + mesh_file(options).string());
    print_line("Trajectory    " + (folder / "trajectory.txt").string());
    print_line("Pictures      " + (folder / "preview.png").string() + ", plot.png");
    print_line("Report        " + (folder / "report.txt").string() + ", report.json");
}

}  // namespace VexelAlgorithm::Apps
