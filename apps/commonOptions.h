// Options that several commands have.
#pragma once

#include <string>

#include "apps/CommandLine.h"

namespace VexelAlgorithm::Apps {

/// --format: ply, obj or stl.
void add_mesh_format_option(const CommandLine& command, std::string& format);

/// --threads of a session; 0 leaves the number to its settings.
void add_session_threads_option(const CommandLine& command, int& threads);

}  // namespace VexelAlgorithm::Apps
