// The subcommands of vexel-scan.
#pragma once

#include <functional>

#include "apps/CommandLine.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm::Apps {

/// Exit codes of the tool.
enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,        ///< bad input or a file that cannot be written; one line on standard error says which
    EXIT_USAGE = 2,         ///< an option that is missing, unknown or out of its range
    EXIT_INTERRUPTED = 130  ///< stopped by Ctrl-C; what was done until then is written
};

/// What the chosen subcommand does; the result is the exit code.
using Command = std::function<int()>;

/// Each adds one subcommand with its options; when it is given on the command line, `chosen` is set.
void add_accuracy_command(const CommandLine& app, Command& chosen);
void add_check_calibration_command(const CommandLine& app, Command& chosen);
void add_expose_command(const CommandLine& app, Command& chosen);
void add_fuse_command(const CommandLine& app, Command& chosen);
void add_info_command(const CommandLine& app, Command& chosen);
void add_mesh_command(const CommandLine& app, Command& chosen);
void add_replay_command(const CommandLine& app, Command& chosen);
void add_scan_command(const CommandLine& app, Command& chosen);
void add_settings_command(const CommandLine& app, Command& chosen);
void add_simulate_command(const CommandLine& app, Command& chosen);
void add_track_command(const CommandLine& app, Command& chosen);

/// Prints "vexel-scan: " and the reason on standard error; returns EXIT_FAILED.
int report_failure(const Failure& failure);

}  // namespace VexelAlgorithm::Apps
