// vexel-scan settings: what can be set, with its documentation.
#include <memory>

#include "apps/ScanSettings.h"
#include "apps/commands.h"
#include "apps/settingsFile.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {

void add_settings_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command(
        "settings", "Prints the settings of a preset as YAML, to be edited for track and scan --settings.");
    const auto preset = std::make_shared<std::string>("room");
    command.add_option("--preset", *preset, "Which settings").check(one_of(preset_names())).show_default();
    command.when_given([preset, &chosen] {
        chosen = [preset] {
            print_text(settings_text(preset_settings(*preset), "Settings of vexel-scan, preset " + *preset));
            return EXIT_OK;
        };
    });
}

}  // namespace VexelAlgorithm::Apps
