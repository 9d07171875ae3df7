// Options that several commands have.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace VexelAlgorithm::Apps {

/// --format: ply, obj or stl.
void add_mesh_format_option(CLI::App& command, std::string& format);

/// --threads of a session; 0 leaves the number to its settings.
void add_session_threads_option(CLI::App& command, int& threads);

}  // namespace VexelAlgorithm::Apps
