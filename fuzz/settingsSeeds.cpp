#include "apps/ScanSettings.h"
#include "apps/settingsFile.h"
#include "fuzz/seeds.h"

namespace VexelFuzz {

std::vector<Seed> settings_seeds() {
    using namespace VexelAlgorithm::Apps;
    std::vector<Seed> seeds;
    for (const std::string& name : preset_names()) seeds.push_back({name, settings_text(preset_settings(name), name)});
    // Whole files are long; a fuzzer gets further with the few lines that a user writes.
    seeds.push_back({"short", "fusion:\n  pointDis: 0.5\n  treeDepth: 12\ntrack:\n  icpDis: [ 3, 1.5 ]\n"});
    seeds.push_back({"flow", "fusion: { pointDis: 1e-1, treeDepth: 10 }\ncommon: { outputPath: \"a\\\\b\\\"c\" }\n"});
    seeds.push_back(
        {"lists", "rig:\n  leftCalib: [ 1200, 1200, 640, 512, 0 ]\ntexture:\n  trackerToken: \"4294967296\"\n"});
    seeds.push_back({"rig", rig_settings_text(preset_settings("desk"), "rig")});
    return seeds;
}

}  // namespace VexelFuzz
