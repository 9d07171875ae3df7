// Integration against a plain reference written from its definition, and the edge cases of the volume's operations.
#include "fusion/ImageTiles.h"
#include "tests/fusion/fusionScenes.h"

namespace VexelAlgorithm::Fusion {
namespace {

struct Setting {
    const char* name;
    float smoothThreshold = 0.5f;
    int range = 5;
    int treeDepth = 10;
    float pointDis = 0.8f;
    bool modify = false;           // give the range by modify_smooth_and_fusionrange
    Vector3i sceneAt = {0, 0, 0};  // voxel in which the scene's origin is put; zero: placed by the first frame
    float viewRadial = 0.0f;
    int threads = 1;
};

std::ostream& operator<<(std::ostream& out, const Setting& setting) {
    return out << setting.name;
}

template <class Leaf>
struct Expected {
    Leaf leaf;
    bool changed = false;
    bool doubtfulChange = false;  // within rounding of one of the limits of the changed mark
};

/// Integration as it is defined: four plane normals a pixel, rotated into the model; every offset of the cube
/// in turn; no octree.
template <class Leaf>
struct ReferenceVolume {
    std::map<VoxelKey, Expected<Leaf>> voxels;
    std::set<VoxelKey> doubtful;  // a centre within rounding of some cone's side

    void integrate(const PointImage& frame, const RigidMatrix& rt, const Setting& setting, int n,
                   const Vector3f& shift) {
        const int size = 1 << setting.treeDepth, bound = size - 3;
        const float pointDis = setting.pointDis, r = setting.smoothThreshold;
        const auto& camera = frame.get_camPar();
        const Vector3f origin = rt.get_translation().cast<float>() - shift;
        for (std::size_t i = 0; i < frame.get_vn(); ++i) {
            const Vector3f point = frame.get_vCoord(i), normal = frame.get_vNrv(i);
            const float w = frame.get_vWeight(i);
            if (!(w >= 1e-6f) || std::abs(point.z()) < 1e-6f || std::abs(normal.z()) < 1e-6f) continue;
            if (!point.allFinite() || !normal.allFinite()) continue;
            const auto width = static_cast<std::size_t>(frame.get_image_width());
            const double u = static_cast<double>(i % width) + setting.viewRadial,
                         v = static_cast<double>(i / width) + setting.viewRadial;
            const auto xL = static_cast<float>((u - r - camera.get_cx()) / camera.get_fx());
            const auto xR = static_cast<float>((u + r - camera.get_cx()) / camera.get_fx());
            const auto yT = static_cast<float>((v - r - camera.get_cy()) / camera.get_fy());
            const auto yB = static_cast<float>((v + r - camera.get_cy()) / camera.get_fy());
            Vector3f planes[4] = {{yB - yT, 0, xL * yT - yB * xL},
                                  {0, xR - xL, xL * yT - xR * yT},
                                  {yT - yB, 0, xR * yB - xR * yT},
                                  {0, xL - xR, xR * yB - xL * yB}};
            for (Vector3f& plane : planes) plane = rt.transform_normal(plane);
            const Vector3f N = rt.transform_normal(normal);

            const Vector3f P = rt * point;
            const Vector3f q = (P - shift) / pointDis;
            const Vector3i g(static_cast<int>(q.x()), static_cast<int>(q.y()), static_cast<int>(q.z()));
            if (g.minCoeff() < 3 || g.maxCoeff() >= bound) continue;
            const Vector3f Q = (g.cast<float>() + Vector3f::Constant(0.5f)) * pointDis;
            for (int k = 0; k < n * n * n; ++k) {
                const Vector3i oi(k % n - n / 2, k % (n * n) / n - n / 2, k / (n * n) - n / 2);
                const Vector3f o = oi.cast<float>() * pointDis;
                const VoxelKey at{g.x() + oi.x(), g.y() + oi.y(), g.z() + oi.z()};
                if (*std::min_element(at.begin(), at.end()) < 0 || *std::max_element(at.begin(), at.end()) >= size)
                    continue;
                bool outside = false, onSide = false;
                for (const Vector3f& plane : planes) {
                    const float product = (origin - Q - o).dot(plane);
                    outside = outside || product > 0.0f;
                    onSide = onSide || std::abs(product) < 1e-3f * pointDis * plane.norm();
                }
                if (onSide) doubtful.insert(at);
                if (outside || onSide) continue;
                add(voxels[at], (Q + o - (P - shift)).dot(N), w, N, pointDis);
            }
        }
    }

    static void add(Expected<Leaf>& voxel, float d, float w, const Vector3f& N, float pointDis) {
        voxel.leaf.add(d, w);
        const bool down = N.minCoeff()<0.0f, up = N.maxCoeff()> 0.0f;
        voxel.changed = voxel.changed || (std::abs(d) < 2.0f * pointDis && ((d > 0.0f && down) || (d < 0.0f && up)));
        const float nearest = std::min(std::abs(d), std::abs(std::abs(d) - 2.0f * pointDis));
        voxel.doubtfulChange = voxel.doubtfulChange || nearest < 1e-3f * pointDis;
    }
};

/// Slots that must be left out, next to good ones: not finite, behind the camera, without weight, grazing.
void spoil(PointImage& frame) {
    const float bad[] = {0.0f, kNaN, kInfinity, 5e-7f, -1.0f};
    for (std::size_t i = 0; i < frame.get_vn(); i += 11) {
        const float value = bad[i / 11 % 5];
        const auto what = i / 55 % 4;
        if (what == 0) frame.set_vCoord(i, {frame.get_vCoord(i).x(), frame.get_vCoord(i).y(), value});
        if (what == 1) frame.set_vNrv(i, {frame.get_vNrv(i).x(), frame.get_vNrv(i).y(), value});
        if (what == 2) frame.set_vWeight(i, value == kInfinity ? 0.0f : value);
        if (what == 3) frame.set_vCoord(i, {value, 0.0f, value});
    }
}

template <class Leaf>
void expect_same(const FusionTsdf<Leaf>& volume, const ReferenceVolume<Leaf>& reference, const Setting& setting) {
    const float rounding =
        8.0f * std::numeric_limits<float>::epsilon() * setting.pointDis * static_cast<float>(1 << setting.treeDepth);
    std::size_t compared = 0, missing = 0, surplus = 0, wrong = 0;
    std::set<VoxelKey> found;
    for (const Voxel& voxel : used_voxels(volume)) {
        EXPECT_TRUE(found.insert(voxel.at).second);
        if (reference.doubtful.count(voxel.at) > 0) continue;
        const auto it = reference.voxels.find(voxel.at);
        if (it == reference.voxels.end()) {
            ++surplus;
            continue;
        }
        const Leaf& expected = it->second.leaf;
        const float weight = expected.weight(), sum = expected.tsdfSum;
        // The order of addition is free with several threads.
        const bool same = voxel.count == expected.count() &&
                          std::abs(voxel.weight - weight) <= 2e-7f * static_cast<float>(voxel.count) * weight &&
                          std::abs(voxel.sum - sum) <= weight * rounding + 1e-6f * std::abs(sum);
        wrong += same ? 0 : 1;
        ++compared;
    }
    for (const auto& [at, expected] : reference.voxels)
        missing += reference.doubtful.count(at) == 0 && found.count(at) == 0 ? 1 : 0;
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(surplus, 0u);
    EXPECT_EQ(wrong, 0u);
    EXPECT_GT(compared, 1000u);
    EXPECT_LT(reference.doubtful.size(), (compared + reference.doubtful.size()) / 20);
}

template <class Leaf>
void expect_changes(const FusionTsdf<Leaf>& volume, const ReferenceVolume<Leaf>& reference,
                    const ChangedLeaves& changed) {
    std::set<VoxelKey> marked;
    for (const int leaf : changed) {
        const Vector3i at = volume.get_fusion_tree().leaf_coordinates(leaf);
        EXPECT_TRUE(marked.insert({at.x(), at.y(), at.z()}).second) << "twice in the list";
    }
    std::size_t wrong = 0;
    for (const auto& [at, expected] : reference.voxels) {
        if (reference.doubtful.count(at) > 0 || expected.doubtfulChange) continue;
        wrong += (marked.count(at) > 0) == expected.changed ? 0 : 1;
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_GT(marked.size(), 1000u);
}

template <class Leaf>
void compare_with_reference(const Setting& setting) {
    FusionTsdf<Leaf> volume(setting.treeDepth, setting.pointDis, setting.smoothThreshold,
                            setting.modify ? 5 : setting.range, setting.threads, "");
    if (setting.modify) volume.modify_smooth_and_fusionrange(setting.smoothThreshold, setting.range);
    if (setting.sceneAt != Vector3i(0, 0, 0)) volume.set_shift(-setting.sceneAt.cast<float>() * setting.pointDis);
    ReferenceVolume<Leaf> reference;
    ChangedLeaves changed;
    for (const RigidMatrix& pose : scene_poses()) {
        Simulation::RenderSettings settings;
        settings.viewRadial = Vector2f::Constant(setting.viewRadial);
        PointImage frame = Simulation::render(*ball_and_wall(), {60.0, 61.0, 29.2, 22.7}, 60, 45, pose, settings);
        spoil(frame);
        ASSERT_TRUE(volume.fusion_one_frame_speckle_parallel(frame, pose, changed, true, false, nullptr));
        reference.integrate(frame, pose, setting, setting.range, volume.get_treeShift());
    }
    expect_same(volume, reference, setting);
    if constexpr (Leaf::HasChangedFlag) expect_changes(volume, reference, changed);
}

class AgainstReference : public testing::TestWithParam<Setting> {};

TEST_P(AgainstReference, SpeckleLeaves) {
    compare_with_reference<LeafTSDFSpeckle>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Integration, AgainstReference,
                         testing::Values(Setting{"default"}, Setting{"range_3", 0.5f, 3},
                                         Setting{"range_4_modified", 0.5f, 4, 10, 0.8f, true},
                                         Setting{"wide_cones", 1.3f}, Setting{"no_cones", 0.0f},
                                         Setting{"negative_half_width", -0.5f}, Setting{"deep_tree", 0.5f, 5, 13},
                                         Setting{"range_7_fine_voxels", 0.5f, 7, 12, 0.6f},
                                         Setting{"at_low_faces", 0.5f, 9, 10, 0.8f, true, {4, 40, 5}},
                                         Setting{"at_high_faces", 0.5f, 9, 10, 0.8f, true, {1010, 1000, 1015}},
                                         Setting{"view_radial", 0.5f, 5, 10, 0.8f, false, {0, 0, 0}, 3.5f},
                                         Setting{"four_threads", 1.3f, 5, 10, 0.8f, false, {0, 0, 0}, 0.0f, 4}),
                         [](const auto& setting) { return std::string(setting.param.name); });

TYPED_TEST(EveryLeaf, FusesAsDefined) {
    compare_with_reference<TypeParam>({"two_threads", 0.5f, 5, 10, 0.8f, false, {0, 0, 0}, 0.0f, 2});
}

TYPED_TEST(EveryLeaf, CloudsWithoutImageOrderFuseLikeImagesWeightedByTheNormal) {
    const Setting setting{"cloud", 0.5f};
    FusionTsdf<TypeParam> volume(setting.treeDepth, setting.pointDis, setting.smoothThreshold, setting.range, 2, "");
    ReferenceVolume<TypeParam> reference;
    for (const RigidMatrix& pose : scene_poses()) {
        PointImage frame = scene_frame(pose);
        Cloud cloud;
        cloud.enable_vNormal();
        for (std::size_t i = frame.get_vn(); i-- > 0;) {  // any order
            frame.set_vWeight(i, std::abs(frame.get_vNrv(i).z()));
            cloud.set_vNrv(cloud.add_vCoord(frame.get_vCoord(i)), frame.get_vNrv(i));
        }
        for (const Vector3f& outsideImage : {Vector3f(100, 0, 50), Vector3f(0, 0, -50), Vector3f(0, -60, 50)})
            cloud.set_vNrv(cloud.add_vCoord(outsideImage), {0, 0, -1});
        ASSERT_TRUE(volume.fusion_one_frame(cloud, pose, frame.get_camPar(), {80, 60}));
        reference.integrate(frame, pose, setting, setting.range, volume.get_treeShift());
    }
    expect_same(volume, reference, setting);
}

// Whole frames, the tree of another, stored frames in a run, and point by point.
TYPED_TEST(EveryLeaf, EveryWayInGivesTheSameBytes) {
    FusionTsdf<TypeParam> whole(10, 0.8f, 0.5f, 5, 1, ""), run(10, 0.8f, 0.5f, 5, 1, ""),
        owner(10, 0.8f, 0.5f, 5, 1, ""), points(10, 0.8f, 0.5f, 5, 1, "");
    VexelOctree::Octree<TypeParam> tree;
    tree.set_point_dis(0.8f);
    ChangedLeaves changed[4];
    std::vector<PointImage> frames;
    for (const RigidMatrix& pose : scene_poses()) {
        const PointImage& frame = frames.emplace_back(scene_frame(pose));
        ASSERT_TRUE(whole.fusion_one_frame_speckle_parallel(frame, pose, changed[0], true, true, nullptr));
        tree.set_shift(whole.get_treeShift());
        ASSERT_TRUE(owner.fusion_all_frame_tbb(tree, frame, pose, changed[1]));

        std::vector<int> every;  // tile by tile, as whole frames go
        const ImageTiles tiles(frame.get_image_width(), frame.get_image_height());
        for (std::size_t i = 0; i < tiles.count(); ++i)
            tiles[i].for_each_pixel([&](int u, int v) { every.push_back(static_cast<int>(frame.index_of(u, v))); });
        points.set_shift(whole.get_treeShift());
        if (points.get_fusion_cone().empty()) points.computer_fusion_cone(frame);
        for (std::uint64_t k = 0; k < every.size(); ++k)
            points.integrate_tsdfvolume_speckle(frame, pose, k, changed[2], 0.8f, 1021, every, true, nullptr);
    }
    ASSERT_TRUE(run.parallel_fusion_all_frame_run(frames, scene_poses(), changed[3]));
    EXPECT_EQ(owner.get_vaild_leaf_num(), 0);
    EXPECT_GT(used_voxels(whole).size(), 1000u);
    for (const auto* other : {&tree, &points.get_fusion_tree(), &run.get_fusion_tree()})
        EXPECT_EQ(used_voxels(*other), used_voxels(whole));
    for (const ChangedLeaves& other : changed)
        EXPECT_TRUE(std::equal(other.begin(), other.end(), changed[0].begin(), changed[0].end()));
}

// ---- placement, tables ----------------------------------------------------------------------

TEST(Placement, NeedsMoreThanFiftyUsablePoints) {
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.5f, 0.5f, 5, 1, "");
    const RigidMatrix pose(Matrix3d::Identity(), {10, 20, 30});
    PointImage frame = flat_frame(55);
    frame.set_vCoord(1, {0, 0, -50});    // behind the camera
    frame.set_vCoord(2, {0, 0, 9e-6f});  // too near
    frame.set_vNrv(3, {1, 0, 9e-6f});    // seen from the side
    frame.set_vNrv(4, {kNaN, 0, kNaN});
    frame.set_vCoord(50, Vector3f::Zero());
    const std::string line = "can not run function get_shift because invaildNum <= 50 invaildNum = 50\n";
    EXPECT_EQ(outcome([&] { return fuse(volume, frame, pose); }),
              std::pair(false, line + "can not run this function because get_shift(oneFrame, rt) == false\n"));
    EXPECT_EQ(outcome([&] { return volume.integrate_tsdfvolume_cam_constrain_one_frame_parallel(frame, pose); }),
              std::pair(false, line));
    EXPECT_EQ(volume.get_vaild_leaf_num(), 0);
    EXPECT_EQ(volume.get_treeShift(), Vector3f(0, 0, 0));

    frame.set_vCoord(50, flat_frame(55).get_vCoord(50));
    EXPECT_EQ(printed([&] { EXPECT_TRUE(fuse(volume, frame, pose)); }), "");
    Vector3d mean = Vector3d::Zero();
    for (std::size_t i = 0; i < 55; ++i)
        mean += i >= 1 && i <= 4 ? Vector3d::Zero() : Vector3d(frame.get_vCoord(i).cast<double>());
    const Vector3d expected = mean / 51 + Vector3d(10, 20, 30) - Vector3d::Constant(256);
    EXPECT_LT((volume.get_model_shift().cast<double>() - expected).norm(), 1e-4);

    // A shift that is there already stays; only the camera-constrained form places every empty volume.
    FusionTsdf<LeafTSDFSpeckle> placed(10, 0.5f, 0.5f, 5, 1, "");
    placed.set_shift({0, 0, -2e-6f});
    EXPECT_TRUE(fuse(placed, flat_frame(20)));
    EXPECT_EQ(placed.get_treeShift(), Vector3f(0, 0, -2e-6f));
    placed.clear();
    EXPECT_TRUE(placed.integrate_tsdfvolume_cam_constrain_one_frame_parallel(flat_frame(60), pose));
    EXPECT_LT(placed.get_treeShift().x(), -200.0f);
}

TEST(OffsetTables, RangesBecomeOddInTheConstructorOnly) {
    for (const auto& [given, kept] : {std::pair{4, 5}, {0, 1}, {-7, 1}, {5, 5}}) {
        FusionTsdf<LeafTSDFSpeckle> volume(10, 0.25f, 0.5f, given, 1, "");
        EXPECT_EQ(volume.get_shiftLTInt().size(), static_cast<std::size_t>(kept * kept * kept)) << given;
    }
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.5f, 0.75f, 3, 1, "");
    for (const bool reset : {false, true}) {
        volume.computer_fusion_cone(flat_frame(0));
        reset ? volume.reset_smooth_and_fusionrange() : volume.modify_smooth_and_fusionrange(0.6f, 4);
        EXPECT_TRUE(volume.get_fusion_cone().empty());
        EXPECT_EQ(volume.get_smooth_threshold(), reset ? 0.5f : 0.6f);
        EXPECT_EQ(volume.get_shiftLT().size(), reset ? 125u : 64u);
    }
}

// ---- removal, labels, colour, caps -------------------------------------------------------------------

TEST(Defusion, UndoesAFrameInTeethLeavesOnly) {
    const std::vector<RigidMatrix> poses = scene_poses();
    const PointImage first = scene_frame(poses[0]), second = scene_frame(poses[1]);
    FusionTsdf<LeafTSDFTeeth> volume(10, 0.8f, 0.5f, 5, 1, "");
    EXPECT_TRUE(fuse(volume, first, poses[0]));
    const std::vector<Voxel> once = used_voxels(volume);
    EXPECT_TRUE(fuse(volume, first, poses[0]));
    EXPECT_TRUE(fuse(volume, second, poses[1]));
    EXPECT_TRUE(fuse(volume, second, poses[1], false));
    EXPECT_TRUE(fuse(volume, first, poses[0], false));
    std::vector<Voxel> left;
    std::size_t emptied = 0;
    for (const Voxel& voxel : used_voxels(volume)) {
        if (voxel.count > 0) {
            left.push_back(voxel);
        } else {  // holds nothing, not even rounding residue
            EXPECT_TRUE(voxel.sum == 0.0f && voxel.weight == 0.0f);
            ++emptied;
        }
    }
    EXPECT_GT(emptied, 1000u);
    ASSERT_EQ(left.size(), once.size());
    for (std::size_t i = 0; i < left.size(); ++i) {
        ASSERT_EQ(left[i].at, once[i].at);
        ASSERT_EQ(left[i].count, once[i].count);
        ASSERT_NEAR(left[i].sum, once[i].sum, 1e-4f);
        ASSERT_NEAR(left[i].weight, once[i].weight, 1e-4f);
    }

    FusionTsdf<LeafTSDFSpeckle> speckle(10, 0.8f, 0.5f, 5, 1, "");
    EXPECT_TRUE(fuse(speckle, first, poses[0]));
    const std::vector<Voxel> kept = used_voxels(speckle);
    for (const bool same : {true, false}) EXPECT_TRUE(fuse(speckle, same ? first : second, poses[same ? 0 : 1], false));
    EXPECT_EQ(used_voxels(speckle), kept);
}

// Of a frame, by the rules of the leaves; removing it takes the labels back.
TEST(TeethLeaves, CountLabelsAndBlendColours) {
    FusionTsdf<LeafTSDFTeeth> volume(10, 0.5f, 0.0f, 1, 1, "");  // one voxel a point
    PointImage frame = flat_frame(60);
    frame.enable_vColor();
    std::vector<unsigned char> labels(120, 0);
    for (std::size_t i = 0; i < 60; ++i) {
        labels[i] = static_cast<unsigned char>(i % 6);
        frame.set_vNrv(i, Vector3f(0, 0.6f, -0.8f));
        frame.set_vColor(i, Vector3f(0.25f, 0.5f, 1.0f));
    }
    for (const bool add : {true, true, false}) EXPECT_TRUE(fuse(volume, frame, {}, add, &labels));
    labels.pop_back();
    EXPECT_EQ(outcome([&] { return fuse(volume, frame, {}, true, &labels); }),
              std::pair(true, std::string("updata AI inform failed! Because AIInform->size() !=oneFrame.get_vn()!\n")));
    const auto& tree = volume.get_fusion_tree();
    for (std::size_t i = 0; i < 60; ++i) {
        const LeafTSDFTeeth& leaf = tree.leaf_at(tree.find_leaf(tree.world_to_voxel(frame.get_vCoord(i))));
        for (std::size_t label = 1; label <= 4; ++label) EXPECT_EQ(leaf.labels[label - 1], i % 6 == label ? 1 : 0);
        EXPECT_FLOAT_EQ(leaf.color[1], 0.5f);
        EXPECT_GE(leaf.colorWeight, 2.4f);  // |z| of the normal a frame
        EXPECT_EQ(leaf.count(), 2);
    }
}

// ---- contribution, constraint, life cycle ------------------------------------------------------------

TEST(SpaceContribution, CountsPointsOnEmptyVoxels) {
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.8f, 0.5f, 5, 3, "");
    const RigidMatrix first = scene_poses()[0], away(Matrix3d::Identity(), {0, 0, 3000});
    PointImage frame = scene_frame(first);
    EXPECT_EQ(volume.get_space_contribution(PointImage(), first), 0);
    EXPECT_TRUE(fuse(volume, frame, first));
    EXPECT_LT(volume.get_space_contribution(frame, first), 100);
    EXPECT_GT(volume.get_space_contribution(scene_frame(scene_poses()[1]), scene_poses()[1]), 1000);
    spoil(frame);
    int usable = 0;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        const Vector3f &point = frame.get_vCoord(i), &normal = frame.get_vNrv(i);
        usable += std::abs(normal.z()) >= 1e-6f && std::abs(point.z()) >= 1e-6f && frame.get_vWeight(i) >= 1e-6f &&
                  point.allFinite() && normal.allFinite();
    }
    EXPECT_EQ(volume.get_space_contribution(frame, away), usable);
}

/// Mean z of the surface of a plane at z = 50 that five frames have established, after one more frame that sees
/// it at `depth`.
template <class Leaf>
double surface_after(float depth, bool constrained) {
    FusionTsdf<Leaf> volume(10, 0.5f, 0.8f, 5, 2, "");
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(volume.integrate_tsdfvolume_cam_constrain_one_frame_parallel(flat_frame(120), {}));
    const PointImage more = flat_frame(120, depth);
    EXPECT_TRUE(constrained ? volume.integrate_tsdfvolume_cam_constrain_one_frame_parallel(more, {})
                            : fuse(volume, more));
    const BaseTriMesh mesh = extract(volume);
    double sum = 0.0;
    int count = 0;
    for (const Vector3f& vertex : mesh.get_vCoords()) {
        if (std::abs(vertex.z() - 50.0f) > 0.5f) continue;  // of the old surface
        sum += vertex.z();
        ++count;
    }
    EXPECT_GT(count, 20);
    return sum / count;
}

template <class Leaf>
class ConstrainedLeaf : public testing::Test {};
using ConstrainedLeaves = testing::Types<LeafTSDFSpeckle, LeafTSDFCloudGenerator>;
TYPED_TEST_SUITE(ConstrainedLeaf, ConstrainedLeaves);

TYPED_TEST(ConstrainedLeaf, AgreeingFramesRefineContradictingOnesDoNot) {
    const double established = surface_after<TypeParam>(50.0f, true);
    EXPECT_NEAR(established, 50.0, 0.005);
    for (const double off : {0.1, -0.1, 0.3, -0.5, 0.8, -0.8, 1.0, -1.0, 1.5, -2.0}) {
        const double agreement = std::pow(std::max(0.0, 1.0 - off * off), 2);  // gone at two voxels, 1 mm
        const double moved = surface_after<TypeParam>(static_cast<float>(50.0 + off), true) - established;
        EXPECT_NEAR(moved, off * agreement / (5.0 + agreement), 0.002) << off;
        if (agreement == 0.0) {
            EXPECT_NEAR(moved, 0.0, 1e-5) << off;
        }
    }
    EXPECT_GT(surface_after<TypeParam>(50.8f, false), established + 0.1);
}

TYPED_TEST(EveryLeaf, ResetsKeepWhatTheySay) {
    FusionTsdf<TypeParam> volume(11, 0.8f, 0.7f, 3, 2, "");
    const RigidMatrix pose = scene_poses()[1];
    const PointImage frame = scene_frame(pose);
    const auto changed_by_fusing = [&] {
        ChangedLeaves changed;
        EXPECT_TRUE(volume.fusion_one_frame_speckle_parallel(frame, pose, changed, true, true, nullptr));
        return changed.size();
    };
    const std::size_t changed = changed_by_fusing(), filled = used_voxels(volume).size();
    EXPECT_EQ(changed > 1000, TypeParam::HasChangedFlag);
    EXPECT_EQ(changed_by_fusing(), 0u) << "listed once until the mark is cleared";
    const Vector3f shift = volume.get_treeShift();
    const int slots = volume.get_vaild_leaf_num();
    for (const bool tbb : {false, true}) {
        tbb ? volume.reset_leaf_tbb() : volume.reset_leaf();
        EXPECT_TRUE(used_voxels(volume).empty());
        EXPECT_EQ(changed_by_fusing(), changed);
        EXPECT_EQ(volume.get_vaild_leaf_num(), slots);
        EXPECT_EQ(used_voxels(volume).size(), filled);
    }
    for (const bool keepsCone : {true, false}) {
        keepsCone ? volume.clear() : volume.reset();
        EXPECT_EQ(volume.get_vaild_leaf_num(), 0);
        EXPECT_EQ(volume.get_fusion_cone().empty(), !keepsCone);
        EXPECT_EQ(volume.get_treeShift(), Vector3f(Vector3f::Zero()));
        EXPECT_EQ(changed_by_fusing(), changed);
        EXPECT_EQ(volume.get_treeShift(), shift);
        EXPECT_EQ(used_voxels(volume).size(), filled);
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Fusion
