// The inputs from which fuzzing starts: whole files of every form that a target reads, as programs write them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace VexelFuzz {

/// One file; its name is that of the file in a corpus folder.
struct Seed {
    std::string name;
    std::string bytes;
};

/// "project", "calibration", ...: the names of the targets.
std::vector<std::string> target_names();
/// The same bytes in every run. Empty for a name that is none.
std::vector<Seed> seeds_of(std::string_view target);

std::vector<Seed> project_seeds();
std::vector<Seed> calibration_seeds();
std::vector<Seed> archive_seeds();
std::vector<Seed> debug_seeds();
std::vector<Seed> mesh_seeds();
std::vector<Seed> text_seeds();
std::vector<Seed> image_seeds();
std::vector<Seed> settings_seeds();

}  // namespace VexelFuzz
