// Registration of images of marks and outlines against the motions that they were drawn with, and the steps against
// plain twins.
#include <gtest/gtest.h>

#include "tests/track/markImages.h"
#include "track/IcpOnImage.h"

namespace VexelAlgorithm::Track {
namespace {

using namespace VexelTest;

constexpr float kAnyError = 1e6F;  // pixels^2
const Vector2d kHalfPixel(0.5, 0.5);

struct Motion {
    double degrees;
    Vector2d shift;
};
const Motion kMotions[] = {{1.0, {0, 0}}, {-1.1, {3, -2}}, {1.37, {-4, 1}}, {-1.6, {2.5, 2.5}}, {2.0, {-1, -3}}};

RigidMatrix2D registered(const ImagePair& pair, int iterations, const Vector2i& windows) {
    IcpOnImage icp(2 * iterations, iterations, windows, kAnyError, pair.moving.size, "");
    RigidMatrix2D found{Eigen::Matrix2d::Zero(), Vector2d::Zero()};
    EXPECT_EQ(
        icp.real_time_image_icp(pair.fixed.pixels.data(), pair.moving.pixels.data(), found.rotation, found.translation),
        RET_SUCCESS);
    return found;
}

TEST(ImageIcp, FindsTheMotionOfMarksFurtherApartThanTheWindow) {
    const Vector2i size(1280, 1024);
    unsigned seed = 1;
    for (const Motion& m : kMotions) {
        const ImagePair pair = draw_dots(size, 65, motion_about_middle(size, m.degrees, m.shift), seed++);
        const PlanarError error = error_of(registered(pair, 10, {65, 33}), pair.movingToFixed, size);
        EXPECT_LT(error.pixels, 0.1) << m.degrees;
        EXPECT_LT(error.degrees, 0.05) << m.degrees;
    }
}

TEST(ImageIcp, FindsTheMotionOfOutlines) {
    const Vector2i size(640, 480);
    unsigned seed = 1;
    for (const Motion& m : kMotions) {
        const ImagePair pair = draw_outlines(size, motion_about_middle(size, m.degrees, m.shift), seed++);
        RigidMatrix2D found = registered(pair, 20, {41, 21});
        found.translation -= found.rotation * kHalfPixel;
        const PlanarError error = error_of(found, pair.movingToFixed, size);
        EXPECT_LT(error.pixels, 0.3) << m.degrees;
        EXPECT_LT(error.degrees, 0.08) << m.degrees;
    }
}

TEST(ImageIcp, AcceptsByTheMeanOfSquaredDistances) {
    MarkImage moving({64, 48}), fixed({64, 48});
    for (const int row : {8, 24, 40}) {
        moving.draw({10, row}), moving.draw({40, row});
        fixed.draw({8, row}), fixed.draw({42, row});  // 2 pixels off to either side: no motion makes it better
    }
    const auto accepted = [&](float limit) {
        IcpOnImage icp(6, 0, {15, 15}, limit, moving.size, "");
        RigidMatrix2D found{Eigen::Matrix2d::Zero(), Vector2d::Zero()};
        EXPECT_EQ(icp.real_time_image_icp(fixed.pixels.data(), moving.pixels.data(), found.rotation, found.translation),
                  RET_SUCCESS);
        return !found.rotation.isZero();
    };
    EXPECT_TRUE(accepted(4.01F));
    EXPECT_FALSE(accepted(3.99F));
}

// The search as one reads it: every pixel of the window.
void plain_find(const MarkImage& fixed, const std::vector<Vector2f>& points, int step, int window,
                const RigidMatrix2D& pose, std::vector<Vector4f>& pairs, std::vector<float>& distances) {
    const int h = window / 2;
    for (std::size_t i = 0; i < points.size(); i += static_cast<std::size_t>(step)) {
        const Vector2f p = (pose * points[i].cast<double>()).cast<float>();
        float best = 1e6F;
        Vector4f pair;
        for (int r = static_cast<int>(p.y()) - h; r <= static_cast<int>(p.y()) + h; ++r) {
            for (int c = static_cast<int>(p.x()) - h; c <= static_cast<int>(p.x()) + h; ++c) {
                if (c < 0 || r < 0 || c >= fixed.size.x() || r >= fixed.size.y()) continue;
                if (fixed.pixels[static_cast<std::size_t>(r * fixed.size.x() + c)] == 0) continue;
                const Vector2f centre(static_cast<float>(c) + 0.5F, static_cast<float>(r) + 0.5F);
                const Vector2f d = centre - p;
                const float squared = d.x() * d.x() + d.y() * d.y();
                if (squared < best) best = squared, pair = {centre.x(), centre.y(), p.x(), p.y()};
            }
        }
        if (1e6F - best > 1e-6F) pairs.push_back(pair), distances.push_back(best);
    }
}

TEST(ImageIcp, TheSearchGivesWhatEveryPixelOfTheWindowGives) {
    const RigidMatrix2D poses[] = {{},
                                   {Eigen::Matrix2d::Identity(), kHalfPixel},  // four neighbours equally near
                                   motion_about_middle({150, 40}, 20, {0.3, -0.7}),
                                   motion_about_middle({150, 40}, 90, {-60, 0}),  // partly outside
                                   motion_about_middle({150, 40}, -1, {-0.4, -20.6})};
    std::mt19937 random(3);
    for (const Vector2i& size : {Vector2i(150, 40), Vector2i(64, 33), Vector2i(3, 70)}) {
        IcpOnImage icp(1, 0, {0, 0}, 0, size, "");
        for (const double density : {0.002, 0.03, 0.7}) {
            MarkImage fixed(size), moving(size);
            std::bernoulli_distribution isSet(density);
            for (auto& p : fixed.pixels) p = isSet(random);
            for (auto& p : moving.pixels) p = random() % 3 == 0;
            std::vector<Vector2f> points;
            icp.compact_move_image(moving.pixels.data(), points, size);
            for (const int window : {-3, 0, 1, 2, 5, 40, 141, 300}) {
                for (const RigidMatrix2D& pose : poses) {
                    std::vector<Vector4f> pairs, plainPairs;
                    std::vector<float> distances, plainDistances;
                    const int step = window == 5 ? 12 : 7;
                    icp.find_correspond(fixed.pixels.data(), points, step, window, pose, pairs, distances);
                    plain_find(fixed, points, step, window, pose, plainPairs, plainDistances);
                    ASSERT_EQ(pairs, plainPairs) << size.x() << ' ' << density << ' ' << window;
                    ASSERT_EQ(distances, plainDistances);
                }
            }
        }
    }
}

TEST(ImageIcp, TheStepSolvesTheLinearisedSystem) {
    IcpOnImage icp(1, 0, {0, 0}, 0, {8, 8}, "");
    const auto step_of = [&](const std::vector<Vector4f>& pairs) {
        RigidMatrix2D step{Eigen::Matrix2d::Zero(), Vector2d::Zero()};
        icp.get_mat(pairs, step);
        return step;
    };
    std::mt19937 random(5);
    std::uniform_real_distribution<float> place(0.0F, 4000.0F), noise(-2.0F, 2.0F);
    std::vector<Vector4f> pairs;
    Eigen::MatrixXd rows(80, 3);
    Eigen::VectorXd residuals(80);
    for (int i = 0; i < 80; i += 2) {
        const Vector2f moved(place(random), place(random)), fixed = moved + Vector2f(noise(random), noise(random));
        pairs.emplace_back(fixed.x(), fixed.y(), moved.x(), moved.y());
        rows.row(i) << -moved.y(), 1, 0;
        rows.row(i + 1) << moved.x(), 0, 1;
        residuals.segment<2>(i) = (fixed - moved).cast<double>();
    }
    const Vector3d expected = rows.colPivHouseholderQr().solve(residuals);
    const RigidMatrix2D step = step_of(pairs);
    EXPECT_NEAR(std::atan2(step.rotation(1, 0), step.rotation(0, 0)), expected(0), 1e-12);
    EXPECT_LT((step.translation - expected.tail<2>()).norm(), 1e-8);

    const RigidMatrix2D onePlace = step_of({3, Vector4f(303, 201, 301.3F, 200)});
    EXPECT_TRUE(onePlace.rotation.isIdentity());
    EXPECT_LT((onePlace.translation - Vector2d(1.7, 1)).norm(), 1e-4);
    EXPECT_TRUE(step_of({}).rotation.isIdentity());
}

}  // namespace
}  // namespace VexelAlgorithm::Track
