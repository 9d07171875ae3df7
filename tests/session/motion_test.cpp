// What a session answers about poses, passes on to its texture tracker and keeps of deformations.
#include "tests/platform/RecordingTracker.h"
#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;

RigidMatrix motion(double x, const Vector3d& turn) {
    return {turned(turn), {x, 0.0, 0.0}};
}

RigidMatrix about_y(double x, double angle) {
    return motion(x, {0.0, angle, 0.0});
}

/// A turn about an axis that is this many degrees away from y.
RigidMatrix tilted(double degrees) {
    const double tilt = degrees * EIGEN_PI / 180.0;
    return motion(0.0, 0.05 * Vector3d(std::sin(tilt), std::cos(tilt), 0.0));
}

TEST(Motion, IsJudgedOnAnalyticPaths) {
    const RigidMatrix step = about_y(5.0, 0.05), still;
    // Steps after the first pose, which is a turned one, and the next; is it uniform, inversed, does it need a rebuild?
    const std::tuple<const char*, std::vector<RigidMatrix>, RigidMatrix, bool, bool, bool> cases[] = {
        {"a screw goes on", {step, step}, step, true, false, false},
        {"within a quarter", {step}, about_y(6.5, 0.065), true, false, false},
        {"longer by more than a quarter", {step}, about_y(7.0, 0.05), false, false, false},
        {"turns more by more than a quarter", {step}, about_y(5.0, 0.07), false, false, false},
        {"rest", {still}, about_y(0.9, 0.009), true, false, false},
        {"out of rest", {still}, about_y(1.1, 0.0), false, false, false},
        {"stops", {step}, still, false, false, false},
        {"turns back", {step}, step.inverse(), false, true, false},
        {"turns back after a rest", {step, still, about_y(0.0, 0.009)}, step.inverse(), false, true, false},
        {"too small a turn", {step}, about_y(5.0, -0.009), false, false, false},
        {"just not against", {tilted(0)}, tilted(118), false, false, false},
        {"just against", {tilted(0)}, tilted(122), false, true, false},
        {"above 20 mm", {}, about_y(20.001, 0.0), false, false, true},
        {"above 0.2 rad", {}, about_y(0.0, 0.201), false, false, true},
    };
    const Scan scan("smooth", 80);
    const PointImage frame = scan.frame(0);
    Session session(scan.records);
    EXPECT_FALSE(is_uniform_motion(session, step));
    EXPECT_FALSE(is_rotation_inversed(session, step));
    EXPECT_TRUE(is_need_seq_rebuild(session, RigidMatrix())) << "no frame yet";
    for (const auto& [name, steps, last, isUniform, isInversed, needsRebuild] : cases) {
        SCOPED_TRACE(name);
        ASSERT_EQ(fusion_reset(session), RET_SUCCESS);
        RigidMatrix pose = motion(3.0, {0.0, 0.0, 1.0});
        ASSERT_TRUE(session.fuse(frame, pose));
        for (const RigidMatrix& next : steps) ASSERT_TRUE(session.fuse(frame, pose = pose * next));
        pose = pose * last;
        EXPECT_EQ(is_uniform_motion(session, pose), isUniform);
        EXPECT_EQ(is_rotation_inversed(session, pose), isInversed);
        EXPECT_EQ(is_need_seq_rebuild(session, pose), needsRebuild);
    }
}

TEST(Texture, FramesGoToTheTrackerOfTheSession) {
    using Calls = std::vector<std::string>;
    const Scan scan("smooth", 80);
    const std::uint8_t pixels[] = {7, 8, 9, 10};
    const vexel_sfm::TextureImage image{pixels, 2, 2, 2};
    textureRecord = {};
    const auto before = vexel_sfm::register_texture_tracker(VexelTest::make_recording);
    const Records& records = scan.records;
    void* session = nullptr;
    TextureParam texture;
    texture.trackerToken = 77;
    printed([&] {
        session = fusion_and_track_ini(records.common, records.track, records.fusion, texture, about_y(5.0, 0.0));
    });
    EXPECT_EQ(textureRecord.settings.trackerToken, 77U);
    EXPECT_EQ(textureRecord.settings.leftToTexture.get_translation().x(), 5.0);
    RigidMatrix pose = about_y(4.0, 0.0);
    std::vector<Vector2f> features;
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(set_key_frame(session, pose), RET_STATE_ERROR);
                  EXPECT_FALSE(is_feature_aline_right(session, pose));
                  EXPECT_EQ(texture_pre_scan(session, PointImage(), image, pose), RET_INPUT_ERROR);
                  EXPECT_EQ(texture_pre_scan(session, scan.frame(0), {}, pose), RET_RUN_FAIL);
              }),
              can_not("set_key_frame", "texture_pre_scan has had no frame") +
                  can_not("is_feature_aline_right", "texture_pre_scan has had no frame") +
                  can_not("texture_pre_scan", "the frame has 0 x 0 pixels and the session 80 x 64") +
                  "tbt_firstFrame failed: the texture image has no pixels\n");
    EXPECT_EQ(pose.get_translation().x(), 4.0);

    EXPECT_EQ(texture_pre_scan(session, scan.frame(0), image, pose), RET_SUCCESS);
    EXPECT_EQ(pose.get_translation().x(), 0.0);
    EXPECT_EQ(texture_pre_scan(session, scan.frame(1), image, pose), RET_SUCCESS);
    EXPECT_EQ(pose.get_translation().x(), 1.0) << "as the tracker found it";
    EXPECT_EQ(get_feature_frame(session, image, features), RET_SUCCESS);
    EXPECT_EQ(features.size(), 2U);
    EXPECT_EQ(set_key_frame(session, about_y(6.0, 0.0)), RET_SUCCESS);
    EXPECT_TRUE(is_feature_aline_right(session, about_y(5.9, 0.04)));
    EXPECT_FALSE(is_feature_aline_right(session, about_y(6.1, 0.0)));
    EXPECT_FALSE(is_feature_aline_right(session, about_y(1.0, 0.06)));
    textureRecord.succeeds = false;
    EXPECT_EQ(texture_pre_scan(session, scan.frame(2), image, pose), RET_RUN_FAIL);
    EXPECT_EQ(pose.get_translation().x(), 1.0);
    textureRecord.succeeds = true;
    EXPECT_TRUE(fusion_reset_withoutTex(session) == RET_SUCCESS && fusion_tree_reset(session) == RET_SUCCESS);
    EXPECT_EQ(texture_pre_scan(session, scan.frame(0), image, pose), RET_SUCCESS);
    EXPECT_EQ(fusion_reset(session), RET_SUCCESS);
    EXPECT_EQ(texture_pre_scan(session, scan.frame(0), image, pose), RET_SUCCESS);
    textureRecord.succeeds = false;
    EXPECT_EQ(fusion_reset(session), RET_RUN_FAIL) << "the tracker refused";
    EXPECT_EQ(fusiontrack_release(session), RET_SUCCESS);
    EXPECT_EQ(textureRecord.calls, (Calls{"first 5120 9", "add", "features", "renew 6", "stitch", "stitch", "stitch",
                                          "add", "add", "reset", "first 5120 9", "reset", "release"}));
    vexel_sfm::register_texture_tracker(before);
}

TEST(NonRigid, AFieldIsKeptForTheModelThatItFits) {
    const Scan scan("smooth", 80);
    Session session(scan.records);
    BaseTriMesh model, broken;
    for (int i = 0; i < 3; ++i) model.add_vCoord(Vector3f::Unit(i));
    broken.add_vCoord({kNaN, 0, 0});
    const std::vector<Vector3f> field(3, Vector3f(0, 0, 1)), shorter(2, Vector3f::Zero()),
        wild(3, Vector3f::Constant(kNaN));
    EXPECT_TRUE(is_nonrigid_fileld_empty(session));
    EXPECT_EQ(
        printed([&] {
            EXPECT_EQ(set_nonrigid_field(session, field), RET_STATE_ERROR);
            EXPECT_EQ(set_nonrigid_refmodel(session, broken), RET_INPUT_ERROR);
            EXPECT_EQ(set_nonrigid_refmodel(session, model), RET_SUCCESS);
            EXPECT_EQ(set_nonrigid_field(session, field), RET_SUCCESS);
            EXPECT_EQ(set_nonrigid_field(session, shorter), RET_INPUT_ERROR);
            EXPECT_EQ(set_nonrigid_field(session, wild), RET_INPUT_ERROR);
        }),
        can_not("set_nonrigid_field", "there is no reference model") +
            can_not("set_nonrigid_refmodel", "the model is not consistent in itself") +
            can_not("set_nonrigid_field", "there is not one displacement for each vertex of the reference model") +
            can_not("set_nonrigid_field", "a displacement is not finite"));
    EXPECT_FALSE(is_nonrigid_fileld_empty(session));
    const std::function<RetVal()> forgets[] = {[&] { return fusion_tree_reset(session); },
                                               [&] { return set_nonrigid_refmodel(session, model); },
                                               [&] { return set_nonrigid_field(session, {}); }};
    for (const auto& forget : forgets) {
        ASSERT_EQ(set_nonrigid_refmodel(session, model), RET_SUCCESS);
        ASSERT_EQ(set_nonrigid_field(session, field), RET_SUCCESS);
        EXPECT_EQ(forget(), RET_SUCCESS);
        EXPECT_TRUE(is_nonrigid_fileld_empty(session));
    }
}

TEST(MotionAndTexture, RefuseNullHandlesAndWhatIsNotThere) {
    const Scan scan("smooth", 80);
    const Session session(scan.records);
    RigidMatrix pose;
    const RigidMatrix broken(2.0 * Matrix3d::Identity(), Vector3d::Zero());
    std::vector<Vector2f> features;
    const std::string noRigid = "the pose is not a rigid motion", noTracker = "no texture tracker is linked";
    expect_refused(session, {
                                REFUSED(is_uniform_motion, noRigid, broken).giving(false, false),
                                REFUSED(is_rotation_inversed, noRigid, broken).giving(false, false),
                                REFUSED(is_need_seq_rebuild, noRigid, broken).giving(false, false),
                                REFUSED(is_feature_aline_right, noTracker, pose).giving(false, false),
                                REFUSED(texture_pre_scan, noTracker, {}, {}, pose).giving(RET_STATE_ERROR),
                                REFUSED(get_feature_frame, noTracker, {}, features).giving(RET_STATE_ERROR),
                                REFUSED(set_key_frame, noTracker, pose).giving(RET_STATE_ERROR),
                            });
}

}  // namespace
