// Recovery with features against the truth of the virtual world, and that nothing changes without it.
#include "simulation/scenes.h"
#include "tests/session/sessionScenes.h"
#include "trials/kidnapping.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTest;
using namespace VexelTrial;

TEST(Recovery, AScannerThatWasCarriedOffIsFoundWhereItIsAndNowhereElse) {
    const struct {
        const char* scene;
        int scanned, first, last, least;  ///< frames of a turn, and trials of four that must be found
        std::uint64_t seed;
    } cases[] = {{"owl", 25, 0, 20, 4, 1},
                 {"blocks", 25, 0, 20, 4, 74},  // once, tracking jumps and slides
                 {"owl", 25, 60, 80, 0, 1},
                 {"tower", 100, 0, 95, 0, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scene);
        KidnapTally tally;
        printed([&] { tally = kidnap(scene_on_arc(c.scene, 100, c.scanned), 4, c.first, c.last, c.seed); });
        EXPECT_EQ(tally.trials, 4);
        EXPECT_GE(tally.found, c.least);
        EXPECT_EQ(tally.wrong, 0);
        if (c.least == 0) continue;
        EXPECT_EQ(tally.wrongByTracking, 0);
        EXPECT_GT(tally.found, tally.foundByTracking) << "nothing was lost";
    }
}

/// A scan of the blocks and a view of them from the other end of the path.
struct Kidnapped {
    Kidnapped() : scan("smooth"), session(scan.records) {
        for (int i = 0; i < 40; i += 4) fuse(i);
        away = scan.frame(2);
    }
    void fuse(int i) { EXPECT_TRUE(session.fuse(scan.frame(i), scan.sequence.pose_in_model(i))); }
    bool is_at(int i) const {
        const Vector2d error = pose_error(scan.sequence.pose_in_model(i), get_current_rt(session));
        return error.x() < 0.5 && error.y() < 0.1;
    }
    FrameOutcome outcome() const { return session.state().outcome; }

    Scan scan;
    Session session;
    PointImage away;
};

TEST(Recovery, ARecoveredFrameIsAcceptedNotFusedAndTrackingGoesOnFromIt) {
    Kidnapped k;
    ASSERT_EQ(set_feature_recovery(k.session, true), RET_SUCCESS);
    const std::string model = k.session.mesh_bytes();
    const int accepted = k.session.state().acceptedFrames;
    LimitedStep step;
    step.speedState = 0;  // the limit of speed is far below the jump
    set_track_speed_threshold(k.session, 1.0F, 0.01F);
    k.session.step(k.away, step);
    EXPECT_TRUE(step.isAccepted && !step.fuse && step.speedState == 1 && step.microseconds > 0);
    const FusionScanState state = k.session.state();
    EXPECT_EQ(state.outcome, FrameOutcome::Recovered);
    EXPECT_TRUE(!state.isLost && state.isStable && state.residual > 0.0F && state.correspondences > 1000);
    EXPECT_EQ(state.acceptedFrames, accepted + 1);
    EXPECT_TRUE(k.is_at(2));
    EXPECT_EQ(k.session.mesh_bytes(), model);

    set_track_speed_threshold(k.session, 50.0F, 20.0F);
    EXPECT_TRUE(k.session.step(k.scan.frame(3)));
    EXPECT_EQ(k.outcome(), FrameOutcome::Fused);
    EXPECT_TRUE(k.is_at(3));
    EXPECT_NE(k.session.mesh_bytes(), model);
}

TEST(Recovery, WhatIsNotFoundChangesNothing) {
    Kidnapped k;
    const PointImage owl = Simulation::frame_of(scene_on_arc("owl_on_table", 40, 0).sequence, 20);
    std::vector<std::string> states, lines;
    for (const int wanted : {-1, 1, 0}) {
        if (wanted >= 0) {
            ASSERT_EQ(set_feature_recovery(k.session, wanted == 1), RET_SUCCESS);
        }
        lines.push_back(printed([&] { EXPECT_FALSE(k.session.step(owl)); }));
        EXPECT_TRUE(k.session.state().isLost);
        std::ostringstream state;
        state << static_cast<int>(k.outcome()) << ' ' << k.session.state().residual << k.session.bytes();
        states.push_back(state.str());
    }
    EXPECT_TRUE(states[0] == states[1] && states[0] == states[2]);
    EXPECT_EQ(lines[0], lines[2]) << "off again";
    EXPECT_NE(lines[0], lines[1]);
    EXPECT_TRUE(k.session.step(k.scan.frame(37))) << "from where it was before";
    EXPECT_TRUE(k.is_at(37));
}

// What the feature registration knows must be the model as it is now.
TEST(Recovery, FollowsEditsResetsAndNewFrames) {
    Kidnapped k;
    ASSERT_EQ(set_feature_recovery(k.session, true), RET_SUCCESS);
    EXPECT_TRUE(k.session.step(k.away));
    ASSERT_EQ(k.outcome(), FrameOutcome::Recovered);

    ASSERT_EQ(fusion_reset(k.session), RET_SUCCESS);
    Simulation::Sequence owl = scene_on_arc("owl_on_table", 100, 0).sequence;
    printed([&] { EXPECT_TRUE(k.session.step(Simulation::frame_of(owl, 0))); });
    printed([&] { EXPECT_FALSE(k.session.step(k.away)) << "the blocks are no longer there"; });
    EXPECT_TRUE(k.session.fuse(Simulation::frame_of(owl, 40), owl.pose_in_model(40)));
    EXPECT_TRUE(k.session.fuse(Simulation::frame_of(owl, 0)));
    EXPECT_TRUE(k.session.step(Simulation::frame_of(owl, 40))) << "found where it has only just been";
    EXPECT_LT(pose_error(owl.pose_in_model(40), get_current_rt(k.session)).x(), 0.5);

    ASSERT_EQ(delete_key_frame(k.session, {1}), RET_SUCCESS);
    EXPECT_TRUE(k.session.fuse(Simulation::frame_of(owl, 0)));
    printed([&] { EXPECT_FALSE(k.session.step(Simulation::frame_of(owl, 40))) << "its frame was taken out"; });
}

TEST(Recovery, LimitsThatNobodyCanUseAreRefusedWithALine) {
    Scan gates("smooth"), spacing("smooth");
    gates.records.track.icpDisFeature = {2.0F, 1.0F};
    spacing.records.track.disUniform = 0.0F;
    const std::pair<Records&, const char*> cases[] = {
        {gates.records, "icpDisFeature is not usable"},
        {spacing.records, "there is no feature registration for disUniform"}};
    for (const auto& [records, reason] : cases) {
        Session session(records);
        const std::string lines = printed([&] { EXPECT_EQ(set_feature_recovery(session, true), RET_STATE_ERROR); });
        EXPECT_NE(lines.find(can_not("set_feature_recovery", reason)), std::string::npos) << lines;
        EXPECT_EQ(set_feature_recovery(session, false), RET_SUCCESS);
    }
}

}  // namespace
