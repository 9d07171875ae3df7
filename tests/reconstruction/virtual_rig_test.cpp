// The reconstruction on a virtual scanner's noisy pairs, against the truth: a quarter of the full image, the demo
// object and a smooth one. bench/speckle_quality judges full images of more scenes.
#include <gtest/gtest.h>

#include "SpeckleRebCPU/speckleRebuild.h"
#include "trials/virtualRig.h"

namespace VexelTrial {
namespace {

using namespace VexelAlgorithm;

TEST(VirtualRig, PointsAgreeWithTheTruth) {
    const struct {
        const char* scene;
        int sample;
        double matched, wrong, parallaxInside, normalInside;
    } cases[] = {{"owl, side", 2, 0.955, 0.001, 0.037, 3.1}, {"ball", 1, 0.985, 0.0005, 0.029, 0.7}};
    const Simulation::StereoRig rig = Simulation::make_stereo_rig(640, 512);
    for (const auto& c : cases) {
        const RebParam param = rig_settings(rig, c.sample);
        void* handle = speckle_rebuild_cpu_ini(param);
        ASSERT_NE(handle, nullptr);
        for (const RigScene& scene : rig_scenes()) {
            if (scene.name != c.scene) continue;
            const RigView view = view_of(scene, rig, param);
            PointImage result;
            result.ini(view.truth.get_image_width(), view.truth.get_image_height());
            int timeMs = 0;
            ASSERT_EQ(run_speckle_rebuild_cpu(handle, view.left.data(), view.right.data(), result, timeMs),
                      RET_SUCCESS);
            const Agreement found = agreement(view, result);
            EXPECT_GT(found.points, 5000U) << c.scene;
            EXPECT_GT(found.matched, c.matched) << c.scene;
            EXPECT_LT(found.wrong, c.wrong) << c.scene;
            EXPECT_LT(found.parallaxInside, c.parallaxInside) << c.scene;
            EXPECT_LT(std::abs(found.parallaxBias), 0.01) << c.scene;
            EXPECT_LT(found.normalInside, c.normalInside) << c.scene;
            for (std::size_t i = 0; i < result.get_vn(); ++i) {  // each on the ray of its slot
                const Vector3f &point = result.get_vCoord(i), &truth = view.truth.get_vCoord(i);
                if (!result.has_point(i) || !view.truth.has_point(i)) continue;
                ASSERT_LT((point / point.z() - truth / truth.z()).norm(), 1e-5F) << c.scene << ": " << i;
            }
        }
        EXPECT_EQ(speckle_rebuild_cpu_release(handle), RET_SUCCESS);
    }
}

}  // namespace
}  // namespace VexelTrial
