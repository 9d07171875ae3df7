#include "fuzz/seeds.h"

namespace VexelFuzz {
namespace {

struct Target {
    const char* name;
    std::vector<Seed> (*seeds)();
};

constexpr Target targets[] = {
    {"archive", archive_seeds},   {"calibration", calibration_seeds}, {"debug", debug_seeds}, {"image", image_seeds},
    {"mesh", mesh_seeds},         {"project", project_seeds},         {"text", text_seeds},
#ifdef VEXEL_FUZZ_SETTINGS
    {"settings", settings_seeds},
#endif
};

}  // namespace

std::vector<std::string> target_names() {
    std::vector<std::string> names;
    for (const Target& target : targets) names.emplace_back(target.name);
    return names;
}

std::vector<Seed> seeds_of(std::string_view name) {
    for (const Target& target : targets)
        if (name == target.name) return target.seeds();
    return {};
}

}  // namespace VexelFuzz
