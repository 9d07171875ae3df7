// The two locked thresholds change while a registration runs. One worker, so that all threads are std::thread.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/track/trackScenes.h"
#include "track/IcpBaseOnCam.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTest;

TEST(IcpThresholds, MayBeSetWhileARegistrationRuns) {
    const RigidMatrix truth = motion({0.01, -0.008, 0.015}, {0.8, -0.5, 1.1});
    const auto scene = Simulation::make_scene("blocks");
    Simulation::RenderSettings settings;
    settings.threads = 1;
    const auto view = [&](const RigidMatrix& pose) {
        return Simulation::render(*scene, test_camera(80), 80, 60, pose, settings);
    };
    const PointImage fixed = view(front_view()), moving = view(front_view() * truth);
    Track::IcpBaseOnCam icp(20, 6, {1, 6}, 0.5F, {0.1F, 0.1F}, "", {0.8F, 0.95F}, 1);

    std::atomic<bool> isDone{false};
    int torn = 0;
    std::thread session([&] {
        while (!isDone) {
            const float share = icp.get_rata()(0) == 0.1F ? 0.2F : 0.1F;
            icp.set_rata({share, share});
            icp.set_disAvgThread(share + 0.3F);
            if (icp.get_rata()(0) != icp.get_rata()(1)) ++torn;
            (void)icp.get_disAvgThread();
            icp.set_debug(false);
        }
    });
    for (int i = 0; i < 20; ++i) {
        RigidMatrix result;
        EXPECT_EQ(icp.realTimeIcp(fixed, moving, result, {}, 0, false), RET_SUCCESS);
        EXPECT_LT(distance_between(result, truth, {0, 0, 400}), 0.1);
    }
    isDone = true;
    session.join();
    EXPECT_EQ(torn, 0);
}

}  // namespace
