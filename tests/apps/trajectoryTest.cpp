// Trajectories: their text, and figures that can be worked out by hand.
#include <Eigen/Geometry>

#include "recording/trajectoryEvaluation.h"
#include "recording/trajectoryText.h"
#include "tests/common.h"

namespace {

using namespace VexelAlgorithm;

RigidMatrix motion(const Vector3d& axisAngleDegrees, const Vector3d& translation) {
    return {VexelTest::turned(axisAngleDegrees * (EIGEN_PI / 180.0)), translation};
}

double difference(const RigidMatrix& one, const RigidMatrix& other) {
    return (one.get_rotation() - other.get_rotation()).norm() +
           (one.get_translation() - other.get_translation()).norm();
}

PointImage some_points() {
    PointImage frame;
    frame.ini(9, 7, CameraInParam(10, 10, 4, 3), 1, Vector2f::Zero());
    for (int i = 0; i < 63; i += 2)
        frame.set_point(i % 9, i / 9, Vector3f(3.0f * i, 40.0f - i, 500.0f + 7.0f * (i % 5)));
    return frame;
}

/// A curved walk, found without error but in coordinates of its own.
std::vector<ComparedFrame> perfect_walk(int count) {
    const RigidMatrix foundToGiven = motion({20, -30, 70}, {400, -80, 33});
    const Matrix4d moments = point_moments(some_points());
    std::vector<ComparedFrame> frames;
    for (int i = 0; i < count; ++i) {
        const RigidMatrix given = motion({0.3 * i, 5.0 * std::sin(0.1 * i), -0.2 * i},
                                         {4.0 * i, 30.0 * std::sin(0.2 * i), 25.0 * std::cos(0.15 * i)});
        frames.push_back({i, foundToGiven.inverse() * given, given, moments});
    }
    return frames;
}

void expect_figures(const ErrorFigures& figures, double rmse, double median, double max, double tolerance = 1e-9) {
    EXPECT_NEAR(figures.rmse, rmse, tolerance);
    EXPECT_NEAR(figures.median, median, tolerance);
    EXPECT_NEAR(figures.max, max, tolerance);
}

TEST(Trajectory, TextReadsBack) {
    std::vector<TimedPose> poses;
    for (int i = 0; i < 40; ++i)
        poses.push_back({i / 30.0, motion({9.0 * i, -4.6 * i, 1.0}, {1000.5 * i, -0.01, 1e-3 * i})});
    const Outcome<std::vector<TimedPose>> read =
        parse_trajectory("# made by hand\r\n\n" + trajectory_text(poses) + "\n  # end");
    ASSERT_TRUE(read) << read.failure().reason;
    ASSERT_EQ(read->size(), 40U);
    for (std::size_t i = 0; i < poses.size(); ++i) {
        EXPECT_NEAR((*read)[i].time, poses[i].time, 1e-6);
        EXPECT_LT(difference((*read)[i].cameraToWorld, poses[i].cameraToWorld), 2e-4);
    }
    const Outcome<std::vector<TimedPose>> quarter = parse_trajectory("7.5 1 -2 3 0 0 0.70711 0.70711\n");
    ASSERT_TRUE(quarter);
    EXPECT_LT(difference((*quarter)[0].cameraToWorld, motion({0, 0, 90}, {1000, -2000, 3000})), 1e-9);
}

TEST(Trajectory, RefusesTextThatIsNone) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "holds no pose"},
        {"0 0 0 0 0 0 0 1\n1 2 3\n", "line 2: only 3 of 8"},
        {"0 0 0 0 0 0 0 1 9\n", "line 1: more than"},
        {"0 0 0 nan 0 0 0 1\n", "not finite"},
        {"0 0 0 1e300 0 0 0 1\n", "100 km"},
        {"0 0 0 0 1 1 0 0\n", "length 1.4"},
        {"1 0 0 0 0 0 0 1\n1 0 0 0 0 0 0 1\n", "line 2: its time 1 s is not after"},
    };
    for (const auto& [text, reason] : cases) {
        const Outcome<std::vector<TimedPose>> read = parse_trajectory(text);
        ASSERT_FALSE(read) << text;
        EXPECT_NE(read.failure().reason.find(reason), std::string::npos) << read.failure().reason;
    }
}

TEST(Trajectory, OneFrameBesideItsPlaceGivesTheFiguresOfHandCalculation) {
    std::vector<ComparedFrame> frames = perfect_walk(21);
    frames[10].found = *frames[10].found * motion({0, 0, 2}, {3, 0, 4});
    const TrajectoryErrors errors = evaluate_trajectory(frames, {0, 20});
    EXPECT_EQ(errors.frames, 21);
    EXPECT_EQ(errors.tracked, 21);
    EXPECT_EQ(errors.steps, 20);
    expect_figures(errors.firstAligned.translation, 5.0 / std::sqrt(21.0), 0.0, 5.0);
    expect_figures(errors.firstAligned.rotation, 2.0 / std::sqrt(21.0), 0.0, 2.0, 1e-6);
    // The step into the frame is wrong by its own error, the step out of it by the inverse seen from the next frame.
    EXPECT_NEAR(errors.relative.rotation.rmse, 2.0 / std::sqrt(10.0), 1e-6);
    EXPECT_NEAR(errors.relative.translation.median, 0.0, 1e-9);
    EXPECT_GT(errors.relative.translation.max, 5.0 - 1e-9);
    EXPECT_LT(errors.bestAligned.translation.rmse, errors.firstAligned.translation.rmse);

    const TrajectoryErrors before = evaluate_trajectory(frames, {0, 9});
    EXPECT_EQ(before.frames, 10);
    expect_figures(before.bestAligned.rotation, 0.0, 0.0, 0.0, 1e-6);
    expect_figures(before.pointMotion, 0.0, 0.0, 0.0, 1e-6);
}

TEST(Trajectory, LostFramesAreCountedAndNoStepBridgesThem) {
    std::vector<ComparedFrame> frames = perfect_walk(10);
    frames[0].found.reset();
    frames[4].found.reset();
    frames[8].given.reset();
    const TrajectoryErrors errors = evaluate_trajectory(frames, {0, 9});
    EXPECT_EQ(errors.tracked, 8);
    EXPECT_EQ(errors.compared, 7);
    EXPECT_EQ(errors.steps, 4);
    EXPECT_DOUBLE_EQ(errors.tracked_share(), 0.8);
    expect_figures(errors.firstAligned.translation, 0.0, 0.0, 0.0);
    const std::vector<FrameError> each = frame_errors(frames);
    for (const std::size_t i : {0u, 4u, 8u}) EXPECT_TRUE(std::isnan(each[i].translation));
    for (const std::size_t i : {1u, 5u, 9u}) {
        EXPECT_NEAR(each[i].translation, 0.0, 1e-9);
        EXPECT_TRUE(std::isnan(each[i].pointMotion));
    }
    EXPECT_NEAR(each[2].pointMotion, 0.0, 1e-6);

    for (ComparedFrame& frame : frames) frame.found.reset();
    EXPECT_EQ(evaluate_trajectory(frames, {0, 9}).compared, 0);
    EXPECT_EQ(evaluate_trajectory(frames, {20, 30}).frames, 0);
    EXPECT_EQ(evaluate_trajectory(frames, {20, 30}).tracked_share(), 0.0);
}

TEST(Trajectory, PointMomentsStandForThePoints) {
    const PointImage frame = some_points();
    const RigidMatrix one = motion({1, 2, 3}, {4, 5, 6});
    const RigidMatrix other = motion({-2, 0.5, 3}, {4, -5, 1});
    double squares = 0.0;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        const Vector3d point = frame.get_vCoord(i).cast<double>();
        if (frame.has_point(i)) squares += (one * point - other * point).squaredNorm();
    }
    EXPECT_NEAR(rms_point_distance(point_moments(frame), one, other), std::sqrt(squares / frame.count_vaildNum()),
                1e-6);
    PointImage empty;
    empty.ini(4, 4);
    EXPECT_EQ(point_moments(empty), Matrix4d::Zero());
}

TEST(Trajectory, BestAlignmentIsTheLeastSquaresOneAndOrientationsDecideWhatIsFree) {
    const RigidMatrix truth = motion({40, -10, 100}, {5, 6, 7});
    std::mt19937 random(3);
    std::normal_distribution<double> noise(0.0, 100.0);
    std::vector<RigidMatrix> from, to, line, lineTo;
    Eigen::Matrix3Xd source(3, 25), target(3, 25);
    for (int i = 0; i < 25; ++i) {
        from.push_back(motion({noise(random), 0, 0}, {noise(random), noise(random), noise(random)}));
        to.push_back(truth * from.back());
        to.back().get_translation() += 0.05 * Vector3d(noise(random), noise(random), noise(random));
        source.col(i) = from.back().get_translation();
        target.col(i) = to.back().get_translation();
        line.push_back(motion({3.0 * i, i + 1.0, 0}, Vector3d(1, 2, -1) * i));
        lineTo.push_back(truth * line.back());
    }
    const Matrix4d expected = Eigen::umeyama(source, target, false);
    const RigidMatrix found = best_rigid_alignment(from, to);
    EXPECT_LT((found.get_rotation() - expected.topLeftCorner<3, 3>()).norm(), 1e-6);
    EXPECT_LT((found.get_translation() - expected.topRightCorner<3, 1>()).norm(), 1e-4);
    EXPECT_LT(difference(best_rigid_alignment(line, lineTo), truth), 1e-6);
    EXPECT_LT(difference(best_rigid_alignment({line[3]}, {lineTo[3]}), truth), 1e-6);
}

TEST(Trajectory, CutsWhereThePosesJumpAgainstEachOther) {
    std::vector<ComparedFrame> frames = perfect_walk(40);
    for (std::size_t i = 0; i < frames.size(); ++i) {  // half a millimetre of jitter
        frames[i].found = *frames[i].found * motion({0, 0, 0}, {i % 2 == 0 ? 0.5 : 0.0, 0, 0});
    }
    ASSERT_EQ(ranges_between_jumps(frames).size(), 1u);
    for (std::size_t i = 22; i < frames.size(); ++i) frames[i].given = motion({0, 1, 0}, {30, 0, 0}) * *frames[i].given;
    const std::vector<FrameRange> ranges = ranges_between_jumps(frames);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_TRUE(ranges[0].first == 0 && ranges[0].last == 21 && ranges[1].first == 22 && ranges[1].last == 39);
    for (const FrameRange range : ranges)
        EXPECT_LT(evaluate_trajectory(frames, range).firstAligned.translation.max, 0.51);

    for (std::size_t i = 0; i < frames.size(); i += 8)
        frames[i].found = *frames[i].found * motion({0, 0, 0}, {90, 0, 0});
    EXPECT_EQ(ranges_between_jumps(frames).size(), 1u) << "this many jumps are bad tracking";
    EXPECT_TRUE(ranges_between_jumps({}).empty());
}

}  // namespace
