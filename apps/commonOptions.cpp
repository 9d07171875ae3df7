#include "apps/commonOptions.h"

#include "apps/numberOptions.h"

namespace VexelAlgorithm::Apps {

void add_mesh_format_option(CLI::App& command, std::string& format) {
    command.add_option("--format", format, "Mesh format")
        ->check(CLI::IsMember({"ply", "obj", "stl"}))
        ->capture_default_str();
}

void add_session_threads_option(CLI::App& command, int& threads) {
    command.add_option("--threads", threads, "Worker threads; 0 leaves it to fusion.codeNumSet")
        ->check(number_between(0, 256))
        ->capture_default_str();
}

}  // namespace VexelAlgorithm::Apps
