#include "apps/scanOptions.h"

#include "apps/commonOptions.h"
#include "apps/savedScan.h"
#include "apps/settingsFile.h"
#include "foundation/DataArchiveConfig.h"
#include "recording/files.h"

namespace VexelAlgorithm::Apps {

namespace fs = std::filesystem;

void add_scan_options(const CommandLine& command, ScanOptions& options, const std::string& outContent) {
    command.add_option("--out", options.out, outContent).required();
    command
        .add_option(
            "--preset", options.preset,
            "Settings for a depth camera in a room, for one before a small object, or for a stereo scanner of such")
        .check(one_of(preset_names()))
        .show_default();
    command.add_option("--settings", options.settingsFile,
                       "YAML file with settings that replace the preset's; vexel-scan settings writes one");
    command.add_option("--dump-settings", options.dumpFile, "Writes the settings used, with their documentation");
    add_session_threads_option(command, options.threads);
    command.add_flag("--recover", options.recovers,
                     "Looks for the scanner by the shapes of the surface when tracking is lost");
    add_mesh_format_option(command, options.format);
    command.add_option("--debug-recording", options.debugRecording,
                       "Folder for a record of all that the session is given, for vexel-scan replay");
    command.add_option("--save-project", options.savedProject,
                       "Saves the scan, also one that Ctrl-C ends, and its settings as FILE.yml; --resume and "
                       "vexel-scan mesh read it");
    command.add_option("--resume", options.resumedProject,
                       "Goes on with the scan of --save-project, with the settings in FILE.yml unless --settings names "
                       "others; choose the frames from where it stopped with --first");
    add_truth_options(command, options.truth);
}

namespace {

/// Empty for the preset alone.
fs::path settings_file(const ScanOptions& options) {
    if (!options.settingsFile.empty() || options.resumedProject.empty()) return options.settingsFile;
    const fs::path saved = settings_beside(options.resumedProject);
    std::error_code error;
    return fs::exists(saved, error) ? saved : fs::path();
}

}  // namespace

Outcome<ScanSettings> chosen_settings(const ScanOptions& options, const std::optional<fs::path>& recordingsFile) {
    ScanSettings settings = preset_settings(options.preset);
    if (recordingsFile) {
        const Outcome<Done> read = read_settings_file(*recordingsFile, settings);
        if (!read) return read.failure();
    }
    const fs::path ownFile = settings_file(options);
    if (!ownFile.empty()) {
        const Outcome<Done> read = read_settings_file(ownFile, settings);
        if (!read) return read.failure();
    }
    if (options.threads > 0) settings.fusion.codeNumSet = options.threads;
    if (options.recovers) settings.session.recovery = true;
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

Outcome<Done> begin_debug_recording(const ScanOptions& options) {
    if (options.debugRecording.empty()) return Done{};
    const Outcome<Done> prepared = prepare_output_folder(options.debugRecording);
    if (!prepared) return prepared;
    DataArchiveConfig& config = DataArchiveConfig::global();
    config.set_store_directory(options.debugRecording);
    config.set_archive_enabled(true);
    config.set_testbug_enabled(true);
    return Done{};
}

TrackReport begin_report(const std::string& recording, const ScanOptions& options, const ScanSettings& settings,
                         ImageSize imageSize, std::size_t frames, int step) {
    TrackReport report;
    report.recording = recording;
    report.preset = options.preset;
    report.settingsFile = settings_file(options).string();
    report.resumed = options.resumedProject;
    report.imageSize = imageSize;
    report.framesSelected = static_cast<int>(frames);
    report.step = step;
    report.threads = settings.fusion.codeNumSet;
    report.rate = options.truth.rate;
    report.voxel = settings.fusion.pointDis;
    return report;
}

}  // namespace VexelAlgorithm::Apps
