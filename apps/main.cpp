// vexel-scan: the library's work from the command line.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <new>

#include "apps/CommandLine.h"
#include "apps/commands.h"

namespace VexelAlgorithm::Apps {

int report_failure(const Failure& failure) {
    std::cerr << "vexel-scan: " << failure.reason << std::endl;
    return EXIT_FAILED;
}

namespace {

int usage_failure(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help and --version
    std::string command = "vexel-scan";
    for (const CLI::App* given : app.get_subcommands()) command += ' ' + given->get_name();
    report_failure({std::string(error.what()) + " (see " + command + " --help)"});
    return EXIT_USAGE;
}

int run(int argc, char** argv) {
    CLI::App app("Turns recordings of stereo pairs or depth frames into models.", "vexel-scan");
    app.set_version_flag("--version", VEXEL_VERSION);
    app.require_subcommand(0, 1);
    const CommandLine commands(app);
    Command chosen;
    add_accuracy_command(commands, chosen);
    add_check_calibration_command(commands, chosen);
    add_expose_command(commands, chosen);
    add_fuse_command(commands, chosen);
    add_info_command(commands, chosen);
    add_mesh_command(commands, chosen);
    add_replay_command(commands, chosen);
    add_scan_command(commands, chosen);
    add_settings_command(commands, chosen);
    add_simulate_command(commands, chosen);
    add_track_command(commands, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return usage_failure(app, error);
    }
    if (!chosen) {
        std::cout << app.help();
        return EXIT_USAGE;
    }
    return chosen();
}

}  // namespace
}  // namespace VexelAlgorithm::Apps

int main(int argc, char** argv) {
    using namespace VexelAlgorithm::Apps;
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        return report_failure({"the memory is exhausted; take larger voxels or fewer frames"});
    } catch (const std::exception& error) {
        return report_failure({std::string("stopped by an unexpected error: ") + error.what()});
    }
}
