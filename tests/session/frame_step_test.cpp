// The way of a frame: what is refused and said, what stays as it was, and what the arguments do.
#include <cstdio>

#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;

struct BadFrame {
    std::function<void(PointImage&)> damage;
    FrameOutcome outcome;
    std::string lines;
};

BadFrame without(void (PointImage::*attribute)()) {
    return {[=](PointImage& frame) { (frame.*attribute)(); }, FrameOutcome::MissingAttributes,
            "the PointImage uesed to fusion mush contain normal and weight and vFlag attribute \n"};
}

BadFrame with_points(int count, const std::function<void(PointImage&)>& damage) {
    return {damage, FrameOutcome::TooFewPoints,
            "oneFrame.count_vaildNum() = " + std::to_string(count) +
                " \nfail because oneFrame.get_Vn() < LimitNum = 1500 \n"};
}

BadFrame not_consistent(const std::string& reason, const std::function<void(PointImage&)>& damage) {
    return {damage, FrameOutcome::BadFrame, can_not("fusion_and_track", reason)};
}

std::vector<BadFrame> bad_frames() {
    const auto all_but_1499_empty = [](PointImage& frame) {
        int left = 1499;
        for (std::size_t i = 0; i < frame.get_vn(); ++i)
            if (frame.has_point(i) && --left < 0) frame.set_slot_empty(i);
    };
    const auto all_NaN = [](PointImage& frame) {
        frame.set_vCoords(std::vector<Vector3f>(frame.get_vn(), Vector3f::Constant(kNaN)));
    };
    const RigidMatrix nowhere(Matrix3d::Identity(), Vector3d::Constant(kNaN));
    return {
        without(&PointImage::disable_vWeight),
        without(&PointImage::disable_vNormal),
        without(&PointImage::disable_vFlag),
        with_points(1499, all_but_1499_empty),
        with_points(0, all_NaN),
        not_consistent("the frame has 40 x 30 pixels and the session 160 x 128",
                       [](PointImage& f) { f.ini(40, 30, f.get_camPar(), 1, Vector2f::Zero()); }),
        not_consistent("the frame's attributes differ in length",
                       [](PointImage& f) { f.set_vNrvs(std::vector<Vector3f>(1)); }),
        not_consistent("the frame's camera is not usable",
                       [](PointImage& f) { f.set_camPar(CameraInParam(kNaN, 400, 80, 64)); }),
        not_consistent("the frame's stored pose is not a rigid motion", [=](PointImage& f) { f.set_rt(nowhere); }),
    };
}

TEST(FrameStep, BadFramesAreRefusedAndChangeNothing) {
    const Scan scan("smooth");
    Session session(scan.records), twin(scan.records);
    std::string before;
    for (const bool hasModel : {false, true}) {
        for (const BadFrame& bad : bad_frames()) {
            SCOPED_TRACE(bad.lines);
            PointImage frame = scan.frame(2);
            bad.damage(frame);
            LimitedStep step{true, 5, 1, 0};
            session.step(frame, step);
            EXPECT_FALSE(step.isAccepted || step.fuse);
            EXPECT_EQ(step.lines, bad.lines);
            EXPECT_EQ(step.microseconds, -7);
            EXPECT_EQ(session.state().outcome, bad.outcome);
            EXPECT_EQ(session.state().isLost, hasModel);
            EXPECT_EQ(hasModel ? session.bytes() : "", before);
        }
        if (hasModel) break;
        for (int i = 0; i < 2; ++i) ASSERT_TRUE(session.step(scan.frame(i)) && twin.step(scan.frame(i)));
        before = session.bytes();
    }
    PointImage other = scan.frame(2);
    other.set_camPar(scan.sequence.camera.scaled_down(1.01));
    EXPECT_EQ(printed([&] { EXPECT_FALSE(session.step(other)); }),
              can_not("fusion_and_track", "the frame's camera is not that of the model"));
    // The prediction is as it was, too.
    ASSERT_TRUE(session.step(scan.frame(2)) && twin.step(scan.frame(2)));
    EXPECT_EQ(session.bytes(), twin.bytes());
    const FusionScanState state = session.state();
    EXPECT_TRUE(state.correspondences > 3000 && state.residual < 0.2F);
    for (const double time :
         {state.times.prepare, state.times.particles, state.times.icp, state.times.integrate, state.times.predict})
        EXPECT_TRUE(time > 0.0 && time < state.times.whole) << time;
}

TEST(FrameStep, TheFirstFrameIsFusedWhateverTheArguments) {
    const Scan scan("smooth");
    Session session(scan.records);
    LimitedStep step{false, 1 << 30, 0, 0};
    session.step(scan.frame(0), step);
    EXPECT_FALSE(step.isAccepted);
    EXPECT_EQ(step.lines, "fusion_and_track fail because frameTimeGap < 1e-6\n");
    EXPECT_EQ(session.state().outcome, FrameOutcome::NoFrameYet);
    step.frameTimeGap = 1;
    session.step(scan.frame(0), step);
    EXPECT_TRUE(step.isAccepted && step.fuse && step.speedState == 0 && step.contribution == 1 << 30);
    EXPECT_EQ(step.microseconds, -7) << "only a tracked frame has a time";
    EXPECT_EQ(session.state().outcome, FrameOutcome::FirstFrame);
    EXPECT_EQ(get_current_rt(session).get_translation(), Vector3d::Zero());
    EXPECT_GT(session.mesh().get_fn(), 5000U);
}

TEST(FrameStep, SpeedStates) {
    const Scan scan("smooth");
    const std::string fast = "linespeed exceed the limitation, fusion_and_track falied \n";
    const std::string turning = "angularspeed exceed the limitation, fusion_and_track falied \n";
    const std::string refused = "icp succeed but exceeded the speed limit can't run the fusion process \n";
    const std::string taken = "icp succeed but exceeded the speed limit, running the fusion process \n";
    // Speed state, limits of line and angle; is it accepted, speed state afterwards, lines (after one with the angles,
    // where the limit of the angle is broken).
    const std::tuple<int, float, float, bool, int, std::string> cases[] = {
        {-1, 1e-3F, 1e-6F, true, -1, ""},
        {0, 50.0F, 20.0F, true, 1, ""},
        {0, 1e-3F, 20.0F, false, 0, fast + refused},
        {1, 1e-3F, 20.0F, true, 1, fast + taken},
        {7, 50.0F, 1e-6F, true, 1, turning + taken},
    };
    for (const auto& [speedState, lineLimit, angleLimit, isAccepted, speedStateAfter, lines] : cases) {
        SCOPED_TRACE(lines);
        Session session(scan.records);
        ASSERT_TRUE(session.step(scan.frame(0)));
        ASSERT_EQ(set_track_speed_threshold(session, lineLimit, angleLimit), RET_SUCCESS);
        const std::string before = session.bytes();
        LimitedStep step{true, 0, 1, speedState};
        session.step(scan.frame(1), step);
        EXPECT_EQ(step.isAccepted, isAccepted);
        EXPECT_EQ(step.speedState, speedStateAfter);
        EXPECT_TRUE(step.fuse) << "a fast frame leaves the flag alone";
        EXPECT_EQ(session.state().outcome, isAccepted ? FrameOutcome::Fused : FrameOutcome::TooFast);
        EXPECT_EQ(session.bytes() == before, !isAccepted);
        const bool hasAngles = lines.rfind(turning, 0) == 0;
        EXPECT_EQ(step.lines.substr(hasAngles ? step.lines.find('\n') + 1 : 0), lines);
        if (!hasAngles) continue;
        float angles[3];
        ASSERT_EQ(std::sscanf(step.lines.c_str(), "angularspeed[0] = %f, angularspeed[1] = %f, angularspeed[2] = %f \n",
                              &angles[0], &angles[1], &angles[2]),
                  3);
        EXPECT_TRUE(angles[0] == angles[2] && std::abs(angles[0]) < 0.1F);
    }
}

TEST(FrameStep, TheContributionDecides) {
    const Scan scan("smooth");
    int own = 0;
    for (const int offset : {0, 0, -1, 1}) {  // the first round finds the frame's own contribution
        Session session(scan.records);
        ASSERT_TRUE(session.step(scan.frame(0)));
        const std::string mesh = session.mesh_bytes();
        LimitedStep step{false, own == 0 ? 1 << 30 : own + offset};
        session.step(scan.frame(2), step);
        ASSERT_TRUE(step.isAccepted);
        if (own == 0) own = step.contribution;
        EXPECT_GT(own, 50);
        EXPECT_EQ(step.contribution, own);
        EXPECT_EQ(step.fuse, offset < 0);
        EXPECT_EQ(session.state().outcome, step.fuse ? FrameOutcome::Fused : FrameOutcome::TrackedOnly);
        EXPECT_EQ(session.mesh_bytes() == mesh, !step.fuse);
        EXPECT_EQ(session.state().acceptedFrames, 2);
        EXPECT_TRUE(session.step(scan.frame(3))) << "the prediction follows the pose in any case";
    }
}

TEST(FrameStep, OnlyTrackAndOnlyFuse) {
    const Scan scan("smooth");
    Session session(scan.records), given(scan.records);
    int microseconds = -1;
    ASSERT_TRUE(track(session, scan.frame(0), microseconds)) << "the first frame starts the model";
    const std::size_t faces = session.mesh().get_fn();
    ASSERT_TRUE(track(session, scan.frame(1), microseconds));
    EXPECT_GT(microseconds, 0);
    EXPECT_EQ(session.state().outcome, FrameOutcome::TrackedOnly);
    EXPECT_EQ(session.mesh().get_fn(), faces);
    EXPECT_LT(pose_error(scan.sequence.pose_in_model(1), get_current_rt(session)).x(), 0.5);

    const std::vector<RigidMatrix>& poses = scan.sequence.poses;
    for (const RigidMatrix& bad : {RigidMatrix(Matrix3d::Identity(), Vector3d::Constant(kNaN)),
                                   RigidMatrix(2.0 * Matrix3d::Identity(), Vector3d::Zero())})
        EXPECT_EQ(printed([&] { EXPECT_FALSE(given.fuse(scan.frame(0), bad)); }),
                  can_not("fusion", "the pose is not a rigid motion"));
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(given.fuse(scan.frame(static_cast<int>(i)), poses[i]));
        EXPECT_LT(pose_error(poses[i], get_current_rt(given)).x(), 1e-9);
    }
    EXPECT_EQ(given.state().acceptedFrames, 3);
    ASSERT_TRUE(given.step(scan.frame(3))) << "the prediction is there for tracking";
    EXPECT_LT(pose_error(poses[0] * scan.sequence.pose_in_model(3), get_current_rt(given)).x(), 0.5);
}

}  // namespace
