// Projective ICP against the truth of the virtual world.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "simulation/NoiseModel.h"
#include "tests/track/trackScenes.h"
#include "track/IcpBaseOnCam.h"
#include "track/IcpSchedule.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Track;
using namespace VexelTest;

constexpr float Infinity = std::numeric_limits<float>::infinity();
const RigidMatrix Small = motion({0.01, -0.008, 0.015}, {0.8, -0.5, 1.1});

struct Settings {
    int iterNum = 20;
    int iterNumFixed = 6;
    Vector2f icpDis{1.0F, 6.0F};
    float disAvgThread = 0.5F;
    Vector2f rata{0.15F, 0.3F};
    Vector2f corrRatio{0.8F, 0.95F};
    int threads = 2;
    std::string debugPath = "";

    IcpBaseOnCam icp() const {
        return {iterNum, iterNumFixed, icpDis, disAvgThread, rata, debugPath, corrRatio, threads};
    }
};

struct Outcome {
    RetVal code = RET_STATE_ERROR;
    RigidMatrix pose;
    std::string printed;
};

Outcome run(IcpBaseOnCam& icp, const PointImage& fixed, const PointImage& moving, const RigidMatrix& initial = {},
            bool acceptFar = false, const RigidMatrix& before = {}) {
    Outcome outcome;
    outcome.pose = before;
    testing::internal::CaptureStdout();
    outcome.code = icp.realTimeIcp(fixed, moving, outcome.pose, initial, 1000000, acceptFar);
    outcome.printed = testing::internal::GetCapturedStdout();
    return outcome;
}

const PointImage& object_view() {
    static const PointImage view = render_view(*Simulation::make_scene("owl_on_table"), front_view());
    return view;
}
/// The view of a camera that has moved: the true pose from this frame to `object_view` is the motion.
PointImage moved_view(const RigidMatrix& motion) {
    return render_view(*Simulation::make_scene("owl_on_table"), front_view() * motion);
}

/// Largest distance (mm) by which the poses move points of the object apart.
double pose_error(const RigidMatrix& found, const RigidMatrix& truth) {
    return std::max(distance_between(found, truth, {0, 0, 300}), distance_between(found, truth, {50, 50, 450}));
}

// ---- registration -----------------------------------------------------------------------------------

TEST(Icp, FindsTheMotionForwardsAndBackwards) {
    const RigidMatrix starts[] = {{}, motion({0, 0, 0.05}, {4, 0, 0}), motion({0.015, -0.015, 0}, {-2, 2, 1})};
    Settings wide;
    wide.iterNum = 30;
    wide.iterNumFixed = 12;
    wide.icpDis = {1, 10};
    const RigidMatrix motions[] = {Small, motion({-0.02, 0.03, 0}, {-4, 2, -1}), motion({0, 0, 0.05}, {0, 0, 3})};
    for (const RigidMatrix& truth : motions) {
        const PointImage moving = moved_view(truth);
        for (const RigidMatrix& start : starts) {
            IcpBaseOnCam icp = wide.icp();
            const Outcome forwards = run(icp, object_view(), moving, start);
            EXPECT_EQ(forwards.code, RET_SUCCESS) << forwards.printed;
            EXPECT_LT(pose_error(forwards.pose, truth), 0.06);
            EXPECT_LT(icp.get_residual(), 0.1F);
            EXPECT_TRUE(icp.get_isStable_icp());
            const Outcome backwards = run(icp, moving, object_view(), start.inverse());
            EXPECT_EQ(backwards.code, RET_SUCCESS) << backwards.printed;
            EXPECT_LT(pose_error(backwards.pose, truth.inverse()), 0.06);
            EXPECT_EQ(icp.get_end(), IcpEnd::Accepted);
        }
    }
}

TEST(Icp, NoiseAveragesOut) {
    PointImage fixed = object_view(), moving = moved_view(Small);
    ASSERT_TRUE(Simulation::apply_noise(fixed, {}, 1) && Simulation::apply_noise(moving, {}, 2));
    IcpBaseOnCam icp = Settings().icp();
    const Outcome outcome = run(icp, fixed, moving);
    EXPECT_EQ(outcome.code, RET_SUCCESS);
    EXPECT_LT(pose_error(outcome.pose, Small), 0.05);  // of 0.1 mm a point
}

// One thread sums in the order in which several are made to.
TEST(Icp, TheNumberOfThreadsDoesNotMatter) {
    const PointImage moving = moved_view(Small);
    Settings settings;
    settings.threads = 1;
    IcpBaseOnCam one = settings.icp();
    const Outcome expected = run(one, object_view(), moving);
    for (const int threads : {2, 3, -3}) {
        settings.threads = threads;
        IcpBaseOnCam several = settings.icp();
        const Outcome outcome = run(several, object_view(), moving);
        EXPECT_EQ(outcome.pose.get_rotation(), expected.pose.get_rotation()) << threads;
        EXPECT_EQ(outcome.pose.get_translation(), expected.pose.get_translation()) << threads;
        EXPECT_EQ(several.get_residual(), one.get_residual()) << threads;
    }
}

TEST(Icp, ImagesOfOtherSizesAndSlotGrids) {
    const auto scene = Simulation::make_scene("owl_on_table");
    IcpBaseOnCam icp = Settings().icp();
    for (const int width : {240, 100}) {
        const PointImage moving = render_view(*scene, front_view() * Small, width);
        for (const Vector2f& viewRadial : {Vector2f(0, 0), Vector2f(0.4F, -0.3F), Vector2f(3, 2)}) {
            const PointImage fixed = render_view(*scene, front_view(), 160, viewRadial);
            const Outcome outcome = run(icp, fixed, moving);
            EXPECT_EQ(outcome.code, RET_SUCCESS) << outcome.printed;
            EXPECT_LT(pose_error(outcome.pose, Small), 0.05) << width << ' ' << viewRadial.transpose();
        }
    }
}

TEST(Icp, BarePlaneIsReportedUnstableAndDoesNotSlide) {
    const auto plane = Simulation::half_space({0, 0, 0}, {0.1, -1, 0.2});
    const RigidMatrix truth = motion({0.01, 0.008, 0}, {0, 0, 1.5});
    IcpBaseOnCam icp = Settings().icp();
    const Outcome outcome =
        run(icp, render_view(*plane, front_view()), render_view(*plane, front_view() * truth), RigidMatrix());
    EXPECT_EQ(outcome.code, RET_SUCCESS);
    EXPECT_FALSE(icp.get_isStable_icp());
    EXPECT_EQ(outcome.printed.find("this is a unstable , icp may fail. "), 0U) << outcome.printed;
    EXPECT_NE(outcome.printed.find(" < 5.000000 \n"), std::string::npos) << outcome.printed;
    const Vector3d centre = outcome.pose * Vector3d(0, 0, 400);
    EXPECT_LT(centre.head<2>().norm(), 0.5);
    EXPECT_GT(centre.z(), 401.0);

    IcpBaseOnCam onObject = Settings().icp();
    onObject.set_icpStableThreadhold(1e9F);
    EXPECT_EQ(run(onObject, object_view(), moved_view(Small)).code, RET_SUCCESS);
    EXPECT_FALSE(onObject.get_isStable_icp());
}

// ---- every way to end -------------------------------------------------------------------------------

struct Attempt {
    Settings settings;
    PointImage fixed = object_view(), moving = moved_view(Small);
    RigidMatrix initial;
};
using Change = void (*)(Attempt&);

struct Ending {
    const char* name;
    Change change;
    IcpEnd end;
    RetVal code;
    float residual;       // negative: any
    std::string printed;  // the beginning of it
};

std::vector<Ending> endings() {
    const Change wrongGates = [](Attempt& a) { a.settings.icpDis = Vector2f(2, 1); };
    const Change noFixedNormals = [](Attempt& a) { a.fixed.disable_vNormal(); };
    const Change noNormals = [](Attempt& a) { a.moving.disable_vNormal(); };
    const Change noWeights = [](Attempt& a) { a.moving.disable_vWeight(); };
    const Change sameImage = [](Attempt& a) { a.moving = a.fixed; };
    const Change turnedAway = [](Attempt& a) { a.initial = motion({0, 3, 0}, {0, 0, 0}); };
    const Change empty = [](Attempt& a) { a.fixed.setZero(); };
    const Change infinite = [](Attempt& a) { a.moving.set_vWeights(std::vector<float>(a.moving.get_vn(), Infinity)); };
    const Change strict = [](Attempt& a) { a.settings.disAvgThread = 1e-4F; };
    const Change allMoving = [](Attempt& a) { a.settings.rata = Vector2f(0, 1); };
    const Change allFixed = [](Attempt& a) { a.settings.rata = Vector2f(1, 0); };
    const Change onlyBorder = [](Attempt& a) {
        for (std::size_t i = 0; i < a.moving.get_vn(); ++i) {
            if (i % 160 >= 4) a.moving.set_slot_empty(i);
        }
    };
    const std::string none = "icp False correspondNum = 0 \n", few = "icp False , vaildCorrNum too small \n",
                      configuration =
                          "ini fail because icpDis(1)<icpDis(0) || icpAng(1) < icpAng(0)|| iterNum <= 0 || "
                          "(iterNum - iterNumFixed) <= 3\n",
                      attributes =
                          "!cloudFixed.is_enable_vNormal() || !cloudMove.is_enable_vNormal()|| "
                          "!cloudMove.is_enable_vWeight()\n",
                      coincide = "Error!!!! icp failed because average distance = 0\n",
                      singular = "icp False covMat.determinant() is too small \n",
                      residual = "icp False , because disAvg > disThread\ndisAvg = 0.0";
    return {
        {"configuration", wrongGates, IcpEnd::BadConfiguration, RET_INI_ERROR, 0.0F, configuration},
        {"fixed normals", noFixedNormals, IcpEnd::BadInput, RET_INPUT_ERROR, 0.0F, attributes},
        {"moving normals", noNormals, IcpEnd::BadInput, RET_INPUT_ERROR, 0.0F, attributes},
        {"moving weights", noWeights, IcpEnd::BadInput, RET_INPUT_ERROR, 0.0F, attributes},
        {"same image", sameImage, IcpEnd::ZeroDistance, RET_INPUT_ERROR, 0.0F, coincide},
        {"nothing in view", turnedAway, IcpEnd::NoCorrespondences, RET_NOT_CONVERGED, 1e6F, none},
        {"all at the border", onlyBorder, IcpEnd::NoCorrespondences, RET_NOT_CONVERGED, 1e6F, none},
        {"empty image", empty, IcpEnd::NoCorrespondences, RET_NOT_CONVERGED, 1e6F, none},
        {"infinite weight", infinite, IcpEnd::SingularSystem, RET_INI_ERROR, 1e6F, singular},
        {"residual", strict, IcpEnd::ResidualTooLarge, RET_NOT_CONVERGED, -1.0F, residual},
        {"few moving points", allMoving, IcpEnd::TooFewValid, RET_NOT_CONVERGED, -1.0F, few},
        {"few fixed pixels", allFixed, IcpEnd::TooFewValid, RET_NOT_CONVERGED, -1.0F, few},
    };
}

TEST(Icp, EveryEndHasItsCodeItsLineAndItsResult) {
    const RigidMatrix before = motion({1, 2, 3}, {4, 5, 6});
    for (const Ending& expected : endings()) {
        SCOPED_TRACE(expected.name);
        Attempt attempt;
        expected.change(attempt);
        testing::internal::CaptureStdout();
        IcpBaseOnCam icp = attempt.settings.icp();
        const std::string refusal =
            "ini fail because icpDis(1)<icpDis(0) || iterNum <= 0 || (iterNum - iterNumFixed) <= 3\n";
        const bool isUsable = expected.end != IcpEnd::BadConfiguration;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), isUsable ? "" : refusal);
        EXPECT_EQ(icp.get_inisucc(), isUsable);

        const Outcome outcome = run(icp, attempt.fixed, attempt.moving, attempt.initial, false, before);
        EXPECT_EQ(outcome.code, expected.code);
        EXPECT_EQ(icp.get_end(), expected.end);
        EXPECT_EQ(outcome.printed.substr(0, expected.printed.size()), expected.printed);
        EXPECT_EQ(icp.get_residual(), expected.residual >= 0.0F ? expected.residual : icp.get_residual());
        const bool isWritten = expected.end == IcpEnd::ResidualTooLarge;
        EXPECT_EQ(outcome.pose.get_translation() == before.get_translation(), !isWritten);
        EXPECT_LT(isWritten ? pose_error(outcome.pose, Small) : 0.0, 0.05);
    }
}

TEST(Icp, TooFewValidPrintsThresholdsAndCount) {
    Settings settings;
    settings.rata = {0.0F, 1.0F};
    IcpBaseOnCam icp = settings.icp();
    const std::string printed = run(icp, object_view(), moved_view(Small)).printed;
    EXPECT_NE(printed.find("_IcpRataRay(0) = 0.000000     _IcpRataRay(1) = 1.000000  \nvaildCorrNum = "),
              std::string::npos);
    EXPECT_EQ(printed.substr(printed.size() - 2), " \n");
    const Vector3f record = icp.get_corr_par();
    EXPECT_GT(record(0), 0.5F * record(2));
    EXPECT_EQ(record(1), 0.0F);
    EXPECT_EQ(record(2), static_cast<float>(moved_view(Small).count_vaildNum()));
}

// ---- schedules and candidates -----------------------------------------------------------------------

TEST(IcpSchedule, ShrinksOverTheCoarseIterations) {
    struct Case {
        int iterNumFixed, iterId;
        float gate, ratio;
    };
    const Case cases[] = {{4, 0, 7, 0.5F}, {4, 1, 5, 0.6F}, {4, 3, 1, 0.8F},  {4, 4, 1, 0.8F},         {1, 0, 7, 0.5F},
                          {1, 1, 1, 0.8F}, {0, 0, 1, 0.8F}, {-3, 0, 1, 0.8F}, {4, 2147483646, 1, 0.8F}};
    for (const Case& c : cases) {
        const IcpSchedule schedule{2147483647, c.iterNumFixed, {1, 7}, {0.5F, 0.8F}};
        EXPECT_TRUE(schedule.is_usable());
        EXPECT_NEAR(schedule.disSchedule(c.iterId), c.gate, 1e-5F) << c.iterNumFixed << ' ' << c.iterId;
        EXPECT_NEAR(schedule.ratioSchedule(c.iterId), c.ratio, 1e-6F) << c.iterNumFixed << ' ' << c.iterId;
    }
}

// The only iteration judges the initial pose; six coarse ones before it move it, and are no candidates themselves.
TEST(Icp, OnlyFineIterationsOfferTheirPose) {
    const PointImage moving = moved_view(Small);
    Settings settings;
    settings.iterNum = 1;
    settings.iterNumFixed = 0;
    settings.icpDis = {6, 6};
    settings.disAvgThread = 6.0F;
    settings.rata = {0.0F, 0.0F};
    const RigidMatrix start = motion({0, 0, 0}, {1, 0, 0});
    IcpBaseOnCam single = settings.icp();
    const Outcome judged = run(single, object_view(), moving, start);
    EXPECT_EQ(judged.code, RET_SUCCESS) << judged.printed;
    EXPECT_EQ(pose_error(judged.pose, start), 0.0);
    EXPECT_EQ(single.get_bestRecord_rt().get_translation(), start.get_translation());
    EXPECT_FALSE(single.get_isStable_icp());  // no system was built

    settings.iterNum = 7;
    settings.iterNumFixed = 6;
    IcpBaseOnCam coarse = settings.icp();
    EXPECT_LT(pose_error(run(coarse, object_view(), moving, start).pose, Small), 0.2);
    EXPECT_LT(coarse.get_corr_par()(0), static_cast<float>(moving.count_vaildNum()));
    EXPECT_GT(coarse.get_corr_par()(0), 0.8F * static_cast<float>(moving.count_vaildNum()));  // step 1 at last
}

TEST(Icp, FarPartnersCountOnlyWhenAccepted) {
    PointImage fixed = object_view();
    for (std::size_t slot = 0; slot < fixed.get_vn() / 3; ++slot) fixed.set_vCoord(slot, 1.2F * fixed.get_vCoord(slot));
    const PointImage moving = moved_view(Small);
    Settings settings;
    settings.disAvgThread = 100.0F;
    IcpBaseOnCam icp = settings.icp();
    EXPECT_EQ(run(icp, fixed, moving).code, RET_SUCCESS);
    const float near = icp.get_residual();
    EXPECT_EQ(run(icp, fixed, moving, {}, true).code, RET_SUCCESS);
    EXPECT_LT(near, 0.2F);
    EXPECT_GT(icp.get_residual(), 5.0F);
}

// ---- debugging --------------------------------------------------------------------------------------

std::size_t count_lines(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::string line;
    std::size_t lines = 0;
    while (std::getline(file, line)) ++lines;
    return lines;
}

TEST(Icp, DumpsAreOffInARegistrationAndWrittenOnRequest) {
    const std::filesystem::path folder = std::filesystem::path(testing::TempDir()) / "vexel_icp_dumps";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    Settings settings;
    settings.debugPath = folder.string();
    IcpBaseOnCam icp = settings.icp();
    icp.set_debug(true);  // cleared when the registration begins
    const PointImage moving = moved_view(Small);
    EXPECT_EQ(run(icp, object_view(), moving).code, RET_SUCCESS);
    EXPECT_TRUE(std::filesystem::is_empty(folder));

    icp.debug_outpu_data(3);
    icp.output_corr_point(3);
    EXPECT_EQ(count_lines(folder / "icpFixed_3.txt"), static_cast<std::size_t>(object_view().count_vaildNum()));
    EXPECT_EQ(count_lines(folder / "icpMoving_3.txt"), static_cast<std::size_t>(moving.count_vaildNum()));
    EXPECT_EQ(static_cast<float>(count_lines(folder / "icpCorrespond_3.txt")), icp.get_corr_par()(0));
    // Fixed point, normal, moving point, distance: registered pairs lie on each other's planes.
    std::ifstream pairs(folder / "icpCorrespond_3.txt");
    Vector3f q, n, m;
    float distance = 0.0F;
    pairs >> q[0] >> q[1] >> q[2] >> n[0] >> n[1] >> n[2] >> m[0] >> m[1] >> m[2] >> distance;
    EXPECT_NEAR(n.norm(), 1.0F, 1e-4F);
    EXPECT_LT(std::abs((q - m).dot(n)), 1.0F);
    std::filesystem::remove_all(folder);
}

}  // namespace
