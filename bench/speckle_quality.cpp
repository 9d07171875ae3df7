// How well the reconstruction agrees with the truth of a virtual scanner, scene by scene. Full size, two pixels a slot.
//   speckle_quality [sample [word of the scenes' names]]
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "SpeckleRebCPU/speckleRebuild.h"
#include "trials/virtualRig.h"

using namespace VexelAlgorithm;

int main(int argc, char** argv) {
    const int sample = argc > 1 ? std::atoi(argv[1]) : 2;
    const std::string wanted = argc > 2 ? argv[2] : "";
    const Simulation::StereoRig rig = Simulation::make_stereo_rig();
    const RebParam param = VexelTrial::rig_settings(rig, sample);
    void* handle = speckle_rebuild_cpu_ini(param);
    if (handle == nullptr) return EXIT_FAILURE;
    std::printf("%-18s %8s %9s %10s %8s %8s %8s %8s %8s %7s\n", "scene", "points", "matched %", "wrong/1000", "px rms",
                "inside", "bias", "normal", "inside", "cpu ms");
    for (const VexelTrial::RigScene& scene : VexelTrial::rig_scenes()) {
        if (scene.name.find(wanted) == std::string::npos) continue;
        const VexelTrial::RigView view = VexelTrial::view_of(scene, rig, param);
        PointImage result;
        result.ini(view.truth.get_image_width(), view.truth.get_image_height());
        int timeMs = 0;
        const std::clock_t start = std::clock();
        if (run_speckle_rebuild_cpu(handle, view.left.data(), view.right.data(), result, timeMs) != RET_SUCCESS)
            return EXIT_FAILURE;
        const double processorMs = 1000.0 * static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
        const VexelTrial::Agreement a = VexelTrial::agreement(view, result);
        std::printf("%-18s %8zu %9.2f %10.2f %8.4f %8.4f %8.4f %8.2f %8.2f %7.0f\n", scene.name.c_str(), a.points,
                    100.0 * a.matched, 1000.0 * a.wrong, a.parallaxRms, a.parallaxInside, a.parallaxBias, a.normalRms,
                    a.normalInside, processorMs);
        std::fflush(stdout);
    }
    speckle_rebuild_cpu_release(handle);
}
