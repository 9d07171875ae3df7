// How often a session whose scanner was carried off finds out where it is, and whether it ever believes a wrong place.
//   recovery_quality [trials [scale of the images [word of the scenes' names]]]
// The library's own lines go to standard error.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "foundation/diagnosticsCallBack.h"
#include "trials/kidnapping.h"

using namespace VexelTrial;

namespace {

void to_standard_error(const char* line, std::size_t length, void*) {
    std::fwrite(line, 1, length, stderr);
}

struct Case {
    const char* name;
    const char* scene;
    int scanned;  ///< of the 100 frames of a turn
    int first, last;
};

const Case CASES[] = {
    {"owl on a table, views of the half that was scanned", "owl_on_table", 50, 0, 45},
    {"blocks, the same", "blocks", 50, 0, 45},
    {"owl, the same", "owl", 50, 0, 45},
    {"owl on a table, views of the other half", "owl_on_table", 50, 65, 80},
    {"blocks, the same", "blocks", 50, 65, 80},
    {"owl, the same", "owl", 50, 65, 80},
    {"tower, scanned all around", "tower", 100, 0, 95},
    {"sphere", "sphere", 50, 0, 45},
    {"torus", "torus", 50, 0, 45},
    {"table", "table", 50, 0, 45},
};

void report(const std::string& name, const KidnapTally& t) {
    std::printf("%-52s %6d %6d %7d %7.2f %6d %6d %7.2f %8.2f %6.0f\n", name.c_str(), t.trials, t.found,
                t.foundByTracking, static_cast<double>(t.frames) / t.trials, t.wrong, t.wrongByTracking,
                t.worstMillimetres, t.worstDegrees, t.milliseconds / t.frames);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const int trials = argc > 1 ? std::atoi(argv[1]) : 40;
    const int scale = argc > 2 ? std::atoi(argv[2]) : 1;
    const std::string wanted = argc > 3 ? argv[3] : "";
    if (trials < 1 || scale < 1) return EXIT_FAILURE;
    const auto isWanted = [&](const std::string& name) { return name.find(wanted) != std::string::npos; };
    VexelAlgorithm::set_diagnostics_call_back(to_standard_error, nullptr);

    std::printf("%-52s %6s %6s %7s %7s %6s %6s %7s %8s %6s\n", "scene", "trials", "found", "tracked", "frames", "wrong",
                "slid", "mm", "degrees", "ms");
    for (const Case& c : CASES) {
        if (!isWanted(c.scene)) continue;
        report(c.name, kidnap(scene_on_arc(c.scene, 100, c.scanned, scale), trials, c.first, c.last, 1));
    }
    for (const char* name : {"blocks", "table", "torus", "tower"}) {
        if (!isWanted(name)) continue;
        const KidnapScene elsewhere = scene_on_arc(name, 100, 0, scale);
        report(std::string("owl on a table, then ") + name,
               kidnap(scene_on_arc("owl_on_table", 100, 50, scale), trials, 0, 95, 2, &elsewhere));
    }
    return EXIT_SUCCESS;
}
