#include "apps/commonOptions.h"

#include "apps/numberOptions.h"

namespace VexelAlgorithm::Apps {

void add_mesh_format_option(const CommandLine& command, std::string& format) {
    command.add_option("--format", format, "Mesh format").check(one_of({"ply", "obj", "stl"})).show_default();
}

void add_session_threads_option(const CommandLine& command, int& threads) {
    command.add_option("--threads", threads, "Worker threads; 0 leaves it to fusion.codeNumSet")
        .check(number_between(0, 256))
        .show_default();
}

}  // namespace VexelAlgorithm::Apps
