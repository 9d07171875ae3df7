// The handle functions around the frame step: null handles, records, settings, life cycle, results.
#include <filesystem>

#include "tests/session/sessionScenes.h"
#include "trials/TemporaryFolder.h"

namespace {

using namespace VexelAlgorithm;

struct NullCall {
    const char* name;
    std::function<int()> call;
    int result = RET_INI_ERROR;
    std::string line = {};  // empty: the usual one
};

TEST(NullHandle, EveryFunctionSaysItsLineAndFails) {
    PointImage frame;
    int i = 3;
    bool fuse = true;
    FusionScanState state;
    BaseTriMesh mesh;
    mesh.add_vCoord({1, 2, 3});
    Vector3f low(1, 2, 3), high = low;
    void* none = nullptr;
    const std::string step = "fail because pFusionTrack == NULL\n";
    const std::string setter = "can not run this function because pFusionTrack = NULL\n";
    const NullCall calls[] = {
        {"fusion_and_track", [&] { return fusion_and_track(none, frame, i); }, false, step},
        {"fusion_and_track", [&] { return fusion_and_track(none, frame, i, fuse, i); }, false, step},
        {"with_speed_limit", [&] { return fusion_and_track_with_speed_limit(none, frame, i, fuse, i, 1, i); }, false,
         step},
        {"track", [&] { return track(none, frame, i); }, false},
        {"fusion", [&] { return fusion(none, frame, {}, i); }, false},
        {"get_show_data", [&] { return int(get_show_data(none).get_vn()); }, 0, "fail because pFusionTrack = NULL\n"},
        {"get_show_data_filter_noise", [&] { return int(get_show_data_filter_noise(none).get_vn()); }, 0},
        {"get_current_rt", [&] { return int(get_current_rt(none).get_rotation().trace()); }, 3},
        {"get_current_point_dis", [&] { return int(get_current_point_dis(none)); }, 0},
        {"get_fusion_scan_state", [&] { return get_fusion_scan_state(none, state); }},
        {"get_fusion_result", [&] { return get_fusion_result(none, 0, mesh); }},
        {"get_fusion_result_tbb", [&] { return get_fusion_result_tbb(none, 0, mesh); }},
        {"get_model_bounding_box", [&] { return get_model_bounding_box(none, low, high); }},
        {"set_feature_recovery", [&] { return set_feature_recovery(none, true); }},
        {"get_treeShift", [&] { return get_treeShift(none, low); }},
        {"get_model2Volum_shift", [&] { return get_model2Volum_shift(none, low); }},
        {"fusion_reset", [&] { return fusion_reset(none); }},
        {"fusion_reset_withoutTex", [&] { return fusion_reset_withoutTex(none); }},
        {"fusion_tree_reset", [&] { return fusion_tree_reset(none); }},
        {"get_show_num_ini", [&] { return get_show_num_ini(none); }, 0},
        {"count_valid_num_of_show_cloud", [&] { return count_valid_num_of_show_cloud(none); }, 0},
        {"get_valid_count_of_show_cloud", [&] { return get_valid_count_of_show_cloud(none); }, 0},
        {"set_fusion_result_opt", [&] { return set_fusion_result_opt(none, true, true, true); }},
        {"set_nonrigid_refmodel", [&] { return set_nonrigid_refmodel(none, mesh); }},
        {"set_nonrigid_field", [&] { return set_nonrigid_field(none, {}); }},
        {"is_nonrigid_fileld_empty", [&] { return is_nonrigid_fileld_empty(none); }, true},
        {"edit_testbug_write", [&] { return edit_testbug_write(none); }},
        {"fail fusiontrack_release", [&] { return fusiontrack_release(none); }},
        {"success", [&] { return set_fusion_success_call_back(none, nullptr), 0; }, 0, setter},
        {"fail", [&] { return set_fusion_fail_call_back(none, nullptr), 0; }, 0, setter},
        {"illegal", [&] { return set_illegal_input_call_back(none, nullptr), 0; }, 0, setter},
        {"debug", [&] { return shoule_we_debug_fusion(none, true, 1); }, RET_INI_ERROR,
         "cant not run function named shoule_we_debug_fusion because pTemp == NULL "},
    };
    for (const NullCall& c : calls) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(printed([&] { EXPECT_EQ(c.call(), c.result); }),
                  c.line.empty() ? can_not(c.name, "pFusionTrack = NULL") : c.line);
    }
    EXPECT_EQ(i, 3);
    EXPECT_TRUE(fuse);
    EXPECT_EQ(mesh.get_vn(), 1U);
    EXPECT_EQ(low, Vector3f(1, 2, 3));
}

TEST(Records, AbsurdOnesAreRefusedOrReplacedWithALine) {
    const int lowest = std::numeric_limits<int>::min();
    const auto refused = [](const std::string& reason) {
        return "\nfusion_and_track_ini: " + reason + "\nerror input\n";
    };
    const auto replaced = [](const std::string& what) { return "fusion_and_track_ini: " + what + " is used\n"; };
    const std::string icp = "\n_pIcp ini fails \nerror input\n";
    const std::pair<std::function<void(Records&)>, std::string> cases[] = {
        {[](Records& r) { r.common.sample = 0; },
         refused("sample: 0 is not between 1 and the smaller edge of imageSize")},
        {[](Records& r) { r.track.icpDis(0) = kNaN; }, refused("icpDis: a value is not a finite number")},
        {[](Records& r) { r.track.icpIterNum = 1000000000; }, refused("icpIterNum: 1e+09 is not between 1 and 1000")},
        {[](Records& r) { r.track.icpIterNum = 0; }, icp},
        {[](Records& r) { std::swap(r.track.icpDis(0), r.track.icpDis(1)); }, icp},
        {[=](Records& r) {
             r.track.icpInterNumFixed = lowest;
             r.fusion.treeDepth = 99, r.fusion.codeNumSet = 1000000000, r.fusion.viewBox(0) = kNaN;
             r.fusion.fusionDataSize = {1 << 30, -3};
             r.fusion.colorOnInvaildPoint.setConstant(kNaN);
         },
         replaced("icpInterNumFixed = -2147483648 is out of its range, 0") +
             replaced("treeDepth = 99 is out of its range, 20") +
             replaced("fusionDataSize(0) = 1073741824 is out of its range, 63") +
             replaced("fusionDataSize(1) = -3 is out of its range, 1") +
             replaced("codeNumSet = 1000000000 is out of its range, 256") +
             replaced("viewBox is not a range of distances, the default") +
             replaced("colorOnInvaildPoint is not finite, the default")},
        {[](Records& r) {  // clamped without a word, as ever
             r.fusion.treeDepth = -1;
             r.fusion.codeNumSet = -5;
             r.fusion.pointDis = kNaN;
             r.fusion.fusionLimitNum = -1;
         },
         "colorImageSize(0) =  1280\tcolorImageSize(1) =  1024\n"},
    };
    const Scan scan("smooth");
    const auto ends_with = [](const std::string& text, const std::string& end) {
        return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
    };
    for (const auto& [change, lastLines] : cases) {
        SCOPED_TRACE(lastLines);
        Records records = scan.records;
        change(records);
        auto [session, lines] =
            outcome([&] { return fusion_and_track_ini(records.common, records.track, records.fusion); });
        EXPECT_EQ(session == nullptr, ends_with(lastLines, "error input\n"));
        EXPECT_TRUE(ends_with(lines, lastLines)) << lines;
        EXPECT_EQ(lines.find("parameter output in function fusion_and_track_ini\n\n\n\ncommon parameter output\n"), 0U);
        EXPECT_LT(lines.find("TrackParmeter output\n"), lines.find("FusionParameter output\n"));
        if (session == nullptr) continue;
        EXPECT_EQ(fusiontrack_release(session), RET_SUCCESS);
        EXPECT_EQ(session, nullptr);
        EXPECT_EQ(fusiontrack_release(session), RET_INI_ERROR);
    }
}

TEST(Settings, AreMadeOrRefusedWithALine) {
    const Scan scan("smooth");
    Session session(scan.records);
    Vector3f shift;
    EXPECT_EQ(reset_Point_dis(session, 3.0F), RET_SUCCESS);
    EXPECT_EQ(get_current_point_dis(session), 3.0F);
    EXPECT_EQ(set_treeShift(session, {-1500, -1500, -1000}), RET_SUCCESS);
    EXPECT_EQ(fusion_set_fusionrange(session, 3), RET_SUCCESS);
    ASSERT_TRUE(session.step(scan.frame(0)));
    for (const auto get_shift : {get_treeShift, get_model2Volum_shift}) {
        EXPECT_EQ(get_shift(session, shift), RET_SUCCESS);
        EXPECT_EQ(shift, Vector3f(-1500, -1500, -1000)) << "the place is kept";
    }

    const std::string before = session.bytes();
    const std::string filled = "the model is not empty", notBelowOne = "a share is not at least 0 and below 1";
    expect_refused(session, {
                                REFUSED(reset_Point_dis, filled, 2.0F).giving(RET_STATE_ERROR),
                                REFUSED(reset_Point_dis, "pointDis is not a positive number", 0.0F),
                                REFUSED(set_treeShift, filled, Vector3f::Zero()).giving(RET_STATE_ERROR),
                                REFUSED(set_treeShift, "the shift is not finite", Vector3f::Constant(kNaN)),
                                REFUSED(reset_icpDisThread, "icpDisThread is not a positive number", -1.0F),
                                REFUSED(reset_rata_ray, notBelowOne, Vector2f(0.5F, 1)),
                                REFUSED(set_icpStableThreadhold, "threshold is not a finite number", kNaN),
                                REFUSED(set_icpKeepRatio, "a share is not above 0 and below 1", Vector2f(0.7F, 1)),
                                REFUSED(set_track_speed_threshold, "a speed is not a positive number", 1, kNaN),
                                REFUSED(fusion_set_fusionrange, "fusionRange is out of its range", 64)
                                    .giving(RET_INPUT_ERROR, RET_INPUT_ERROR),
                                REFUSED(set_campar, "the camera is not usable", CameraInParam(kNaN, 1, 1, 1)),
                            });
    EXPECT_EQ(session.bytes(), before);

    // Tracking goes by the new thresholds.
    reset_icpDisThread(session, 1e-6F);
    EXPECT_FALSE(session.step(scan.frame(1)));
    EXPECT_EQ(session.state().outcome, FrameOutcome::ResidualTooLarge);
    reset_icpDisThread(session, 0.5F);
    reset_rata_ray(session, {0.999F, 0.999F});
    EXPECT_FALSE(session.step(scan.frame(1)));
    EXPECT_EQ(session.state().outcome, FrameOutcome::TooFewValid);
    reset_rata_ray(session, {0.1F, 0.1F});
    EXPECT_TRUE(session.step(scan.frame(1)));
}

TEST(Settings, ANewCameraRendersThePredictionAnew) {
    Scan scan("smooth");
    Session session(scan.records);
    ASSERT_TRUE(session.step(scan.frame(0)));
    const CameraInParam old = scan.sequence.camera;
    scan.sequence.camera.set_param(0.9 * old.get_fx(), 0.9 * old.get_fy(), old.get_cx() + 4, old.get_cy());
    EXPECT_FALSE(session.step(scan.frame(1)));
    ASSERT_EQ(set_campar(session, scan.sequence.camera), RET_SUCCESS);
    ASSERT_TRUE(session.step(scan.frame(1)));
    EXPECT_LT(pose_error(scan.sequence.pose_in_model(1), get_current_rt(session)).x(), 0.5);
}

TEST(LifeCycle, AfterAResetTheSessionIsAsNew) {
    const Scan scan("smooth");
    Session fresh(scan.records), used(scan.records);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(fresh.step(scan.frame(i)));
    for (RetVal (*reset)(void*) : {fusion_reset, fusion_reset_withoutTex, fusion_tree_reset}) {
        for (int i = 5; i < 7; ++i) ASSERT_TRUE(used.step(scan.frame(i)));
        get_show_data(used);
        ASSERT_EQ(reset(used), RET_SUCCESS);
        EXPECT_EQ(used.state().outcome, reset == fusion_tree_reset ? FrameOutcome::Fused : FrameOutcome::NoFrameYet);
        EXPECT_EQ(get_show_data(used).get_vn(), 0U);
        EXPECT_EQ(used.mesh().get_vn(), 0U);
        EXPECT_EQ(get_current_rt(used).get_translation(), Vector3d::Zero());
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(used.step(scan.frame(i)));
        EXPECT_EQ(used.bytes(), fresh.bytes());
        EXPECT_EQ(get_show_data(used).get_vn(), get_show_data(fresh).get_vn());
        ASSERT_EQ(fusion_reset(used), RET_SUCCESS);
    }
}

TEST(Results, AreNearTheTruthAtAnySpacing) {
    const Scan scan("smooth");
    Session session(scan.records);
    Vector3f low, high;
    BaseTriMesh empty;
    empty.add_vCoord({1, 2, 3});
    EXPECT_EQ(printed([&] { EXPECT_EQ(get_model_bounding_box(session, low, high), RET_STATE_ERROR); }),
              can_not("get_model_bounding_box", "the model is empty"));
    EXPECT_EQ(get_fusion_result(session, 0.0F, empty), RET_SUCCESS);
    EXPECT_EQ(empty.get_vn(), 0U);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(session.step(scan.frame(i)));

    const float voxel = scan.records.fusion.pointDis;
    const std::size_t vertices = session.mesh(voxel).get_vn();
    ASSERT_EQ(get_model_bounding_box(session, low, high), RET_SUCCESS);
    for (const float spacing : {0.0F, 2.0F * voxel, 4.0F * voxel}) {
        SCOPED_TRACE(spacing);
        const BaseTriMesh mesh = session.mesh(spacing);
        ASSERT_GT(mesh.get_fn(), 500U);
        EXPECT_TRUE(mesh.is_legal() && mesh.is_enable_vNormal());
        EXPECT_LT(rms_of(scan.off_surface(mesh.get_vCoords())), 0.1 * voxel);
        Vector3f lowest, highest;
        mesh.get_boundBox(lowest, highest);
        EXPECT_LT((lowest - low).cwiseAbs().maxCoeff() + (highest - high).cwiseAbs().maxCoeff(), 4 * voxel);
        double edges = 0.0;
        for (const BaseTriFace& face : mesh.get_faces()) {
            const auto from = static_cast<std::size_t>(face[0]), to = static_cast<std::size_t>(face[1]);
            edges += (mesh.get_vCoord(from) - mesh.get_vCoord(to)).norm();
        }
        const double mean = edges / static_cast<double>(mesh.get_fn());
        EXPECT_NEAR(mean, std::max(spacing, voxel), 0.2 * std::max(spacing, voxel));
    }
    BaseTriMesh kept = session.mesh();
    for (const float bad : {kNaN, -1.0F, kInfinity})
        EXPECT_EQ(printed([&] { EXPECT_EQ(get_fusion_result_tbb(session, bad, kept), RET_INPUT_ERROR); }),
                  can_not("get_fusion_result_tbb", "pointDis is negative or not a number"));
    EXPECT_EQ(kept.get_vn(), vertices);
    EXPECT_EQ(get_fusion_result(session, 0.0F, kept), RET_SUCCESS);
    EXPECT_EQ(archive(kept), session.mesh_bytes());
}

TEST(Results, DebugFilesOnlyAtADebugLevel) {
    const VexelTrial::TemporaryFolder folder;
    Scan scan("smooth");
    scan.records.common.outputPath = folder.path().string();
    Session session(scan.records);
    EXPECT_EQ(shoule_we_debug_fusion(session, true, 0), RET_SUCCESS);
    EXPECT_EQ(printed([&] { ASSERT_TRUE(session.step(scan.frame(0))); }), "");
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    EXPECT_EQ(shoule_we_debug_fusion(session, false, 3), RET_SUCCESS);
    EXPECT_EQ(printed([&] { session.mesh(); }).find("Mc Time is:"), 0U);
    for (const char* name : {"mc_result.obj", "Mc_Opt_result.obj"})
        EXPECT_GT(std::filesystem::file_size(folder.path() / name), 100000U) << name;
}

}  // namespace
