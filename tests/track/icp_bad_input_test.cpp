// Images, poses and settings that cannot be used: the code, one line, nothing changed, and the object goes on working.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/track/trackScenes.h"
#include "track/IcpBaseOnCam.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Track;
using namespace VexelTest;

constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float Infinity = std::numeric_limits<float>::infinity();
const RigidMatrix Small = motion({0.01, -0.008, 0.015}, {0.8, -0.5, 1.1});

using Change = std::function<void(PointImage&)>;

void reset_grid(PointImage& image, const CameraInParam& camera, const Vector2f& viewRadial) {
    const PointImage old = image;
    image.ini(old.get_image_width(), old.get_image_height(), camera, 1, viewRadial);
    image.set_vCoords(old.get_vCoords());
    image.set_vNrvs(old.get_vNrvs());
}
Change with_camera(double fx, double fy, double cx) {
    return [=](PointImage& image) { image.set_camPar({fx, fy, cx, 50}); };
}
Change with_radial(float x, float y) {
    return [=](PointImage& image) { reset_grid(image, image.get_camPar(), {x, y}); };
}
Change every_point(const Vector3f& point) {
    return [=](PointImage& image) { image.set_vCoords(std::vector<Vector3f>(image.get_vn(), point)); };
}
Change every_normal(const Vector3f& normal) {
    return [=](PointImage& image) { image.set_vNrvs(std::vector<Vector3f>(image.get_vn(), normal)); };
}

struct BadInput {
    const char* name;
    Change fixed, moving;
    RigidMatrix initial;
    RetVal code;
    std::string line;  // all that is printed
};

std::vector<BadInput> bad_inputs() {
    const Change keep = [](PointImage&) {};
    const Change fewNormals = [](PointImage& image) { image.set_vNrvs({{0, 0, 1}}); };
    const Change noWeights = [](PointImage& image) { image.set_vWeights(std::vector<float>(image.get_vn(), NaN)); };
    const Change noSlots = [](PointImage& image) { image.ini(0, 0, image.get_camPar(), 1, Vector2f::Zero()); };
    const std::string none = "icp False correspondNum = 0 \n", camera = "the fixed image's camera is not usable";
    const auto refused = [](const std::string& reason) { return "realTimeIcp fail because " + reason + "\n"; };
    const std::string outside =
        "wrong pixPointBelongTo < 0 || pixPointBelongTo >= _fixCloudVaildMap.size()\npixPointBelongTo = ";
    const double huge = 1e300;
    const auto of_fixed = [&](const char* name, const Change& change, RetVal code, const std::string& line) {
        return BadInput{name, change, keep, {}, code, line};
    };
    const auto of_moving = [&](const char* name, const Change& change, RetVal code, const std::string& line) {
        return BadInput{name, keep, change, {}, code, line};
    };
    const auto of_pose = [&](const char* name, const RigidMatrix& pose, RetVal code, const std::string& line) {
        return BadInput{name, keep, keep, pose, code, line};
    };
    const std::string arrays = " image's arrays do not agree with its size";
    return {
        of_fixed("fixed normals", fewNormals, RET_INPUT_ERROR, refused("the fixed" + arrays)),
        of_moving("moving normals", fewNormals, RET_INPUT_ERROR, refused("the moving" + arrays)),
        of_fixed("no focal length", with_camera(0, 100, 50), RET_INPUT_ERROR, refused(camera)),
        of_fixed("NaN focal length", with_camera(100, NaN, 50), RET_INPUT_ERROR, refused(camera)),
        of_fixed("infinite centre", with_camera(100, 100, Infinity), RET_INPUT_ERROR, refused(camera)),
        of_fixed("absurd camera", with_camera(huge, huge, 50), RET_INPUT_ERROR, refused(camera)),
        of_fixed("NaN radial", with_radial(NaN, 0), RET_INPUT_ERROR,
                 refused("the fixed image's view radial is not finite")),
        of_fixed("absurd radial", with_radial(1e30F, -1e30F), RET_NOT_CONVERGED,
                 outside + "9000000000000000000\n" + none),
        of_pose("NaN initial pose", motion({0, 0, 0}, {0, NaN, 0}), RET_INPUT_ERROR,
                refused("the initial pose is not finite")),
        of_pose("absurd initial pose", motion({0, 0, 0}, {huge, huge, huge}), RET_NOT_CONVERGED, none),
        of_pose("behind the camera", motion({0, 3.14159, 0}, {0, 0, 0}), RET_NOT_CONVERGED, none),
        of_fixed("no fixed slots", noSlots, RET_NOT_CONVERGED, none),
        of_moving("no moving slots", noSlots, RET_NOT_CONVERGED, none),
        {"NaN points", every_point({NaN, NaN, NaN}), every_point({0, 0, Infinity}), {}, RET_NOT_CONVERGED, none},
        {"points at the lens", every_point({0, 0, 1e-6F}), every_point({0, 0, 1e-20F}), {}, RET_NOT_CONVERGED, none},
        of_moving("far points", every_point({3e38F, -3e38F, 3e38F}), RET_NOT_CONVERGED, none),
        of_fixed("NaN normals", every_normal({NaN, 0, 1}), RET_NOT_CONVERGED, none),
        of_moving("tiny normals", every_normal({0, 1e-6F, 0}), RET_NOT_CONVERGED, none),
        of_fixed("huge normals", every_normal({3e38F, 3e38F, 3e38F}), RET_NOT_CONVERGED, none),
        of_moving("NaN weights", noWeights, RET_NOT_CONVERGED, none),
    };
}

TEST(IcpBadInput, OneLineAndNothingChanged) {
    const auto scene = Simulation::make_scene("blocks");
    const PointImage view = render_view(*scene, front_view(), 100);
    const PointImage moved = render_view(*scene, front_view() * Small, 100);
    IcpBaseOnCam icp(20, 6, {1, 6}, 0.5F, {0.1F, 0.1F}, "", {0.8F, 0.95F}, 2);
    const RigidMatrix before = motion({1, 2, 3}, {4, 5, 6});
    for (const BadInput& bad : bad_inputs()) {
        SCOPED_TRACE(bad.name);
        PointImage fixed = view, moving = moved;
        bad.fixed(fixed);
        bad.moving(moving);
        RigidMatrix result = before;
        testing::internal::CaptureStdout();
        EXPECT_EQ(icp.realTimeIcp(fixed, moving, result, bad.initial, 0, true), bad.code);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), bad.line);
        EXPECT_EQ(result.get_rotation(), before.get_rotation());
        EXPECT_EQ(result.get_translation(), before.get_translation());

        EXPECT_EQ(icp.realTimeIcp(view, moved, result, {}, 0, false), RET_SUCCESS);
        EXPECT_LT(distance_between(result, Small, {0, 0, 400}), 0.1);
    }
}

struct BadSettings {
    const char* name;
    int iterNum, iterNumFixed;
    Vector2f icpDis;
    float disAvgThread;
    Vector2f rata, corrRatio;
    bool isUsable;
    RetVal code;
};

TEST(IcpBadInput, SettingsOutOfTheirRange) {
    constexpr int Lowest = std::numeric_limits<int>::min(), Highest = std::numeric_limits<int>::max();
    const Vector2f gates{1, 6}, shares{0.1F, 0.1F}, ratios{0.8F, 0.95F}, nan{NaN, NaN};
    const BadSettings cases[] = {
        {"negative iterations", Lowest, Highest, gates, 0.5F, shares, ratios, false, RET_INI_ERROR},
        {"no fine iteration", 20, 20, gates, 0.5F, shares, ratios, false, RET_INI_ERROR},
        {"any number of iterations", Highest, 6, gates, 0.5F, shares, ratios, true, RET_SUCCESS},
        {"negative coarse ones", 20, Lowest, {6, 6}, 0.5F, shares, ratios, true, RET_SUCCESS},
        {"NaN gates", 20, 6, nan, 0.5F, shares, ratios, false, RET_INI_ERROR},
        {"negative gates", 20, 6, {-2, -1}, 0.5F, shares, ratios, true, RET_NOT_CONVERGED},
        {"NaN distance", 20, 6, gates, NaN, shares, ratios, true, RET_NOT_CONVERGED},
        {"NaN shares", 20, 6, gates, 0.5F, nan, ratios, true, RET_NOT_CONVERGED},
        {"ratio of 1 and more", 20, 6, gates, 0.5F, shares, {1, 1e30F}, true, RET_SUCCESS},
        {"infinite ratio", 20, 6, gates, 0.5F, shares, {Infinity, Infinity}, true, RET_SUCCESS},
        {"NaN ratio", 20, 6, gates, 0.5F, shares, nan, true, RET_SUCCESS},
    };
    const auto scene = Simulation::make_scene("blocks");
    const PointImage view = render_view(*scene, front_view(), 100);
    const PointImage moved = render_view(*scene, front_view() * Small, 100);
    for (const BadSettings& bad : cases) {
        SCOPED_TRACE(bad.name);
        IcpBaseOnCam icp(bad.iterNum, bad.iterNumFixed, bad.icpDis, bad.disAvgThread, bad.rata, "", bad.corrRatio, -7);
        EXPECT_EQ(icp.get_inisucc(), bad.isUsable);
        RigidMatrix result;
        EXPECT_EQ(icp.realTimeIcp(view, moved, result, {}, 0, false), bad.code);
    }

    // A negative ratio keeps the nearest pair alone, which holds nothing: no crash is all that can be asked.
    IcpBaseOnCam nearest(20, 6, gates, 0.5F, shares, "", {-1, -Infinity}, 2);
    RigidMatrix result;
    EXPECT_NE(nearest.realTimeIcp(view, moved, result, {}, 0, false), RET_RUN_FAIL);
}

TEST(IcpBadInput, SettersKeepWhatIsUsable) {
    IcpBaseOnCam icp(20, 6, {1, 6}, 0.5F, {0.1F, 0.1F}, "", {0.8F, 0.95F}, 2);
    for (const Vector2f& gates : {Vector2f(2, 1), Vector2f(NaN, 1), Vector2f(1, Infinity)}) {
        testing::internal::CaptureStdout();
        icp.set_icpDis(gates);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "set_icpDis fail because icpDis(1)<icpDis(0) or a value is not finite\n");
        EXPECT_EQ(icp.get_icpDis(), Vector2f(1, 6));
    }
    icp.set_icpDis({2, 3});
    EXPECT_EQ(icp.get_icpDis(), Vector2f(2, 3));
    testing::internal::CaptureStdout();
    icp.reset_code_Num(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "reset_code_Num fail because the step is below 1\n");
    testing::internal::CaptureStdout();
    icp.debug_outpu_data(0);  // before any registration, into a folder that is none
    IcpBaseOnCam(20, 6, {1, 6}, 0.5F, {0.1F, 0.1F}, "/nowhere/at all", {0.8F, 0.95F}, 2).output_corr_point(0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("output_corr_point fail because "), std::string::npos);
    std::remove("icpFixed_0.txt");
    std::remove("icpMoving_0.txt");
}

}  // namespace
