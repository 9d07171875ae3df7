// Registration of images of marks and outlines against the motions that they were drawn with, the steps against plain
// twins, and images, sizes and settings that cannot be used.
#include <memory>

#include "tests/common.h"
#include "track/IcpOnImage.h"
#include "trials/markImages.h"

namespace VexelAlgorithm::Track {
namespace {

using namespace VexelTest;
using namespace VexelTrial;

constexpr int kLowest = std::numeric_limits<int>::min(), kHighest = std::numeric_limits<int>::max();
constexpr float kAnyError = 1e6F;  // pixels^2
const Vector2i kSmall(60, 40);
const Vector2d kHalfPixel(0.5, 0.5);

const std::pair<double, Vector2d> kMotions[] = {
    {1.0, {0, 0}}, {-1.1, {3, -2}}, {1.37, {-4, 1}}, {-1.6, {2.5, 2.5}}, {2.0, {-1, -3}}};

/// Zero where the result is rejected.
RigidMatrix2D registered(IcpOnImage&& icp, const MarkImage& fixed, const MarkImage& moving) {
    RigidMatrix2D found{Eigen::Matrix2d::Zero(), Vector2d::Zero()};
    EXPECT_EQ(icp.real_time_image_icp(fixed.pixels.data(), moving.pixels.data(), found.rotation, found.translation),
              RET_SUCCESS);
    return found;
}

/// The marks are further apart than the windows.
TEST(ImageIcp, FindsTheMotionOfMarksAndOfOutlines) {
    const Vector2i large(1280, 1024), size(640, 480);
    unsigned seed = 1;
    for (const auto& [degrees, shift] : kMotions) {
        SCOPED_TRACE(degrees);
        const ImagePair dots = draw_dots(large, 65, motion_about_middle(large, degrees, shift), seed);
        const RigidMatrix2D ofDots = registered({20, 10, {65, 33}, kAnyError, large, ""}, dots.fixed, dots.moving);
        const PlanarError errorOfDots = error_of(ofDots, dots.movingToFixed, large);
        EXPECT_LT(errorOfDots.pixels, 0.1);
        EXPECT_LT(errorOfDots.degrees, 0.05);

        const ImagePair lines = draw_outlines(size, motion_about_middle(size, degrees, shift), seed++);
        RigidMatrix2D ofLines = registered({40, 20, {41, 21}, kAnyError, size, ""}, lines.fixed, lines.moving);
        ofLines.translation -= ofLines.rotation * kHalfPixel;
        const PlanarError errorOfLines = error_of(ofLines, lines.movingToFixed, size);
        EXPECT_LT(errorOfLines.pixels, 0.3);
        EXPECT_LT(errorOfLines.degrees, 0.08);
    }
}

TEST(ImageIcp, AcceptsByTheMeanOfSquaredDistances) {
    MarkImage moving({64, 48}), fixed({64, 48});
    for (const int row : {8, 24, 40}) {
        moving.draw({10, row}), moving.draw({40, row});
        fixed.draw({8, row}), fixed.draw({42, row});  // 2 pixels off to either side: no motion makes it better
    }
    EXPECT_FALSE(registered({6, 0, {15, 15}, 4.01F, moving.size, ""}, fixed, moving).rotation.isZero());
    EXPECT_TRUE(registered({6, 0, {15, 15}, 3.99F, moving.size, ""}, fixed, moving).rotation.isZero());
}

// The search as one reads it: every pixel of the window.
void plain_find(const MarkImage& fixed, const std::vector<Vector2f>& points, int step, int window,
                const RigidMatrix2D& pose, std::vector<Vector4f>& pairs, std::vector<float>& distances) {
    const int h = window / 2;
    for (std::size_t i = 0; i < points.size(); i += static_cast<std::size_t>(step)) {
        const Vector2f p = (pose * points[i].cast<double>()).cast<float>();
        float best = 1e6F;
        Vector4f pair;
        for (int r = static_cast<int>(p.y()) - h; r <= static_cast<int>(p.y()) + h; ++r)
            for (int c = static_cast<int>(p.x()) - h; c <= static_cast<int>(p.x()) + h; ++c) {
                if (c < 0 || r < 0 || c >= fixed.size.x() || r >= fixed.size.y()) continue;
                if (fixed.pixels[static_cast<std::size_t>(r * fixed.size.x() + c)] == 0) continue;
                const Vector2f centre(static_cast<float>(c) + 0.5F, static_cast<float>(r) + 0.5F);
                const float squared = (centre - p).squaredNorm();
                if (squared < best) best = squared, pair = {centre.x(), centre.y(), p.x(), p.y()};
            }
        if (1e6F - best > 1e-6F) pairs.push_back(pair), distances.push_back(best);
    }
}

TEST(ImageIcp, TheSearchGivesWhatEveryPixelOfTheWindowGives) {
    const Vector2i wide(150, 40);
    const RigidMatrix2D poses[] = {{},
                                   {Eigen::Matrix2d::Identity(), kHalfPixel},  // four neighbours equally near
                                   motion_about_middle(wide, 20, {0.3, -0.7}),
                                   motion_about_middle(wide, 90, {-60, 0}),  // partly outside
                                   motion_about_middle(wide, -1, {-0.4, -20.6})};
    std::mt19937 random(3);
    for (const Vector2i& size : {wide, Vector2i(64, 33), Vector2i(3, 70)}) {
        IcpOnImage icp(1, 0, {0, 0}, 0, size, "");
        for (const double density : {0.002, 0.03, 0.7}) {
            MarkImage fixed(size), moving(size);
            std::bernoulli_distribution isSet(density);
            for (auto& p : fixed.pixels) p = isSet(random);
            for (auto& p : moving.pixels) p = random() % 3 == 0;
            std::vector<Vector2f> points;
            icp.compact_move_image(moving.pixels.data(), points, size);
            for (const int window : {-3, 0, 1, 2, 5, 40, 300})
                for (const RigidMatrix2D& pose : poses) {
                    std::vector<Vector4f> pairs, plainPairs;
                    std::vector<float> distances, plainDistances;
                    const int step = window == 5 ? 12 : window == 300 ? 101 : 7;
                    icp.find_correspond(fixed.pixels.data(), points, step, window, pose, pairs, distances);
                    plain_find(fixed, points, step, window, pose, plainPairs, plainDistances);
                    ASSERT_EQ(pairs, plainPairs) << size.x() << ' ' << density << ' ' << window;
                    ASSERT_EQ(distances, plainDistances);
                }
        }
    }
}

TEST(ImageIcp, StepsOfTooFewPairsOnlyShift) {
    IcpOnImage icp(1, 0, {0, 0}, 0, {8, 8}, "");
    RigidMatrix2D step{Eigen::Matrix2d::Zero(), Vector2d::Zero()};
    icp.get_mat({3, Vector4f(303, 201, 301.3F, 200)}, step);  // one place three times
    EXPECT_TRUE(step.rotation.isIdentity());
    EXPECT_LT((step.translation - Vector2d(1.7, 1)).norm(), 1e-4);
    icp.get_mat({}, step);
    EXPECT_TRUE(step.rotation.isIdentity());
}

TEST(ImageIcpInput, FailuresPrintTheirLineAndLeaveTheOutputs) {
    const ImagePair dots = draw_dots(kSmall, 9, RigidMatrix2D(), 1);
    const unsigned char *fixed = dots.fixed.pixels.data(), *moving = dots.moving.pixels.data();
    const std::vector<unsigned char> dark(dots.fixed.pixels.size());
    const std::string none = "icp False correspondNum = 0 \n", null = "!fixImage || !moveImage\n";
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
        {"null fixed", nullptr, moving, 4, 2, 9, 4, kSmall, RET_INPUT_ERROR, null},
        {"null moving, no iterations", fixed, nullptr, 0, 0, 9, 4, kSmall, RET_INPUT_ERROR, null},
        {"dark moving", fixed, dark.data(), 4, 2, 9, 4, kSmall, RET_NOT_CONVERGED, none},
        {"dark fixed", dark.data(), moving, 4, 2, 9, 4, kSmall, RET_NOT_CONVERGED, none},
        {"negative window", fixed, moving, 4, 2, -9, 4, kSmall, RET_NOT_CONVERGED, none},
        {"lowest size", fixed, moving, 4, 2, 9, 4, {kLowest, kLowest}, RET_NOT_CONVERGED, none},
        {"no iterations", fixed, moving, 0, 0, 9, 4, kSmall, RET_SUCCESS, ""},
        {"fewest iterations", fixed, moving, kLowest, kHighest, 9, 4, kSmall, RET_SUCCESS, ""},
        {"rejected", fixed, moving, 2, 0, 9, -0.25F, kSmall, RET_SUCCESS,
         "image icp false because thisDisError > _disAvgPix\nthisDisError = 0\t_disAvgPix = -0.25\n"},
        {"NaN limit", fixed, moving, 2, 0, 9, kNaN, kSmall, RET_SUCCESS,
         "image icp false because thisDisError > _disAvgPix\nthisDisError = 0\t_disAvgPix = nan\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        IcpOnImage icp(c.iterNum, c.iterNumFixed, {c.window, c.window}, c.limit, c.size, "");
        Eigen::Matrix2d rotation = Eigen::Matrix2d::Constant(7);
        Vector2d translation(8, 9);
        EXPECT_EQ(outcome([&] { return icp.real_time_image_icp(c.fixed, c.moving, rotation, translation); }),
                  std::pair(c.code, c.lines));
        EXPECT_EQ(rotation, Eigen::Matrix2d::Constant(7));
        EXPECT_EQ(translation, Vector2d(8, 9));
    }
    const RigidMatrix2D widest = registered({3, 1, {kHighest, kHighest}, 4, kSmall, ""}, dots.fixed, dots.moving);
    EXPECT_LT((widest.translation - kHalfPixel).norm(), 1e-9);
}

TEST(ImageIcpInput, AnObjectWithoutMemoryRefuses) {
    std::unique_ptr<IcpOnImage> icp;
    const Vector2i largest(kHighest, kHighest), window(9, 9);
    EXPECT_EQ(line_count(printed([&] { icp = std::make_unique<IcpOnImage>(1, 0, window, 4.0F, largest, ""); })), 1);
    Eigen::Matrix2d rotation;
    Vector2d translation;
    EXPECT_EQ(outcome([&] { return icp->real_time_image_icp(nullptr, nullptr, rotation, translation); }),
              std::pair(RET_INI_ERROR, std::string("please ini function first\n")));
}

TEST(ImageIcpInput, StepsTakeAnything) {
    const ImagePair dots = draw_dots(kSmall, 9, RigidMatrix2D(), 1);
    IcpOnImage icp(1, 0, {9, 9}, 4, kSmall, "");
    const float farthest = std::numeric_limits<float>::max();
    const std::vector<Vector2f> points = {
        {kNaN, 0}, {0, kInfinity}, {farthest, -farthest}, {-1e7F, 3}, {1e9F, 1e9F}, {-1000.5F, 5}, {1060, 5}};
    RigidMatrix2D huge;
    huge.translation.setConstant(1e300);
    for (const RigidMatrix2D& pose : {RigidMatrix2D(), huge}) {
        std::vector<Vector4f> pairs(3);
        std::vector<float> distances(3);
        icp.find_correspond(dots.fixed.pixels.data(), points, kLowest, 41, pose, pairs, distances);
        EXPECT_TRUE(pairs.empty() && distances.empty());
        pairs.resize(3);
        icp.find_correspond(nullptr, points, 1, 41, pose, pairs, distances);
        EXPECT_TRUE(pairs.empty());
    }
    std::vector<Vector2f> collected(5);
    icp.compact_move_image(nullptr, collected, kSmall);
    EXPECT_TRUE(collected.empty());
}

}  // namespace
}  // namespace VexelAlgorithm::Track
