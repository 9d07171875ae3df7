// The particle tracker: its start poses, its choices, what a score means, and poses found again in the virtual world.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "tests/track/particleScenes.h"
#include "track/ParticleTrack.h"

namespace VexelAlgorithm::Track {
namespace {

using namespace VexelTest;

constexpr double kFifteenDegrees = 0.2617994;

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

struct Scored {
    int count = 0;
    float sum = 0.0F;
};

Scored score(const ParticleTrack& tracker, const Vector3d& translation) {
    Scored scored;
    tracker.count_residual(RigidMatrix(Matrix3d::Identity(), translation), scored.count, scored.sum);
    return scored;
}

TEST(ParticleScore, CountsWhatFallsOnUsablePixelsWithinTheThreshold) {
    // A wall that fills the image, 1 mm a pixel, with a hole in the fixed one.
    constexpr int width = 40, height = 30, hole = 7;
    for (const float radial : {0.0F, 2.0F}) {
        PointImage fixed = wall(width, height, {radial, radial});
        const PointImage moving = fixed;
        for (int x = 0; x < hole; ++x) fixed.set_slot_empty(fixed.index_of(10 + x, 12));
        ParticleTrack tracker(2.0F, 5, "", 1, {1, 1, 1}, {1, 1, 1}, 0.5F, 0.8F, 1);
        ASSERT_EQ(tracker.data_prepare(fixed, moving), RET_SUCCESS);

        const int whole = width * height - hole;
        struct Case {
            Vector3d translation;
            int count;
            double mean;
        };
        const Case cases[] = {
            {{0, 0, 0}, whole, 0.0},
            {{0, 0, 1.5}, whole, 1.5},
            {{0, 0, -1.5}, whole, 1.5},
            {{0, 0, 2.5}, 0, 0.0},
            {{0.4, 0, 0}, whole, 0.0},
            {{0.6, 0, 0}, whole - height, 0.0},  // rounds to the next pixel, one column leaves
            {{-0.6, 0, 0}, whole, 0.0},          // the first column rounds to -0.1, which is cut off to 0
            {{-1.6, 0, 0}, whole - height, 0.0},
            {{0, -1.6, 0}, whole - width, 0.0},
            {{0, 0, -2 * kWallDepth}, 0, 0.0},  // behind the camera
        };
        for (const Case& c : cases) {
            const Scored scored = score(tracker, c.translation);
            // Two images of the hole's edge may fall into it or beside it.
            const int slack = c.translation.head<2>().norm() > 0.5 ? 2 * hole : 0;
            EXPECT_NEAR(scored.count, c.count, slack) << c.translation.transpose();
            EXPECT_NEAR(scored.sum / static_cast<float>(std::max(scored.count, 1)), c.mean, 1e-3);
        }

        tracker.reset_code_Num(7);
        ASSERT_EQ(tracker.data_prepare(moving, moving), RET_SUCCESS);
        EXPECT_EQ(score(tracker, {0, 0, 0}).count, (width * height + 6) / 7);
    }
}

TEST(Particle, FailsOrRefines) {
    const PointImage fixed = desk_view(RigidMatrix());
    const RigidMatrix truth = motion({0.01, -0.02, 0.015}, {4, -3, 5});
    const PointImage moving = desk_view(truth);
    const RigidMatrix far(Matrix3d::Identity(), {5000, 0, 0});
    const RigidMatrix halfOutside(Matrix3d::Identity(), {160, 0, 0});
    const RigidMatrix broken(Matrix3d::Constant(kNaN), {0, 0, 0});
    const RigidMatrix huge(Matrix3d::Identity(), {1e300, -1e300, 1e300});
    struct Case {
        const char* name;
        RigidMatrix start;
        float threshold, minValidRatio;
        int iterations, step;
        double largestError;  // mm; negative: fails
    };
    const Case cases[] = {
        {"near", RigidMatrix(), 18.0F, 0.5F, 8, 1, 0.05},
        {"on every third point", RigidMatrix(), 18.0F, 0.5F, 8, 3, 0.05},
        {"steps below 1", RigidMatrix(), 18.0F, 0.5F, 8, -4, 0.05},
        {"stops by itself", RigidMatrix(), 18.0F, 0.5F, 2000000000, 1, 0.05},
        {"scored where it stands", truth, 18.0F, 0.5F, 0, 1, 0.0},
        {"no correspondences", far, 18.0F, 0.0F, 8, 1, -1.0},
        {"no terms", far, 18.0F, 0.0F, 0, 1, -1.0},
        {"nothing within the threshold", RigidMatrix(), kNaN, 0.0F, 3, 1, -1.0},
        {"few points see the model", halfOutside, 1e9F, 0.7F, 1, 1, -1.0},
        {"more terms wanted than there are points", truth, 18.0F, 1.1F, 1, 1, -1.0},
        {"fewer points than the step", RigidMatrix(), 18.0F, 0.5F, 1, 2000000000, -1.0},
        {"not a number", broken, 18.0F, 0.0F, 3, 1, -1.0},
        {"too far for floats", huge, 18.0F, 0.0F, 3, 1, -1.0},
    };
    for (const bool vectors : {false, true}) {
        for (const Case& c : cases) {
            ParticleTrack tracker(c.threshold, 5, "", 5, {1, 1, 1}, {1, 1, 1}, c.minValidRatio, 0.8F, 1);
            if (!vectors) tracker.set_vector_steps(nullptr);
            ASSERT_EQ(tracker.data_prepare(fixed, moving), RET_SUCCESS);
            RigidMatrix refined = far;
            float residual = 0.0F;
            tracker.count_one_particle(0, c.start, refined, residual, c.iterations, c.step);
            if (c.largestError < 0.0) {
                EXPECT_EQ(residual, kFailed) << c.name;
                EXPECT_EQ(refined.get_translation(), Vector3d(0, 0, 0)) << c.name;
                EXPECT_EQ(refined.get_rotation(), Matrix3d(Matrix3d::Identity())) << c.name;
            } else {
                EXPECT_LT(residual, 1.0F) << c.name;
                EXPECT_LE(distance_between(refined, truth, kDeskCentre), c.largestError) << c.name;
                const Scored scored = [&] {
                    Scored s;
                    tracker.count_residual(refined, s.count, s.sum);
                    return s;
                }();
                EXPECT_NEAR(residual, scored.sum / static_cast<float>(scored.count), 1e-6F) << c.name;
            }
        }
    }
}

TEST(Particle, VectorStepsGiveWhatThePlainOnesGive) {
    const PointImage fixed = desk_view(RigidMatrix(), 123, {1.5F, -2.25F});
    const PointImage moving = desk_view(motion({0.01, -0.02, 0.015}, {4, -3, 5}), 131);
    for (const int codeNum : {1, 7}) {
        ParticleTrack plain(12.0F, 5, "", codeNum, {1, 1, 1}, {1, 1, 1}, 0.2F, 0.8F, 1);
        ParticleTrack vectors(12.0F, 5, "", codeNum, {1, 1, 1}, {1, 1, 1}, 0.2F, 0.8F, 1);
        plain.set_vector_steps(nullptr);
        vectors.set_vector_steps(shared_particle_vector_steps());
        ASSERT_EQ(plain.data_prepare(fixed, moving), RET_SUCCESS);
        ASSERT_EQ(vectors.data_prepare(fixed, moving), RET_SUCCESS);
        int refinedCount = 0;
        for (const RigidMatrix& start : particles_of({5, 5, 3}, {12, 12, 12}, true)) {
            RigidMatrix a, b;
            float residualA = 0.0F, residualB = 0.0F;
            plain.count_one_particle(0, start, a, residualA, 3, 1);
            vectors.count_one_particle(0, start, b, residualB, 3, 1);
            EXPECT_NEAR(residualA, residualB, 1e-5F * residualA);
            EXPECT_LT(distance_between(a, b, kDeskCentre), 1e-4);
            refinedCount += residualA < kFailed ? 1 : 0;
            Scored scoredA, scoredB;
            plain.count_residual(start, scoredA.count, scoredA.sum);
            vectors.count_residual(start, scoredB.count, scoredB.sum);
            EXPECT_EQ(scoredA.count, scoredB.count);
            EXPECT_EQ(scoredA.sum, scoredB.sum);
        }
        EXPECT_GT(refinedCount, 20);
    }
}

/// Mean distance (mm) between where the two poses put the frame's points.
double mean_displacement(const PointImage& frame, const RigidMatrix& a, const RigidMatrix& b) {
    double sum = 0.0;
    int count = 0;
    for (std::size_t i = 0; i < frame.get_vn(); i += 11) {
        if (!frame.has_point(i)) continue;
        sum += distance_between(a, b, frame.get_vCoord(i).cast<double>());
        ++count;
    }
    return sum / count;
}

TEST(ParticleTracking, JumpsOverTheGridAndTurnsAboutTheViewingAxisAreFound) {
    constexpr double size = 10.0;  // mm
    constexpr double twoDegrees = 0.0349066;
    const Vector3d axes[] = {Vector3d::UnitX(), Vector3d::UnitY(), Vector3d::UnitZ(), Vector3d(1, -1, 1).normalized(),
                             Vector3d(-1, -1, 0).normalized()};
    std::vector<RigidMatrix> jumps;
    for (int i = -2; i <= 2; ++i) {
        for (int j = -2; j <= 2; ++j) {
            jumps.push_back(motion(twoDegrees * axes[jumps.size() % 5], {size * i, size * j, 0}));
        }
    }
    for (const double turn : {-kFifteenDegrees, kFifteenDegrees}) {
        for (const double x : {-0.6, 0.0, 1.0}) {
            for (const double y : {-1.0, 0.0, 0.6}) {
                const RigidMatrix rest = motion(twoDegrees * axes[jumps.size() % 5], {0, 0, 0});
                jumps.push_back(motion({0, 0, turn}, {size * x, size * y, 0}) * rest);
            }
        }
    }
    const PointImage fixed = desk_view(RigidMatrix());
    ParticleTrack tracker(18.0F, 5, "", 5, {4, 4, 1}, {10, 10, 10}, 0.5F, 0.8F, 2);
    for (const RigidMatrix& jump : jumps) {
        const PointImage moving = desk_view(jump);
        RigidMatrix result;
        EXPECT_EQ(tracker.partical_track(fixed, moving, result, 0, nullptr), RET_SUCCESS);
        EXPECT_LT(mean_displacement(moving, result, jump), 0.5) << jump.get_translation().transpose();
        EXPECT_LT(tracker.get_the_min_residual(), 1.0F);
    }
}

TEST(ParticleTracking, ExtraPosesReachBeyondTheGrid) {
    const RigidMatrix jump = motion({0, 0, -0.7}, {40, -20, 10});
    const PointImage fixed = desk_view(RigidMatrix());
    const PointImage moving = desk_view(jump);
    const RigidMatrix broken(Matrix3d::Identity(), {0, kInfinity, 0});
    const std::vector<RigidMatrix> extra{broken, jump * motion({0, 0.02, 0.02}, {3, 3, 0}), broken};
    ParticleTrack tracker(18.0F, 5, "", 5, {5, 5, 1}, {10, 10, 10}, 0.5F, 0.8F, 2);
    RigidMatrix result;
    tracker.partical_track(fixed, moving, result, 0, nullptr);
    EXPECT_GT(mean_displacement(moving, result, jump), 5.0);
    EXPECT_EQ(printed([&] { EXPECT_EQ(tracker.partical_track(fixed, moving, result, 0, &extra), RET_SUCCESS); }),
              "2 extra start poses are not finite or too many, left out\n");
    EXPECT_LT(mean_displacement(moving, result, jump), 0.5);
}

TEST(ParticleTracking, ResultDependsNeitherOnThreadsNorOnEarlierCalls) {
    const PointImage fixed = desk_view(RigidMatrix());
    const PointImage moving = desk_view(motion({0.02, 0.01, 0.0}, {12, -8, 3}));
    const PointImage smaller = desk_view(RigidMatrix(), 80);
    ParticleTrack first(18.0F, 5, "", 5, {5, 5, 1}, {10, 10, 10}, 0.5F, 0.8F, 1);
    ParticleTrack second(18.0F, 5, "", 5, {5, 5, 1}, {10, 10, 10}, 0.5F, 0.8F, 5);
    RigidMatrix a, b;
    ASSERT_EQ(first.partical_track(fixed, moving, a, 0, nullptr), RET_SUCCESS);
    const auto expect_same = [&] {
        ASSERT_EQ(second.partical_track(fixed, moving, b, 0, nullptr), RET_SUCCESS);
        EXPECT_EQ(a.get_translation(), b.get_translation());
        EXPECT_EQ(a.get_rotation(), b.get_rotation());
        EXPECT_EQ(first.get_the_min_residual(), second.get_the_min_residual());
    };
    expect_same();
    EXPECT_EQ(second.partical_track(smaller, smaller, b, 0, nullptr), RET_SUCCESS);
    expect_same();
    second.release();
    expect_same();
}

TEST(ParticleTracking, AFrameAgainstItselfStaysWhereItIs) {
    const PointImage view = desk_view(RigidMatrix());
    ParticleTrack tracker(18.0F, 5, "", 5, {5, 5, 1}, {10, 10, 10}, 0.5F, 0.8F, 2);
    RigidMatrix result(Matrix3d::Identity(), {9, 9, 9});
    EXPECT_EQ(tracker.partical_track(view, view, result, 0, nullptr), RET_SUCCESS);
    EXPECT_LT(mean_displacement(view, result, RigidMatrix()), 0.2);
}

TEST(ParticleTracking, AllParticlesEqualOrWithoutPartnersEndTheSearch) {
    const PointImage view = desk_view(RigidMatrix());
    PointImage elsewhere = view;
    elsewhere.rigid_transformation(RigidMatrix(Matrix3d::Identity(), {3000, 0, 0}));
    struct Case {
        const PointImage& moving;
        float size;
    };
    // A step of 0 makes 25 equal particles, and those at the cut are all dropped.
    for (const Case& c : {Case{view, 0.0F}, Case{elsewhere, 10.0F}}) {
        ParticleTrack tracker(18.0F, 5, "", 5, {5, 5, 1}, Vector3f::Constant(c.size), 0.5F, 0.8F, 2);
        RigidMatrix result(Matrix3d::Identity(), {9, 9, 9});
        EXPECT_EQ(printed([&] { EXPECT_EQ(tracker.partical_track(view, c.moving, result, 0, nullptr), RET_RUN_FAIL); }),
                  "partical filter fail\n");
        EXPECT_EQ(result.get_translation(), Vector3d(0, 0, 0));
        EXPECT_EQ(tracker.get_the_min_residual(), kFailed);
        tracker.reset_particleSize(10.0F);
        EXPECT_EQ(tracker.partical_track(view, view, result, 0, nullptr), RET_SUCCESS);
    }
}

TEST(ParticleDebug, FilesAndLinesOnlyWithSwitchAndFrame) {
    const auto folder = std::filesystem::temp_directory_path() / "vexel_particle_debug";
    const PointImage view = desk_view(RigidMatrix(), 80);
    ParticleTrack tracker(18.0F, 5, folder.string(), 5, {1, 1, 1}, {10, 10, 10}, 0.5F, 0.8F, 1);
    tracker.set_debug_frame(3);
    const auto files_after = [&](bool on, int frameId) {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
        ParticleTrack::set_debug_switch(on);
        RigidMatrix result;
        const std::string lines = printed([&] { tracker.partical_track(view, view, result, frameId, nullptr); });
        ParticleTrack::set_debug_switch(false);
        EXPECT_EQ(lines.find("minDis = ") != std::string::npos, on && frameId == 3);
        EXPECT_EQ(lines.find("minId = ") != std::string::npos, on && frameId == 3);
        return std::distance(std::filesystem::directory_iterator(folder), {});
    };
    EXPECT_EQ(files_after(false, 3), 0);
    EXPECT_EQ(files_after(true, 4), 0);
    EXPECT_GT(files_after(true, 3), 19 + 9 + 3);
    for (const char* name : {"fixCloud_3.txt", "roughtResult_3.txt", "fineResult_3.txt", "roughtPosition_3_18.txt",
                             "roughtPosition_fine_3_0.txt", "finePosition_3_8.txt"}) {
        EXPECT_GT(std::filesystem::file_size(folder / name), 1000U) << name;
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace VexelAlgorithm::Track
