// The particle tracker: its start poses, its choices, and poses found again in the virtual world.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

#include "track/ParticleTrack.h"

namespace VexelAlgorithm::Track {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kFailed = ParticleTrack::FailedResidual;
constexpr double kFifteenDegrees = 0.2617994;

std::string printed(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

std::vector<RigidMatrix> particles_of(const Vector3i& counts, const Vector3f& sizes, bool withRotations,
                                      const RigidMatrix& centre = {}) {
    std::vector<RigidMatrix> particles;
    ParticleTrack::generate_partical(counts, sizes, particles, centre, withRotations);
    return particles;
}

TEST(ParticleGeneration, GridRunsInnermostAlongZAndRotatedPosesAreAbsolute) {
    const RigidMatrix centre(Eigen::AngleAxisd(0.3, Vector3d::UnitX()).toRotationMatrix(), {100, 200, 300});
    const auto particles = particles_of({4, 3, 2}, {10, 20, 30}, true, centre);
    ASSERT_EQ(particles.size(), 5U * 3U * 3U + 18U);
    std::size_t at = 0;
    for (int i = -2; i <= 2; ++i) {
        for (int j = -1; j <= 1; ++j) {
            for (int k = -1; k <= 1; ++k, ++at) {
                EXPECT_TRUE(
                    particles[at].get_translation().isApprox(Vector3d(100 + 10 * i, 200 + 20 * j, 300 + 30 * k)));
                EXPECT_EQ(particles[at].get_rotation(), centre.get_rotation());
            }
        }
    }
    for (int a = -1; a <= 1; ++a) {
        for (int b = -1; b <= 1; ++b) {
            for (const double angle : {-kFifteenDegrees, kFifteenDegrees}) {
                EXPECT_TRUE(particles[at].get_translation().isApprox(Vector3d(10 * a, 20 * b, 0)));
                const Eigen::AngleAxisd turned(particles[at++].get_rotation());
                EXPECT_NEAR(turned.angle() * turned.axis().z(), angle, 1e-9);
            }
        }
    }
}

TEST(ParticleGeneration, CountsBecomeOddAndStayWithinLimits) {
    struct Case {
        Vector3i counts;
        std::size_t expected;
        bool line;
    };
    const int most = std::numeric_limits<int>::max();
    const int least = std::numeric_limits<int>::min();
    const Case cases[] = {
        {{4, 4, 1}, 25, false},       {{5, 5, 1}, 25, false},   {{0, -1, least}, 1, false},
        {{63, 65, 1}, 63 * 63, true}, {{most, 1, 1}, 63, true}, {{most, most, most}, 15 * 15 * 17, true},
        {{63, 64, 1}, 63 * 63, true},
    };
    for (const Case& c : cases) {
        std::vector<RigidMatrix> particles;
        const std::string lines = printed([&] { particles = particles_of(c.counts, {1, 1, 1}, false); });
        EXPECT_EQ(particles.size(), c.expected) << c.counts.transpose();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), c.line ? 1 : 0) << lines;
    }
    for (const RigidMatrix& particle : particles_of({3, 3, 3}, {kNaN, kInfinity, 1}, true)) {
        EXPECT_TRUE(particle.is_finite());
    }
}

TEST(ParticleSelection, TiesAtTheCutAreDropped) {
    struct Case {
        const char* name;
        std::vector<float> residuals;
        std::vector<int> kept;
    };
    const Case cases[] = {
        {"none", {}, {}},
        {"one", {0.3F}, {0}},
        {"one that failed", {kFailed}, {0}},
        {"two", {0.3F, 0.2F}, {1}},
        {"two equal ones", {0.2F, 0.2F}, {}},
        {"three", {0.4F, 0.3F, 0.2F}, {2}},
        {"four", {0.4F, 0.3F, 0.2F, 0.2F}, {0, 1, 2, 3}},
        {"five", {0.4F, 0.3F, 0.2F, 0.1F, 0.5F}, {0, 1, 2, 3}},
        {"tie at the cut", {0.1F, 0.3F, 0.2F, 0.3F, 0.3F, 0.9F}, {0, 2}},
        {"nearly a tie", {0.1F, 0.2F, 0.3F, 0.5F - 5e-6F, 0.5F, 0.6F}, {0, 1, 2}},
        {"all equal", std::vector<float>(43, 0.25F), {}},
        {"few without failure", {kFailed, kFailed, 0.2F, kFailed, kFailed, 0.1F, kFailed}, {2, 5}},
        {"all failed", std::vector<float>(43, kFailed), {}},
        {"not a number", {kNaN, 0.2F, kNaN, kNaN, kNaN, kNaN}, {1}},
    };
    for (const Case& c : cases) EXPECT_EQ(ParticleTrack::select_particles(c.residuals), c.kept) << c.name;
}

TEST(ParticleResult, TheFirstOfTheSmallestResidualsWins) {
    const ParticleTrack tracker(1.0F, 5, "", 1, {5, 5, 1}, {10, 10, 10}, 0.5F, 0.8F, 1);
    const auto poses = particles_of({5, 1, 1}, {1, 1, 1}, false);
    struct Case {
        std::vector<float> residuals;
        int best;
    };
    const Case cases[] = {
        {{0.3F, 0.2F, 0.1F, 0.1F, 0.4F}, 2},  {{kFailed, kFailed, kFailed, kFailed, 999999.0F}, 4},
        {{kNaN, 0.5F, kNaN, 0.5F, kNaN}, 1},  {{kFailed, kFailed, kFailed, kFailed, kFailed}, -1},
        {{kNaN, kNaN, kNaN, kNaN, kNaN}, -1}, {{}, -1},
    };
    for (const Case& c : cases) {
        RigidMatrix result(Matrix3d::Identity(), {7, 7, 7});
        int best = 77;
        tracker.get_result(poses, result, 0, c.residuals, best);
        EXPECT_EQ(best, c.best);
        const Vector3d expected =
            best < 0 ? Vector3d(7, 7, 7) : poses[static_cast<std::size_t>(best)].get_translation();
        EXPECT_EQ(result.get_translation(), expected);
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Track
