// The particle tracker: its start poses, its choices, what a score means, and poses found again in the virtual world.
#include <filesystem>

#include "tests/common.h"
#include "tests/track/trackScenes.h"
#include "track/ParticleTrack.h"
#include "trials/TemporaryFolder.h"

namespace VexelAlgorithm::Track {
namespace {

using namespace VexelTest;
using namespace VexelTrial;

constexpr float kFailed = ParticleTrack::FailedResidual;
constexpr double kFifteenDegrees = 0.2617994;
constexpr double kTwoDegrees = 0.0349066;

/// The middle of the desk in the coordinates of its first view, mm.
const Vector3d kDeskCentre{0, 0, 400};

/// Things on a table, from a camera moved by `motion` out of a first view from 400 mm.
PointImage desk_view(const RigidMatrix& motion, int width = 160) {
    static const Simulation::ShapePtr desk = Simulation::smooth_union(
        {Simulation::half_space({0, 0, 0}, {0, 0, 1}), Simulation::sphere({-60, 20, 30}, 40),
         Simulation::box({50, 50, 30}, {35, 25, 30}), Simulation::torus({30, -60, 15}, 45, 15)},
        0.0);
    static const RigidMatrix first = Simulation::look_at({60, -300, 258}, {0, 0, 0});
    return render_view(*desk, first * motion, width);
}

constexpr double kWallDepth = 100.0;  // mm

/// A wall that faces the camera and fills its image, 1 mm a pixel.
PointImage wall(int width, int height, float radial) {
    Simulation::RenderSettings settings;
    settings.viewRadial = Vector2f::Constant(radial);
    const CameraInParam camera(kWallDepth, kWallDepth, 0.5 * width, 0.5 * height);
    return Simulation::render(*Simulation::half_space({0, 0, kWallDepth}, {0, 0, -1}), camera, width, height, {},
                              settings);
}

std::vector<RigidMatrix> particles_of(const Vector3i& counts, const Vector3f& sizes, bool withRotations,
                                      const RigidMatrix& centre = {}) {
    std::vector<RigidMatrix> particles;
    ParticleTrack::generate_partical(counts, sizes, particles, centre, withRotations);
    return particles;
}

TEST(ParticleGeneration, GridRunsInnermostAlongZAndRotatedPosesAreAbsolute) {
    const RigidMatrix centre = motion({0.3, 0, 0}, {100, 200, 300});
    const auto particles = particles_of({4, 3, 2}, {10, 20, 30}, true, centre);
    ASSERT_EQ(particles.size(), 5U * 3U * 3U + 18U);
    auto particle = particles.begin();
    for (int n = 0; n < 45; ++n, ++particle) {
        const Vector3d offset(10 * (n / 9 - 2), 20 * (n / 3 % 3 - 1), 30 * (n % 3 - 1));
        EXPECT_TRUE(particle->get_translation().isApprox(Vector3d(100, 200, 300) + offset)) << n;
        EXPECT_EQ(particle->get_rotation(), centre.get_rotation());
    }
    for (int n = 0; n < 18; ++n, ++particle) {
        const RigidMatrix expected = motion({0, 0, n % 2 == 0 ? -kFifteenDegrees : kFifteenDegrees},
                                            {10.0 * (n / 6 - 1), 20.0 * (n / 2 % 3 - 1), 0});
        EXPECT_EQ(particle->get_translation(), expected.get_translation()) << n;
        EXPECT_TRUE(particle->get_rotation().isApprox(expected.get_rotation())) << n;
    }
}

TEST(ParticleGeneration, CountsBecomeOddAndStayWithinLimits) {
    const int most = std::numeric_limits<int>::max(), least = std::numeric_limits<int>::min();
    const std::tuple<Vector3i, std::size_t, int> cases[] = {
        // counts, particles, lines
        {{4, 4, 1}, 25, 0},     {{5, 5, 1}, 25, 0},    {{0, -1, least}, 1, 0},
        {{63, 65, 1}, 3969, 1}, {{most, 1, 1}, 63, 1}, {{most, most, most}, 15 * 15 * 17, 1}};
    for (const auto& [counts, expected, lines] : cases) {
        std::vector<RigidMatrix> particles;
        EXPECT_EQ(line_count(printed([&, &given = counts] {
                      particles = particles_of(given, {kNaN, kInfinity, 1}, false);
                  })),
                  lines);
        EXPECT_EQ(particles.size(), expected) << counts.transpose();
        EXPECT_TRUE(particles.front().is_finite() && particles.back().is_finite());
    }
}

TEST(ParticleSelection, TiesAtTheCutAreDropped) {
    const std::tuple<const char*, std::vector<float>, std::vector<int>> cases[] = {
        {"none", {}, {}},
        {"one", {kFailed}, {0}},
        {"two equal ones", {0.2F, 0.2F}, {}},
        {"three", {0.4F, 0.3F, 0.2F}, {2}},
        {"four", {0.4F, 0.3F, 0.2F, 0.2F}, {0, 1, 2, 3}},
        {"five", {0.4F, 0.3F, 0.2F, 0.1F, 0.5F}, {0, 1, 2, 3}},
        {"tie at the cut", {0.1F, 0.3F, 0.2F, 0.3F, 0.3F, 0.9F}, {0, 2}},
        {"nearly a tie", {0.1F, 0.2F, 0.3F, 0.5F - 5e-6F, 0.5F, 0.6F}, {0, 1, 2}},
        {"all equal", std::vector<float>(43, 0.25F), {}},
        {"few without failure", {kFailed, kFailed, 0.2F, kFailed, kFailed, 0.1F, kFailed}, {2, 5}},
        {"not a number", {kNaN, 0.2F, kNaN, kNaN, kNaN, kNaN}, {1}},
    };
    for (const auto& [name, residuals, kept] : cases)
        EXPECT_EQ(ParticleTrack::select_particles(residuals), kept) << name;
}

TEST(ParticleResult, TheFirstOfTheSmallestResidualsWins) {
    const ParticleTrack tracker(1.0F, 5, "", 1, {5, 5, 1}, {10, 10, 10}, 0.5F, 0.8F, 1);
    const auto poses = particles_of({5, 1, 1}, {1, 1, 1}, false);
    const std::pair<std::vector<float>, int> cases[] = {{{0.3F, 0.2F, 0.1F, 0.1F, 0.4F}, 2},
                                                        {{kNaN, 0.5F, kNaN, 0.5F, kFailed}, 1},
                                                        {std::vector<float>(5, kFailed), -1},
                                                        {{}, -1}};
    for (const auto& [residuals, expected] : cases) {
        RigidMatrix result(Matrix3d::Identity(), {7, 7, 7});
        int best = 77;
        tracker.get_result(poses, result, 0, residuals, best);
        EXPECT_EQ(best, expected);
        EXPECT_EQ(result.get_translation().x(), expected < 0 ? 7.0 : expected - 2.0);
    }
}

TEST(ParticleScore, CountsWhatFallsOnUsablePixelsWithinTheThreshold) {
    // A wall that fills the image, 1 mm a pixel; the fixed one without one row.
    constexpr int width = 40, height = 30;
    constexpr int whole = width * (height - 1);
    const std::tuple<Vector3d, int, double> cases[] = {
        // translation, points counted, their mean
        {{0, 0, 0}, whole, 0.0},
        {{0, 0, 1.5}, whole, 1.5},
        {{0, 0, -0.5}, whole, 0.5},
        {{0, 0, 2.5}, 0, 0.0},
        {{0.4, 0, 0}, whole, 0.0},
        {{0.6, 0, 0}, whole - height + 1, 0.0},  // rounds to the next pixel, one column leaves
        {{-0.6, 0, 0}, whole, 0.0},              // the first column rounds to -0.1, which is cut off to 0
        {{-1.6, 0, 0}, whole - height + 1, 0.0},
        {{0, 1, 0}, whole - width, 0.0},
        {{0, 0, -2 * kWallDepth}, 0, 0.0},  // behind the camera
    };
    for (const float radial : {0.0F, 2.0F}) {
        const PointImage moving = wall(width, height, radial);
        PointImage fixed = moving;
        for (int x = 0; x < width; ++x) fixed.set_slot_empty(fixed.index_of(x, 12));
        ParticleTrack tracker(2.0F, 5, "", 1, {1, 1, 1}, {1, 1, 1}, 0.5F, 0.8F, 1);
        ASSERT_EQ(tracker.data_prepare(fixed, moving), RET_SUCCESS);
        int count = 0;
        float sum = 0.0F;
        for (const auto& [translation, expected, mean] : cases) {
            tracker.count_residual(motion({0, 0, 0}, translation), count, sum);
            EXPECT_EQ(count, expected) << translation.transpose() << ", radial " << radial;
            EXPECT_NEAR(sum / static_cast<float>(std::max(count, 1)), mean, 1e-3);
        }
        tracker.reset_code_Num(7);
        ASSERT_EQ(tracker.data_prepare(moving, moving), RET_SUCCESS);
        tracker.count_residual(RigidMatrix(), count, sum);
        EXPECT_EQ(count, width * height / 7);
    }
}

TEST(Particle, FailsOrRefines) {
    const RigidMatrix truth = motion({0.01, -0.02, 0.015}, {4, -3, 5});
    const PointImage fixed = desk_view(RigidMatrix()), moving = desk_view(truth);
    const RigidMatrix near, far = motion({0, 0, 0}, {5000, 0, 0}), halfOutside = motion({0, 0, 0}, {160, 0, 0});
    const RigidMatrix huge = motion({0, 0, 0}, {1e300, -1e300, 1e300});
    struct Case {
        const char* name;
        RigidMatrix start;
        float threshold, minValidRatio;
        int iterations, step;
        bool refines;
    };
    const Case cases[] = {
        {"near", near, 18.0F, 0.5F, 8, 1, true},
        {"on every third point", near, 18.0F, 0.5F, 8, 3, true},
        {"steps below 1", near, 18.0F, 0.5F, 8, -4, true},
        {"stops by itself", near, 18.0F, 0.5F, 2000000000, 1, true},
        {"judged where it stands", truth, 18.0F, 0.5F, 0, 1, true},
        {"no correspondences", far, 18.0F, 0.0F, 8, 1, false},
        {"nothing within the threshold", near, kNaN, 0.0F, 3, 1, false},
        {"few points see the model", halfOutside, 1e9F, 0.7F, 1, 1, false},
        {"more terms wanted than there are points", truth, 18.0F, 1.1F, 1, 1, false},
        {"fewer points than the step", near, 18.0F, 0.5F, 1, 2000000000, false},
        {"too far for floats", huge, 18.0F, 0.0F, 3, 1, false},
    };
    for (const Case& c : cases) {
        ParticleTrack tracker(c.threshold, 5, "", 5, {1, 1, 1}, {1, 1, 1}, c.minValidRatio, 0.8F, 1);
        ASSERT_EQ(tracker.data_prepare(fixed, moving), RET_SUCCESS);
        RigidMatrix refined = far;
        float residual = 0.0F, sum = 0.0F;
        int count = 0;
        tracker.count_one_particle(0, c.start, refined, residual, c.iterations, c.step);
        if (c.refines) {
            EXPECT_LE(distance_between(refined, truth, kDeskCentre), 0.05) << c.name;
            tracker.count_residual(refined, count, sum);
            EXPECT_NEAR(residual, sum / static_cast<float>(count), 1e-6F) << c.name;
        } else {
            EXPECT_EQ(residual, kFailed) << c.name;
            EXPECT_TRUE(refined.get_translation().isZero(0) && refined.get_rotation().isIdentity(0)) << c.name;
        }
    }
}

ParticleTrack usual_tracker(int threads, const std::string& debugPath = "") {
    return ParticleTrack(18.0F, 5, debugPath, 5, {4, 4, 1}, {10, 10, 10}, 0.5F, 0.8F, threads);
}

TEST(ParticleTracking, JumpsOverTheGridAndTurnsAboutTheViewingAxisAreFound) {
    const Vector3d axes[] = {Vector3d::UnitX(), Vector3d::UnitY(), Vector3d::UnitZ(), Vector3d(1, -1, 1).normalized(),
                             Vector3d(-1, -1, 0).normalized()};
    std::vector<RigidMatrix> jumps;
    const auto add = [&](double turn, double x, double y) {
        const RigidMatrix rest = motion(kTwoDegrees * axes[jumps.size() % 5], {0, 0, 0});
        jumps.push_back(motion({0, 0, turn}, {x, y, 0}) * rest);
    };
    for (int n = 0; n < 25; ++n) add(0, 10 * (n / 5 - 2), 10 * (n % 5 - 2));
    for (const double turn : {-kFifteenDegrees, kFifteenDegrees})
        for (const double x : {-6.0, 0.0, 10.0})
            for (const double y : {-10.0, 0.0, 6.0}) add(turn, x, y);
    const PointImage fixed = desk_view(RigidMatrix());
    ParticleTrack tracker = usual_tracker(2);
    for (const RigidMatrix& jump : jumps) {
        const PointImage moving = desk_view(jump);
        RigidMatrix result;
        EXPECT_EQ(tracker.partical_track(fixed, moving, result, 0, nullptr), RET_SUCCESS);
        EXPECT_LT(pose_error(result, jump), 0.5) << jump.get_translation().transpose();
        EXPECT_LT(tracker.get_the_min_residual(), 1.0F);
    }
}

TEST(ParticleTracking, ExtraPosesReachBeyondTheGrid) {
    const RigidMatrix jump = motion({0, 0, -0.7}, {40, -20, 10});
    const PointImage fixed = desk_view(RigidMatrix()), moving = desk_view(jump);
    const RigidMatrix broken(Matrix3d::Identity(), {0, kInfinity, 0});
    const std::vector<RigidMatrix> extra{broken, jump * motion({0, 0.02, 0.02}, {3, 3, 0}), broken};
    ParticleTrack tracker = usual_tracker(2);
    RigidMatrix result;
    tracker.partical_track(fixed, moving, result, 0, nullptr);
    EXPECT_GT(pose_error(result, jump), 5.0);
    EXPECT_EQ(printed([&] { EXPECT_EQ(tracker.partical_track(fixed, moving, result, 0, &extra), RET_SUCCESS); }),
              "2 extra start poses are not finite or too many, left out\n");
    EXPECT_LT(pose_error(result, jump), 0.5);
}

TEST(ParticleTracking, ResultDependsNeitherOnThreadsNorOnEarlierCalls) {
    const PointImage fixed = desk_view(RigidMatrix()), smaller = desk_view(RigidMatrix(), 80);
    const PointImage moving = desk_view(motion({0.02, 0.01, 0.0}, {12, -8, 3}));
    ParticleTrack first = usual_tracker(1), second = usual_tracker(5);
    RigidMatrix a, b;
    ASSERT_EQ(first.partical_track(fixed, moving, a, 0, nullptr), RET_SUCCESS);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(second.partical_track(fixed, moving, b, 0, nullptr), RET_SUCCESS);
        EXPECT_EQ(a.get_translation(), b.get_translation());
        EXPECT_EQ(a.get_rotation(), b.get_rotation());
        EXPECT_EQ(first.get_the_min_residual(), second.get_the_min_residual());
        second.partical_track(smaller, smaller, b, 0, nullptr);
        if (round == 1) second.release();
    }
    second.set_vector_steps(nullptr);
    ASSERT_EQ(second.partical_track(fixed, moving, b, 0, nullptr), RET_SUCCESS);
    EXPECT_LT(distance_between(a, b, kDeskCentre), 1e-3) << "the plain steps give the same but for rounding";
}

TEST(ParticleDebug, FilesAndLinesOnlyWithSwitchAndFrame) {
    const TemporaryFolder folder;
    const PointImage view = desk_view(RigidMatrix(), 80);
    ParticleTrack tracker = usual_tracker(2, folder.path().string());
    tracker.set_debug_frame(3);
    for (const auto& [on, frameId] : {std::pair(false, 3), {true, 4}, {true, 3}}) {
        ParticleTrack::set_debug_switch(on);
        RigidMatrix result;
        const std::string lines =
            printed([&, id = frameId] { tracker.partical_track(view, view, result, id, nullptr); });
        ParticleTrack::set_debug_switch(false);
        const bool isExpected = on && frameId == 3;
        EXPECT_EQ(lines.find("minDis = ") != std::string::npos, isExpected);
        EXPECT_EQ(lines.find("minId = ") != std::string::npos, isExpected);
        for (const char* name : {"fixCloud_3.txt", "roughtResult_3.txt", "fineResult_3.txt", "roughtPosition_3_42.txt",
                                 "roughtPosition_fine_3_0.txt", "finePosition_3_8.txt"})
            EXPECT_EQ(std::filesystem::exists(folder.path() / name), isExpected) << name;
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Track
