// Frames, poses and parameters that cannot be used: the line, the failure value, and a volume that stays as it was.
#include "fusion/rayCast.h"
#include "tests/fusion/fusionScenes.h"

namespace VexelAlgorithm::Fusion {
namespace {

constexpr const char* kSizes = "the frame has 12 x 10 pixels and the fusion cone 80 x 60";

constexpr const char* kNoPoints = "invaildNum <= 50 invaildNum = 0";
constexpr const char* kNotPlaced = "can not run this function because get_shift(oneFrame, rt) == false\n";

RigidMatrix moved_by(double z, double diagonal = 1.0) {
    return {diagonal * Matrix3d::Identity(), {0, 0, z}};
}

/// A frame of the scene with the damage done.
PointImage damaged(const std::function<void(PointImage&)>& damage) {
    PointImage frame = scene_frame(scene_poses()[0]);
    damage(frame);
    return frame;
}

PointImage every_point(const Vector3f& point) {
    return damaged([&](PointImage& frame) { frame.set_vCoords(std::vector<Vector3f>(frame.get_vn(), point)); });
}

struct BadFrame {
    const char* name;
    PointImage frame;
    RigidMatrix pose;
    std::string reason;          // of the line; empty: none
    bool result;                 // on a volume that is placed and has its cone
    std::string placement = {};  // why an empty volume cannot be placed by it
};

std::vector<BadFrame> bad_frames() {
    const RigidMatrix pose = scene_poses()[0];
    const PointImage good = scene_frame(pose);
    RigidMatrix turnedByNaN = pose;
    turnedByNaN.set_rotation(Matrix3d::Constant(kNaN));
    PointImage withoutSize = damaged([](PointImage& frame) { frame.clear(); });
    withoutSize.resize_vn(40);
    const PointImage fewNormals = damaged([](PointImage& frame) { frame.set_vNrvs({Vector3f::UnitZ()}); });
    const PointImage noWeight =
        damaged([](PointImage& frame) { frame.set_vWeights(std::vector<float>(frame.get_vn(), kNaN)); });
    const std::string lengths = "the frame's attributes differ in length",
                      far = "the frame lies too far from the origin";
    return {
        {"no normals", damaged([](PointImage& frame) { frame.disable_vNormal(); }), pose, "", false},
        {"no weights", damaged([](PointImage& frame) { frame.disable_vWeight(); }), pose, "", false},
        {"NaN position", good, moved_by(kNaN), "the pose is not finite", false},
        {"NaN rotation", good, turnedByNaN, "the pose is not finite", false},
        {"other size", flat_frame(100), pose, kSizes, false},
        {"few normals", fewNormals, pose, lengths, false},
        {"slots without size", withoutSize, pose, lengths, false},
        {"all NaN", every_point(Vector3f::Constant(kNaN)), pose, "", true, kNoPoints},
        {"all behind the camera", every_point({0, 0, -60}), pose, "", true, kNoPoints},
        {"huge points", every_point(Vector3f::Constant(3e38f)), pose, "", true},
        {"no weight", noWeight, pose, "", true},
        {"far", good, moved_by(1e6), "", true},
        {"farther than floats reach", good, moved_by(1e300), "", true, far},
        {"huge matrix", good, moved_by(0, 1e300), "", true, far},
    };
}

TEST(BadFrames, LeaveAFilledVolumeAsItWas) {
    FusionTsdf<LeafTSDFTeeth> volume(10, 0.8f, 0.5f, 5, 2, "");
    ASSERT_TRUE(fuse(volume, scene_frame(scene_poses()[0]), scene_poses()[0]));
    const std::vector<Voxel> before = used_voxels(volume);
    const Vector3f shift = volume.get_treeShift();
    for (BadFrame& bad : bad_frames()) {
        SCOPED_TRACE(bad.name);
        const PointImage& frame = bad.frame;
        const RigidMatrix& pose = bad.pose;
        const std::vector<unsigned char> labels(frame.get_vn(), 2), fewLabels(3, 2);
        ChangedLeaves changed;
        const auto integrate = [&](bool add) {
            return
                [&, add] { return volume.fusion_one_frame_speckle_parallel(frame, pose, changed, add, true, &labels); };
        };
        const std::pair<const char*, std::function<bool()>> entries[] = {
            {"fusion_one_frame_speckle_parallel", integrate(true)},
            {"fusion_one_frame_speckle_parallel", integrate(false)},
            {"integrate_tsdfvolume_speckle_parallel",
             [&] {
                 volume.integrate_tsdfvolume_speckle_parallel(frame, pose, changed, true, true, &labels);
                 return bad.result;
             }},
            {"integrate_tsdfvolume_cam_constrain_one_frame_parallel",
             [&] { return volume.integrate_tsdfvolume_cam_constrain_one_frame_parallel(frame, pose); }},
            {"fusion_all_frame_tbb",
             [&] { return volume.fusion_all_frame_tbb(volume.get_fusion_tree(), frame, pose, changed); }},
            {"parallel_fusion_all_frame_run",
             [&] {  // in a run one bad frame keeps the good ones out too
                 if (bad.result) return true;
                 return volume.parallel_fusion_all_frame_run({scene_frame(scene_poses()[1]), frame},
                                                             {scene_poses()[1], pose}, changed);
             }},
        };
        for (const auto& [function, call] : entries) {
            const std::string line = bad.reason.empty() ? "" : can_not(function, bad.reason);
            EXPECT_EQ(outcome(call), std::pair(bad.result, line));
        }
        // Sizes are not the concern of single points.
        const std::string line =
            bad.reason.empty() || bad.reason == kSizes ? "" : can_not("get_space_contribution", bad.reason);
        EXPECT_EQ(printed([&] { volume.get_space_contribution(frame, pose); }), line);
        for (std::uint64_t k = 0; k < 7 && bad.reason != kSizes; ++k) {
            const std::vector<int> indices{0, 7, 100, -1, 1 << 30};
            volume.integrate_tsdfvolume_speckle(frame, pose, k, changed, 0.8f, 1021, indices, true, &fewLabels);
        }
        EXPECT_TRUE(changed.empty());
        EXPECT_EQ(used_voxels(volume), before);
        EXPECT_EQ(volume.get_treeShift(), shift);
        EXPECT_EQ(volume.get_fusion_cone().get_width(), 80);
    }
    ChangedLeaves changed;
    EXPECT_EQ(outcome([&] { return volume.parallel_fusion_all_frame_run({flat_frame(60)}, {}, changed); }),
              std::pair(false, can_not("parallel_fusion_all_frame_run", "there are 1 frames and 0 poses")));
    EXPECT_TRUE(volume.parallel_fusion_all_frame_run({}, {}, changed));
}

TEST(BadFrames, LeaveAnEmptyVolumeUnplaced) {
    for (BadFrame& bad : bad_frames()) {
        SCOPED_TRACE(bad.name);
        FusionTsdf<LeafTSDFSpeckle> volume(10, 0.8f, 0.5f, 5, 1, "");
        std::string lines;
        if (!bad.placement.empty()) {
            lines = can_not("get_shift", bad.placement) + kNotPlaced;
        } else if (!bad.reason.empty() && bad.reason != kSizes) {
            lines = can_not("fusion_one_frame_speckle_parallel", bad.reason);
        }
        const bool fuses = bad.reason == kSizes || (bad.result && bad.placement.empty());
        EXPECT_EQ(outcome([&] { return fuse(volume, bad.frame, bad.pose); }), std::pair(fuses, lines));
        EXPECT_TRUE(volume.get_treeShift().allFinite());
        EXPECT_EQ(volume.get_treeShift() != Vector3f(0, 0, 0), fuses);
        EXPECT_EQ(volume.get_fusion_cone().empty(), !fuses);
    }
    // The camera is looked at before anything is placed; a frame without slots has no points, and so has a cloud.
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.8f, 0.5f, 5, 1, "");
    PointImage frame = scene_frame(scene_poses()[0]), none;
    const auto expect_failure = [](const std::function<bool()>& call, const std::string& lines) {
        EXPECT_EQ(outcome(call), std::pair(false, lines));
    };
    const std::string camera = "the camera is not usable";
    for (const auto& [fx, cx] : {std::pair(0.0f, 40.0f), {-80.0f, 40.0f}, {kNaN, 40.0f}, {80.0f, kInfinity}}) {
        frame.set_camPar({fx, 80, cx, 30});
        expect_failure([&] { return fuse(volume, frame); }, can_not("fusion_one_frame_speckle_parallel", camera));
        expect_failure(
            [&] {
                return volume.fusion_one_frame(frame, {}, frame.get_camPar(), {80, 60});
            },
            can_not("fusion_one_frame", camera));
        EXPECT_EQ(printed([&] { volume.computer_fusion_cone(frame); }),
                  can_not("computer_fusion_cone", "the frame has no slots or no usable camera"));
    }
    none.enable_vNormal();
    none.enable_vWeight();
    expect_failure([&] { return fuse(volume, none); }, can_not("get_shift", kNoPoints) + kNotPlaced);
    EXPECT_FALSE(volume.fusion_one_frame(Cloud(), {}, {80, 80, 40, 30}, {80, 60}));
    EXPECT_EQ(volume.get_treeShift(), Vector3f(0, 0, 0));
    EXPECT_TRUE(volume.get_fusion_cone().empty());
    EXPECT_EQ(volume.get_vaild_leaf_num(), 0);
    for (const Vector2i& size : {Vector2i(0, 0), Vector2i(80, std::numeric_limits<int>::min())}) {  // without pixels
        EXPECT_TRUE(volume.fusion_one_frame(scene_frame(scene_poses()[0]), {}, {80, 80, 40, 30}, size));
        EXPECT_TRUE(used_voxels(volume).empty());
    }
}

struct Parameters {
    int depth = 10;
    float pointDis = 0.5f, smoothThreshold = 0.5f;
    int range = 5, threads = 1;
    bool fuses = true;  // a flat frame leaves voxels
};

TYPED_TEST(EveryLeaf, ClampsAbsurdParametersAndStillWorks) {
    const int huge = 1000000000;
    const Parameters cases[] = {{-5},
                                {1000},
                                {10, 0.0f},
                                {10, -1.0f},
                                {10, kNaN},
                                {10, kInfinity},
                                {10, 1e-30f, 0.5f, 5, 1, false},
                                {10, 3e38f, 0.5f, 5, 1, false},
                                {10, 1e30f, 0.0f},
                                {10, 0.5f, kNaN, 0, 0},
                                {10, 0.5f, kInfinity, -7, -1},
                                {10, 0.5f, 1e30f, huge, huge}};
    for (const Parameters& c : cases) {
        FusionTsdf<TypeParam> volume(c.depth, c.pointDis, c.smoothThreshold, c.range, c.threads, "");
        EXPECT_EQ(volume.get_treeDepth(), c.depth <= 10 ? 10 : std::min(20, TypeParam::MaxTreeDepth));
        EXPECT_EQ(volume.get_pointDis(), std::isfinite(c.pointDis) && c.pointDis > 0.0f ? c.pointDis : 0.5f);
        EXPECT_EQ(volume.get_fusionRange(), c.range == huge ? volume.MaxFusionRange : std::max(1, c.range));
        fuse(volume, flat_frame(120));
        EXPECT_EQ(used_voxels(volume).empty(), !c.fuses) << c.pointDis << " " << c.smoothThreshold;
        for (const float minWeight : {0.0f, kNaN, kInfinity, -kInfinity, 1e30f})
            extract(volume, minWeight, nullptr, true);
        PointImage view = flat_frame(0);
        EXPECT_EQ(rayCast(volume, view, {}, view, false, {1.0f, 100.0f}, {false, 1, kNaN}, 8.0f), 0);
    }
}

TEST(AbsurdParameters, SettersRefuseAndKeep) {
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.5f, 0.7f, 3, 1, "");
    const std::string range = can_not("modify_smooth_and_fusionrange", "fusionRange > 63");
    EXPECT_EQ(printed([&] { volume.modify_smooth_and_fusionrange(0.2f, 1000000000); }), range);
    EXPECT_EQ(printed([&] { volume.set_fusionRange(64); }), range);
    EXPECT_EQ(volume.get_shiftLT().size(), 27u);
    EXPECT_EQ(volume.get_smooth_threshold(), 0.7f);
    for (const float value : {0.0f, -1.0f, kNaN, kInfinity})
        EXPECT_EQ(printed([&] { volume.set_point_dis(value); }),
                  can_not("set_point_dis", "pointDis <= 0 or the volume is not empty"));
    EXPECT_EQ(printed([&] { volume.set_shift({0, kNaN, 0}); }), can_not("set_shift", "the shift is not finite"));
    EXPECT_EQ(volume.get_treeShift(), Vector3f(0, 0, 0));
    EXPECT_TRUE(fuse(volume, flat_frame(120)));
    const std::vector<Voxel> before = used_voxels(volume);
    EXPECT_NE(printed([&] { volume.set_point_dis(0.25f); }), "");
    EXPECT_EQ(volume.get_pointDis(), 0.5f);
    volume.modify_smooth_and_fusionrange(0.5f, -4);  // no offsets: nothing to fuse into
    EXPECT_TRUE(volume.get_shiftLT().empty());
    EXPECT_TRUE(fuse(volume, flat_frame(120)));
    EXPECT_EQ(used_voxels(volume), before);

    // A single point with the volume's constants wrong.
    const PointImage frame = flat_frame(1);
    ChangedLeaves changed;
    volume.reset_smooth_and_fusionrange();
    volume.integrate_tsdfvolume_speckle(frame, {}, 0, changed, 0.5f, 1021, {0}, true, nullptr);  // no cone yet
    volume.computer_fusion_cone(frame);
    for (const float pointDis : {0.0f, -0.5f, kNaN, kInfinity, 1e-38f})
        volume.integrate_tsdfvolume_speckle(frame, {}, 0, changed, pointDis, std::numeric_limits<int>::max(), {0}, true,
                                            nullptr);
    volume.integrate_tsdfvolume_speckle(frame, {}, 0, changed, 0.5f, -1, {0}, true, nullptr);
    volume.integrate_tsdfvolume_speckle(frame, {}, 1, changed, 0.5f, 1021, {0}, true, nullptr);
    EXPECT_EQ(used_voxels(volume), before);
}

TEST(RayCast, UnusableViewsAreRefusedWithALine) {
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.8f, 0.7f, 5, 1, "");
    const RigidMatrix pose = scene_poses()[0];
    const PointImage guide = scene_frame(pose);
    ASSERT_TRUE(fuse(volume, guide, pose));
    PointImage good, blind, none;
    good.ini(80, 60, {80.0, 81.0, 39.7, 30.2}, 1, Vector2f::Zero());
    blind.ini(80, 60);
    none.set_camPar(good.get_camPar());
    PointImage cut = good;
    cut.resize_vn(5);
    const auto cast = [&](PointImage& result, const RigidMatrix& rt, const Vector2f& nearFar, float factor) {
        return rayCast(volume, guide, rt, result, factor != 0.0f, nearFar, {false, 1, 0.0f}, factor);
    };
    const std::pair refused(2, can_not("rayCast", "the pose or the camera of resultFrame is not usable"));
    EXPECT_EQ(outcome([&] { return cast(good, moved_by(kNaN), {1, 100}, 8.0f); }), refused);
    EXPECT_EQ(outcome([&] { return cast(blind, pose, {1, 100}, 8.0f); }), refused);
    EXPECT_EQ(outcome([&] { return cast(cut, pose, {1, 100}, 0.0f); }), refused);
    EXPECT_FALSE(good.is_enable_vNormal());
    EXPECT_EQ(cast(none, pose, {1, 100}, 0.0f), 0);
    for (const float factor : {kNaN, -kInfinity, 1e30f, kInfinity}) EXPECT_EQ(cast(good, pose, {1, 100}, factor), 0);
    EXPECT_EQ(cast(good, pose, {-kInfinity, kInfinity}, 0.0f), 0);
    EXPECT_GT(good.count_vaildNum(), 1000);
    const std::pair<double, Vector2f> seesNothing[] = {{0, {kNaN, 1}},  {0, {1, kNaN}},   {0, {kInfinity, kInfinity}},
                                                       {1e7, {1, 100}}, {1e30, {1, 100}}, {-1e300, {1, 100}}};
    for (const auto& [z, nearFar] : seesNothing) {
        EXPECT_EQ(cast(good, z == 0 ? pose : moved_by(z), nearFar, 0.0f), 0);
        EXPECT_EQ(good.count_vaildNum(), 0) << z;
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Fusion
