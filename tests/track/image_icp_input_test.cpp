// Images, sizes and settings that the registration of images cannot use.
#include <limits>

#include "tests/track/markImages.h"
#include "tests/track/particleScenes.h"
#include "track/IcpOnImage.h"

namespace VexelAlgorithm::Track {
namespace {

using namespace VexelTest;

constexpr int kMost = std::numeric_limits<int>::max();
constexpr int kLeast = std::numeric_limits<int>::min();
const Vector2i kSize(60, 40);

TEST(ImageIcpInput, FailuresPrintTheirLineAndLeaveTheOutputs) {
    const ImagePair dots = draw_dots(kSize, 9, RigidMatrix2D(), 1);
    const unsigned char *fixed = dots.fixed.pixels.data(), *moving = dots.moving.pixels.data();
    const std::vector<unsigned char> dark(dots.fixed.pixels.size());
    const std::string none = "icp False correspondNum = 0 \n", null = "!fixImage || !moveImage\n";
    const auto rejected = [](const char* limit) {
        return "image icp false because thisDisError > _disAvgPix\nthisDisError = 0\t_disAvgPix = " +
               std::string(limit) + '\n';
    };
    struct Case {
        const char* name;
        const unsigned char *fixed, *moving;
        int iterNum, iterNumFixed, window;
        float limit;
        Vector2i size;
        RetVal code;
        std::string lines;
    };
    const Case cases[] = {
        {"null fixed", nullptr, moving, 4, 2, 9, 4, kSize, RET_INPUT_ERROR, null},
        {"null moving", fixed, nullptr, 4, 2, 9, 4, kSize, RET_INPUT_ERROR, null},
        {"null before no iterations", fixed, nullptr, 0, 0, 9, 4, kSize, RET_INPUT_ERROR, null},
        {"dark moving", fixed, dark.data(), 4, 2, 9, 4, kSize, RET_NOT_CONVERGED, none},
        {"dark fixed", dark.data(), moving, 4, 2, 9, 4, kSize, RET_NOT_CONVERGED, none},
        {"negative window", fixed, moving, 4, 2, -9, 4, kSize, RET_NOT_CONVERGED, none},
        {"lowest window", fixed, moving, 4, 2, kLeast, 4, kSize, RET_NOT_CONVERGED, none},
        {"no width", fixed, moving, 4, 2, 9, 4, {0, 40}, RET_NOT_CONVERGED, none},
        {"lowest size", fixed, moving, 4, 2, 9, 4, {kLeast, kLeast}, RET_NOT_CONVERGED, none},
        {"no iterations", fixed, moving, 0, 0, 9, 4, kSize, RET_SUCCESS, ""},
        {"fewer iterations", fixed, moving, kLeast, kMost, 9, 4, kSize, RET_SUCCESS, ""},
        {"rejected", fixed, moving, 2, 0, 9, -0.25F, kSize, RET_SUCCESS, rejected("-0.25")},
        {"NaN limit", fixed, moving, 2, 0, 9, kNaN, kSize, RET_SUCCESS, rejected("nan")},
    };
    for (const Case& c : cases) {
        IcpOnImage icp(c.iterNum, c.iterNumFixed, {c.window, c.window}, c.limit, c.size, "");
        Eigen::Matrix2d rotation = Eigen::Matrix2d::Constant(7);
        Vector2d translation(8, 9);
        RetVal code = RET_RUN_FAIL;
        EXPECT_EQ(printed([&] { code = icp.real_time_image_icp(c.fixed, c.moving, rotation, translation); }), c.lines)
            << c.name;
        EXPECT_EQ(code, c.code) << c.name;
        EXPECT_EQ(rotation, Eigen::Matrix2d::Constant(7)) << c.name;
        EXPECT_EQ(translation, Vector2d(8, 9)) << c.name;
    }
    IcpOnImage widest(3, 1, {kMost, kMost}, 4, kSize, "");
    Eigen::Matrix2d rotation;
    Vector2d translation;
    EXPECT_EQ(widest.real_time_image_icp(fixed, moving, rotation, translation), RET_SUCCESS);
    EXPECT_LT((translation - Vector2d(0.5, 0.5)).norm(), 1e-9);
}

TEST(ImageIcpInput, AnObjectWithoutMemoryRefuses) {
    std::unique_ptr<IcpOnImage> icp;
    const auto lines = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
    EXPECT_EQ(lines(printed(
                  [&] { icp = std::make_unique<IcpOnImage>(1, 0, Vector2i(9, 9), 4.0F, Vector2i(kMost, kMost), ""); })),
              1);
    Eigen::Matrix2d rotation;
    Vector2d translation;
    EXPECT_EQ(
        printed([&] { EXPECT_EQ(icp->real_time_image_icp(nullptr, nullptr, rotation, translation), RET_INI_ERROR); }),
        "please ini function first\n");
}

TEST(ImageIcpInput, StepsTakeAnything) {
    const ImagePair dots = draw_dots(kSize, 9, RigidMatrix2D(), 1);
    IcpOnImage icp(1, 0, {9, 9}, 4, kSize, "");
    const float farthest = std::numeric_limits<float>::max();
    const std::vector<Vector2f> points = {
        {kNaN, 0}, {0, kInfinity}, {farthest, -farthest}, {-1e7F, 3}, {1e9F, 1e9F}, {-1000.5F, 5}, {1060, 5}};
    RigidMatrix2D huge;
    huge.translation.setConstant(1e300);
    for (const RigidMatrix2D& pose : {RigidMatrix2D(), huge}) {
        std::vector<Vector4f> pairs(3);
        std::vector<float> distances(3);
        icp.find_correspond(dots.fixed.pixels.data(), points, kLeast, 41, pose, pairs, distances);
        EXPECT_TRUE(pairs.empty() && distances.empty());
        pairs.resize(3);
        icp.find_correspond(nullptr, points, 1, 41, pose, pairs, distances);
        EXPECT_TRUE(pairs.empty());
    }
    std::vector<Vector2f> collected(5);
    icp.compact_move_image(nullptr, collected, kSize);
    EXPECT_TRUE(collected.empty());
}

}  // namespace
}  // namespace VexelAlgorithm::Track
