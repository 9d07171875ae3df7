// The chosen image of a sweep lets the reconstruction find as much as nearly the best one.
#include "exposure/autoExposure.h"
#include "tests/common.h"
#include "trials/exposureSweeps.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTrial;

TEST(ExposureSweep, TheChosenImageCoversAtLeastNineteenTwentiethsOfTheBest) {
    const SweepBench bench(320);
    ASSERT_TRUE(bench.is_ready());
    for (const SweepObject& object : sweep_objects()) {
        if (object.name != "dark owl" && object.name != "bright owl on bright table" &&
            object.name != "shiny blocks on shiny table" && object.name != "bright ball and dark ball")
            continue;
        const Simulation::StereoSignals signals = bench.gather(object);
        std::vector<Simulation::StereoPair> pairs;
        std::vector<unsigned char*> images;
        std::vector<int> coverage;
        for (int k = -6; k <= 12; k += 2) pairs.push_back(bench.develop(object, signals, k));
        for (Simulation::StereoPair& pair : pairs) {
            images.push_back(pair.left.pixels.data());
            coverage.push_back(bench.coverage(pair));
        }
        Vector2i size = bench.size();
        void* handle = autoexposure_ini(nullptr, size, {1, 0, 1, 0}, "");
        int best = -1;
        EXPECT_EQ(exposureparameter_claculation(handle, images, best), RET_SUCCESS);
        const int most = *std::max_element(coverage.begin(), coverage.end());
        EXPECT_GT(most, 2000) << object.name;
        EXPECT_GE(coverage[static_cast<std::size_t>(best)], 0.95 * most) << object.name << ", image " << best;
        EXPECT_EQ(autoexposure_release(handle), RET_SUCCESS);
    }
}

}  // namespace
