// The way of a frame: what is refused and said, what stays as it was, and what the arguments do.
#include <algorithm>
#include <cstdio>

#include "tests/session/sessionScenes.h"

namespace VexelAlgorithm {
namespace {

const char* const kAttributes = "the PointImage uesed to fusion mush contain normal and weight and vFlag attribute \n";

std::string can_not(const std::string& reason) {
    return "can not run function fusion_and_track because " + reason + "\n";
}

struct BadFrame {
    const char* name;
    std::function<void(PointImage&)> damage;
    FrameOutcome outcome;
    std::string lines;
};

std::string too_few(int points) {
    return "oneFrame.count_vaildNum() = " + std::to_string(points) +
           " \nfail because oneFrame.get_Vn() < LimitNum = 1500 \n";
}

PointImage& keep_points(PointImage& frame, int count) {
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (frame.has_point(i) && --count < 0) frame.set_slot_empty(i);
    }
    return frame;
}

std::vector<BadFrame> bad_frames() {
    const auto every_point = [](PointImage& frame, const Vector3f& point) {
        frame.set_vCoords(std::vector<Vector3f>(frame.get_vn(), point));
    };
    return {
        {"no weights", [](PointImage& f) { f.disable_vWeight(); }, FrameOutcome::MissingAttributes, kAttributes},
        {"no normals", [](PointImage& f) { f.disable_vNormal(); }, FrameOutcome::MissingAttributes, kAttributes},
        {"no flags", [](PointImage& f) { f.disable_vFlag(); }, FrameOutcome::MissingAttributes, kAttributes},
        {"1499 points", [](PointImage& f) { keep_points(f, 1499); }, FrameOutcome::TooFewPoints, too_few(1499)},
        {"empty", [](PointImage& f) { f.setZero(); }, FrameOutcome::TooFewPoints, too_few(0)},
        {"all NaN", [&](PointImage& f) { every_point(f, Vector3f::Constant(kNaN)); }, FrameOutcome::TooFewPoints,
         too_few(0)},
        {"other size", [](PointImage& f) { f.ini(40, 30, f.get_camPar(), 1, Vector2f::Zero()); },
         FrameOutcome::BadFrame, can_not("the frame has 40 x 30 pixels and the session 160 x 128")},
        {"few normals",
         [](PointImage& f) {
             f.set_vNrvs({{0, 0, 1}});
         },
         FrameOutcome::BadFrame, can_not("the frame's attributes differ in length")},
        {"camera of NaN",
         [](PointImage& f) {
             f.set_camPar({kNaN, 400, 80, 64});
         },
         FrameOutcome::BadFrame, can_not("the frame's camera is not usable")},
        {"no camera", [](PointImage& f) { f.set_camPar({}); }, FrameOutcome::BadFrame,
         can_not("the frame's camera is not usable")},
        {"moved by NaN",
         [](PointImage& f) {
             f.set_rt({Matrix3d::Identity(), Vector3d::Constant(kNaN)});
         },
         FrameOutcome::BadFrame, can_not("the frame's stored pose is not a rigid motion")},
    };
}

TEST(FrameStep, BadFramesAreRefusedAndChangeNothing) {
    const Scan scan("smooth");
    Session session(scan.records), twin(scan.records);
    for (const BadFrame& bad : bad_frames()) {
        SCOPED_TRACE(bad.name);
        PointImage frame = scan.frame(0);
        bad.damage(frame);
        int microseconds = -7, contribution = 5, speedState = 0;
        bool fuse = true;
        EXPECT_EQ(printed([&] {
                      EXPECT_FALSE(fusion_and_track_with_speed_limit(session, frame, microseconds, fuse, contribution,
                                                                     1, speedState));
                  }),
                  bad.lines);
        EXPECT_FALSE(fuse);
        EXPECT_EQ(microseconds, -7);
        EXPECT_EQ(session.state().outcome, bad.outcome);
        EXPECT_FALSE(session.state().isLost) << "there is no model yet";
    }
    ASSERT_TRUE(session.step(scan.frame(0)) && twin.step(scan.frame(0)));
    ASSERT_TRUE(session.step(scan.frame(1)) && twin.step(scan.frame(1)));
    const std::string before = session.bytes();
    for (const BadFrame& bad : bad_frames()) {
        SCOPED_TRACE(bad.name);
        PointImage frame = scan.frame(2);
        bad.damage(frame);
        EXPECT_EQ(printed([&] { EXPECT_FALSE(session.step(frame)); }), bad.lines);
        EXPECT_TRUE(session.state().isLost);
        EXPECT_EQ(session.bytes(), before);
    }
    PointImage other = scan.frame(2);
    other.set_camPar(scan.sequence.camera.scaled_down(1.01));
    EXPECT_EQ(printed([&] { EXPECT_FALSE(session.step(other)); }),
              can_not("the frame's camera is not that of the model"));
    // The prediction is as it was, too.
    ASSERT_TRUE(session.step(scan.frame(2)) && twin.step(scan.frame(2)));
    EXPECT_EQ(session.bytes(), twin.bytes());
}

TEST(FrameStep, TheFirstFrameIsFusedWhateverTheArguments) {
    const Scan scan("smooth");
    Session session(scan.records);
    int microseconds = -7, contribution = 1 << 30, speedState = 0;
    bool fuse = false;
    EXPECT_EQ(printed([&] {
                  EXPECT_FALSE(fusion_and_track_with_speed_limit(session, scan.frame(0), microseconds, fuse,
                                                                 contribution, 0, speedState));
              }),
              "fusion_and_track fail because frameTimeGap < 1e-6\n");
    EXPECT_EQ(session.state().outcome, FrameOutcome::NoFrameYet);
    EXPECT_TRUE(
        fusion_and_track_with_speed_limit(session, scan.frame(0), microseconds, fuse, contribution, 1, speedState));
    EXPECT_TRUE(fuse);
    EXPECT_EQ(speedState, 0);
    EXPECT_EQ(contribution, 1 << 30);
    EXPECT_EQ(microseconds, -7) << "only a tracked frame has a time";
    EXPECT_EQ(session.state().outcome, FrameOutcome::FirstFrame);
    EXPECT_EQ(session.state().acceptedFrames, 1);
    EXPECT_EQ(get_current_rt(session).get_translation(), Vector3d::Zero());
    EXPECT_GT(session.mesh().get_fn(), 5000U);
}

TEST(FrameStep, TheStateTellsOfTheFrame) {
    const Scan scan("fast");
    Session session(scan.records);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(session.step(scan.frame(i))) << i;
    const FusionScanState state = session.state();
    EXPECT_EQ(state.outcome, FrameOutcome::Fused);
    EXPECT_EQ(state.acceptedFrames, 5);
    EXPECT_GT(state.correspondences, 3000);
    EXPECT_LT(state.residual, 0.2F);
    EXPECT_LT(pose_error(get_current_rt(session), scan.sequence.pose_in_model(4)).x(), 0.5);
    for (const double time :
         {state.times.prepare, state.times.particles, state.times.icp, state.times.integrate, state.times.predict}) {
        EXPECT_GT(time, 0.0);
        EXPECT_LT(time, state.times.whole);
    }
}

TEST(FrameStep, SpeedStates) {
    const Scan scan("smooth");
    const char* const fast = "linespeed exceed the limitation, fusion_and_track falied \n";
    struct Case {
        int speedState;
        float lineLimit, angleLimit;
        bool accepted;
        int speedStateAfter;
        std::string lines;
    };
    const Case cases[] = {
        {-1, 1e-3F, 1e-6F, true, -1, ""},
        {0, 50.0F, 20.0F, true, 1, ""},
        {0, 1e-3F, 20.0F, false, 0,
         std::string(fast) + "icp succeed but exceeded the speed limit can't run the fusion process \n"},
        {1, 1e-3F, 20.0F, true, 1,
         std::string(fast) + "icp succeed but exceeded the speed limit, running the fusion process \n"},
        {7, 50.0F, 1e-6F, true, 1, "angularspeed exceed the limitation, fusion_and_track falied \n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lines);
        Session session(scan.records);
        ASSERT_TRUE(session.step(scan.frame(0)));
        ASSERT_EQ(set_track_speed_threshold(session, c.lineLimit, c.angleLimit), RET_SUCCESS);
        const std::string before = session.bytes();
        int microseconds = 0, contribution = 0, speedState = c.speedState;
        bool fuse = true;
        const std::string lines = printed([&] {
            EXPECT_EQ(fusion_and_track_with_speed_limit(session, scan.frame(1), microseconds, fuse, contribution, 1,
                                                        speedState),
                      c.accepted);
        });
        EXPECT_EQ(speedState, c.speedStateAfter);
        EXPECT_TRUE(fuse) << "a fast frame leaves the flag alone";
        EXPECT_EQ(session.state().outcome, c.accepted ? FrameOutcome::Fused : FrameOutcome::TooFast);
        EXPECT_EQ(session.bytes() == before, !c.accepted);
        if (c.angleLimit > 1e-3F || c.speedState < 0) {
            EXPECT_EQ(lines, c.lines);
            continue;
        }
        float angles[3];
        ASSERT_EQ(std::sscanf(lines.c_str(), "angularspeed[0] = %f, angularspeed[1] = %f, angularspeed[2] = %f ",
                              &angles[0], &angles[1], &angles[2]),
                  3);
        EXPECT_EQ(angles[0], angles[2]);
        EXPECT_LT(std::abs(angles[0]), 0.1F);
        EXPECT_NE(lines.find(c.lines), std::string::npos);
    }
}

TEST(FrameStep, TheContributionDecides) {
    const Scan scan("smooth");
    int own = 0;
    for (const int offset : {0, 0, -1, 1}) {  // the first round finds the frame's own contribution
        Session session(scan.records);
        ASSERT_TRUE(session.step(scan.frame(0)));
        const std::string mesh = [&] {
            std::ostringstream out;
            session.mesh().write_archive(out);
            return out.str();
        }();
        int microseconds = 0, contribution = own == 0 ? 1 << 30 : own + offset, speedState = -1;
        bool fuse = false;
        ASSERT_TRUE(
            fusion_and_track_with_speed_limit(session, scan.frame(2), microseconds, fuse, contribution, 1, speedState));
        if (own == 0) own = contribution;
        EXPECT_GT(own, 50);
        EXPECT_EQ(contribution, own);
        EXPECT_EQ(fuse, offset < 0);
        EXPECT_EQ(session.state().outcome, fuse ? FrameOutcome::Fused : FrameOutcome::TrackedOnly);
        std::ostringstream after;
        session.mesh().write_archive(after);
        EXPECT_EQ(after.str() == mesh, !fuse);
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

    const RigidMatrix world = scan.sequence.poses[0];
    for (const RigidMatrix& bad : {RigidMatrix(Matrix3d::Identity(), Vector3d::Constant(kNaN)),
                                   RigidMatrix(2.0 * Matrix3d::Identity(), Vector3d::Zero())}) {
        EXPECT_EQ(printed([&] { EXPECT_FALSE(fusion(given, scan.frame(0), bad, microseconds)); }),
                  "can not run function fusion because the pose is not a rigid motion\n");
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(fusion(given, scan.frame(i), scan.sequence.poses[static_cast<std::size_t>(i)], microseconds));
        EXPECT_LT(pose_error(scan.sequence.poses[static_cast<std::size_t>(i)], get_current_rt(given)).x(), 1e-9);
    }
    EXPECT_EQ(given.state().acceptedFrames, 3);
    ASSERT_TRUE(given.step(scan.frame(3))) << "the prediction is there for tracking";
    EXPECT_LT(pose_error(world * scan.sequence.pose_in_model(3), get_current_rt(given)).x(), 0.5);
}

TEST(FrameStep, AFrameMovedByItsPoseIsBroughtBack) {
    const Scan scan("smooth");
    Session session(scan.records), moved(scan.records);
    for (int i = 0; i < 3; ++i) {
        PointImage frame = scan.frame(i);
        ASSERT_TRUE(session.step(frame));
        frame.rigid_transformation(scan.sequence.poses[static_cast<std::size_t>(i)]);
        ASSERT_TRUE(moved.step(frame));
    }
    EXPECT_LT(pose_error(get_current_rt(session), get_current_rt(moved)).x(), 1e-2);
}

}  // namespace
}  // namespace VexelAlgorithm
