// What the commands that run a session have in common: options and settings.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "apps/CommandLine.h"
#include "apps/ScanSettings.h"
#include "apps/TrackReport.h"
#include "apps/givenPoses.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm::Apps {

struct ScanOptions {
    std::string out;
    std::string preset;
    std::string settingsFile;
    std::string dumpFile;
    int threads = 0;  ///< 0: as the settings say
    bool recovers = false;
    std::string format = "ply";
    std::string debugRecording;  ///< folder; empty for none
    std::string savedProject;    ///< where the scan is saved; empty for nowhere
    std::string resumedProject;  ///< which scan goes on; empty for a new one
    TruthOptions truth;
};
/// Adds --out, --preset, --settings, --dump-settings, --threads, --recover, --format, --debug-recording,
/// --save-project,
/// --resume and those of the comparison. The preset is what `options` says until another is given.
void add_scan_options(const CommandLine& command, ScanOptions& options, const std::string& outContent);

/// The preset, changed by the recording's file, if there is one, and then by that of the options, or else by what was
/// saved with a resumed project.
Outcome<ScanSettings> chosen_settings(const ScanOptions& options,
                                      const std::optional<std::filesystem::path>& recordingsFile);
/// One sentence with all findings, if there are any.
Outcome<Done> check_usable(const ScanSettings& settings);
/// Writes the settings where --dump-settings asks for them.
Outcome<Done> dump_settings(const ScanOptions& options, const std::string& command, const ScanSettings& settings);

/// From now on sessions record themselves where --debug-recording asks for it.
Outcome<Done> begin_debug_recording(const ScanOptions& options);

/// A report with what is known before the first frame.
TrackReport begin_report(const std::string& recording, const ScanOptions& options, const ScanSettings& settings,
                         ImageSize imageSize, std::size_t frames, int step);

}  // namespace VexelAlgorithm::Apps
