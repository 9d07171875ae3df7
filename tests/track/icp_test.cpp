// Projective ICP against the truth of the virtual world.
#include <filesystem>

#include "simulation/NoiseModel.h"
#include "tests/track/icpScenes.h"
#include "track/IcpSchedule.h"
#include "trials/TemporaryFolder.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Track;
using namespace VexelTest;
using namespace VexelTrial;

const PointImage& object_view() {
    static const PointImage view = render_view(*Simulation::make_scene("owl_on_table"), front_view());
    return view;
}
/// The view of a camera that has moved: the true pose from this frame to `object_view` is the motion.
PointImage moved_view(const RigidMatrix& motion) {
    return render_view(*Simulation::make_scene("owl_on_table"), front_view() * motion);
}

// ---- registration -----------------------------------------------------------------------------------

TEST(Icp, FindsTheMotionForwardsAndBackwards) {
    const RigidMatrix starts[] = {{}, motion({0, 0, 0.05}, {4, 0, 0}), motion({0.015, -0.015, 0}, {-2, 2, 1})};
    const IcpSettings wide{30, 12, {1, 10}};
    const RigidMatrix motions[] = {kSmallMotion, motion({-0.02, 0.03, 0}, {-4, 2, -1}),
                                   motion({0, 0, 0.05}, {0, 0, 3})};
    for (const RigidMatrix& truth : motions) {
        const PointImage moving = moved_view(truth);
        for (const RigidMatrix& start : starts) {
            IcpBaseOnCam icp = wide.icp();
            const IcpOutcome forwards = run(icp, object_view(), moving, start);
            EXPECT_EQ(forwards.code, RET_SUCCESS) << forwards.lines;
            EXPECT_LT(pose_error(forwards.pose, truth), 0.06);
            EXPECT_LT(icp.get_residual(), 0.1F);
            EXPECT_TRUE(icp.get_isStable_icp());
            const IcpOutcome backwards = run(icp, moving, object_view(), start.inverse());
            EXPECT_EQ(backwards.code, RET_SUCCESS) << backwards.lines;
            EXPECT_LT(pose_error(backwards.pose, truth.inverse()), 0.06);
            EXPECT_EQ(icp.get_end(), IcpEnd::Accepted);
        }
    }
}

// Noise averages out; one thread sums in the order in which several are made to.
TEST(Icp, NoiseAndTheNumberOfThreadsDoNotMatter) {
    PointImage fixed = object_view(), moving = moved_view(kSmallMotion);
    ASSERT_TRUE(Simulation::apply_noise(fixed, {}, 1) && Simulation::apply_noise(moving, {}, 2));
    RigidMatrix expected;
    for (const int threads : {1, 2, 3, -3}) {
        IcpSettings settings;
        settings.threads = threads;
        IcpBaseOnCam icp = settings.icp();
        const IcpOutcome outcome = run(icp, fixed, moving);
        EXPECT_EQ(outcome.code, RET_SUCCESS);
        EXPECT_LT(pose_error(outcome.pose, kSmallMotion), 0.05);  // of 0.1 mm a point
        if (threads == 1) expected = outcome.pose;
        EXPECT_EQ(outcome.pose.get_rotation(), expected.get_rotation()) << threads;
        EXPECT_EQ(outcome.pose.get_translation(), expected.get_translation()) << threads;
    }
}

TEST(Icp, ImagesOfOtherSizesAndSlotGrids) {
    const auto scene = Simulation::make_scene("owl_on_table");
    IcpBaseOnCam icp = IcpSettings().icp();
    for (const int width : {240, 100}) {
        const PointImage moving = render_view(*scene, front_view() * kSmallMotion, width);
        for (const Vector2f& viewRadial : {Vector2f(0, 0), Vector2f(0.4F, -0.3F), Vector2f(3, 2)}) {
            const PointImage fixed = render_view(*scene, front_view(), 160, viewRadial);
            const IcpOutcome outcome = run(icp, fixed, moving);
            EXPECT_EQ(outcome.code, RET_SUCCESS) << outcome.lines;
            EXPECT_LT(pose_error(outcome.pose, kSmallMotion), 0.05) << width << ' ' << viewRadial.transpose();
        }
    }
}

TEST(Icp, BarePlaneIsReportedUnstableAndDoesNotSlide) {
    const auto plane = Simulation::half_space({0, 0, 0}, {0.1, -1, 0.2});
    const RigidMatrix truth = motion({0.01, 0.008, 0}, {0, 0, 1.5});
    IcpBaseOnCam icp = IcpSettings().icp();
    const IcpOutcome outcome =
        run(icp, render_view(*plane, front_view()), render_view(*plane, front_view() * truth), RigidMatrix());
    EXPECT_EQ(outcome.code, RET_SUCCESS);
    EXPECT_FALSE(icp.get_isStable_icp());
    EXPECT_EQ(outcome.lines.find("this is a unstable , icp may fail. "), 0U) << outcome.lines;
    EXPECT_NE(outcome.lines.find(" < 5.000000 \n"), std::string::npos) << outcome.lines;
    const Vector3d centre = outcome.pose * Vector3d(0, 0, 400);
    EXPECT_LT(centre.head<2>().norm(), 0.5);
    EXPECT_GT(centre.z(), 401.0);

    IcpBaseOnCam onObject = IcpSettings().icp();
    onObject.set_icpStableThreadhold(1e9F);
    EXPECT_EQ(run(onObject, object_view(), moved_view(kSmallMotion)).code, RET_SUCCESS);
    EXPECT_FALSE(onObject.get_isStable_icp());
}

// ---- schedules and candidates -----------------------------------------------------------------------

TEST(IcpSchedule, ShrinksOverTheCoarseIterations) {
    constexpr int kLast = std::numeric_limits<int>::max();
    const std::tuple<int, int, float, float> cases[] = {// coarse iterations, iteration, gate, ratio
                                                        {4, 0, 7, 0.5F},     {4, 1, 5, 0.6F}, {4, 3, 1, 0.8F},
                                                        {4, kLast, 1, 0.8F}, {1, 0, 7, 0.5F}, {0, 0, 1, 0.8F},
                                                        {-3, 0, 1, 0.8F}};
    for (const auto& [iterNumFixed, iterId, gate, ratio] : cases) {
        const IcpSchedule schedule{kLast, iterNumFixed, {1, 7}, {0.5F, 0.8F}};
        EXPECT_TRUE(schedule.is_usable());
        EXPECT_NEAR(schedule.disSchedule(iterId), gate, 1e-5F) << iterNumFixed << ' ' << iterId;
        EXPECT_NEAR(schedule.ratioSchedule(iterId), ratio, 1e-6F) << iterNumFixed << ' ' << iterId;
    }
}

// The only iteration judges the initial pose; six coarse ones before it move it, and are no candidates themselves.
TEST(Icp, OnlyFineIterationsOfferTheirPose) {
    const PointImage moving = moved_view(kSmallMotion);
    IcpSettings settings{1, 0, {6, 6}, 6.0F, {0.0F, 0.0F}};
    const RigidMatrix start = motion({0, 0, 0}, {1, 0, 0});
    IcpBaseOnCam single = settings.icp();
    const IcpOutcome judged = run(single, object_view(), moving, start);
    EXPECT_EQ(judged.code, RET_SUCCESS) << judged.lines;
    EXPECT_EQ(pose_error(judged.pose, start), 0.0);
    EXPECT_EQ(single.get_bestRecord_rt().get_translation(), start.get_translation());
    EXPECT_FALSE(single.get_isStable_icp());  // no system was built

    settings.iterNum = 7;
    settings.iterNumFixed = 6;
    IcpBaseOnCam coarse = settings.icp();
    EXPECT_LT(pose_error(run(coarse, object_view(), moving, start).pose, kSmallMotion), 0.2);
    EXPECT_LT(coarse.get_corr_par()(0), static_cast<float>(moving.count_vaildNum()));
    EXPECT_GT(coarse.get_corr_par()(0), 0.8F * static_cast<float>(moving.count_vaildNum()));  // step 1 at last
}

TEST(Icp, FarPartnersCountOnlyWhenAccepted) {
    PointImage fixed = object_view();
    for (std::size_t slot = 0; slot < fixed.get_vn() / 3; ++slot) fixed.set_vCoord(slot, 1.2F * fixed.get_vCoord(slot));
    const PointImage moving = moved_view(kSmallMotion);
    IcpSettings settings;
    settings.disAvgThread = 100.0F;
    IcpBaseOnCam icp = settings.icp();
    EXPECT_EQ(run(icp, fixed, moving).code, RET_SUCCESS);
    const float near = icp.get_residual();
    EXPECT_EQ(run(icp, fixed, moving, {}, true).code, RET_SUCCESS);
    EXPECT_LT(near, 0.2F);
    EXPECT_GT(icp.get_residual(), 5.0F);
}

// ---- debugging --------------------------------------------------------------------------------------

TEST(Icp, DumpsAreOffInARegistrationAndWrittenOnRequest) {
    const TemporaryFolder temporary;
    const std::filesystem::path& folder = temporary.path();
    IcpSettings settings;
    settings.debugPath = folder.string();
    IcpBaseOnCam icp = settings.icp();
    icp.set_debug(true);  // cleared when the registration begins
    const PointImage moving = moved_view(kSmallMotion);
    EXPECT_EQ(run(icp, object_view(), moving).code, RET_SUCCESS);
    EXPECT_TRUE(std::filesystem::is_empty(folder));

    const auto lines_in = [&](const char* name) { return line_count(bytes_of(folder / name)); };
    icp.debug_outpu_data(3);
    icp.output_corr_point(3);
    EXPECT_EQ(lines_in("icpFixed_3.txt"), static_cast<int>(object_view().count_vaildNum()));
    EXPECT_EQ(lines_in("icpMoving_3.txt"), static_cast<int>(moving.count_vaildNum()));
    EXPECT_EQ(static_cast<float>(lines_in("icpCorrespond_3.txt")), icp.get_corr_par()(0));
    // Fixed point, normal, moving point, distance: registered pairs lie on each other's planes.
    std::ifstream pairs(folder / "icpCorrespond_3.txt");
    Vector3f q, n, m;
    float distance = 0.0F;
    pairs >> q[0] >> q[1] >> q[2] >> n[0] >> n[1] >> n[2] >> m[0] >> m[1] >> m[2] >> distance;
    EXPECT_NEAR(n.norm(), 1.0F, 1e-4F);
    EXPECT_LT(std::abs((q - m).dot(n)), 1.0F);
}

}  // namespace
