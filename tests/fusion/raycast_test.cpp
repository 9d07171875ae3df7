// The raycast against a plain march written from its definition, against the rendered truth, and at its limits.
#include "fusion/rayCast.h"

#include <memory>

#include "fusion/FieldReader.h"
#include "fusion/rayCastKernels.h"
#include "tests/fusion/fusionScenes.h"

namespace VexelAlgorithm::Fusion {
namespace {

constexpr int kWidth = 150, kHeight = 110;
const CameraInParam kCamera(160.0, 161.0, 74.3, 55.1);
const Vector2f kNearFar(5.0f, 200.0f);

PointImage empty_view(int width = kWidth, int height = kHeight) {
    PointImage view;
    view.ini(width, height, kCamera, 1, Vector2f::Zero());
    return view;
}

PointImage truth_view(const RigidMatrix& pose) {
    return Simulation::render(*ball_and_wall(), kCamera, kWidth, kHeight, pose);
}

std::vector<RigidMatrix> views() {
    return {Simulation::look_at({5, -58, 4}, {0, 0, 0}), Simulation::look_at({25, -52, 16}, {2, 0, 1}),
            Simulation::look_at({-20, -50, -18}, {-1, 1, 0})};
}

template <class Leaf = LeafTSDFSpeckle>
FusionTsdf<Leaf>& scene_volume() {
    static const std::unique_ptr<FusionTsdf<Leaf>> scene = [] {
        auto volume = std::make_unique<FusionTsdf<Leaf>>(10, 0.5f, 0.6f, 5, 2, "");
        for (const RigidMatrix& pose : scene_poses()) EXPECT_TRUE(fuse(*volume, truth_view(pose), pose));
        for (const RigidMatrix& pose : views()) EXPECT_TRUE(fuse(*volume, truth_view(pose), pose));
        return volume;
    }();
    return *scene;
}

const RayCastNormals kFromVolume{false, 1, 0.0f};

// ---- a plain march -----------------------------------------------------------------------------------

template <class Leaf>
float value_at(const VexelOctree::Octree<Leaf>& tree, int x, int y, int z) {
    const int leaf = tree.find_leaf(x, y, z);
    return leaf < 0 || leaf >= tree.pool().size() || !tree.leaf_at(leaf).is_used() ? 0.0f : tree.leaf_at(leaf).value();
}

struct MarchCounts {
    int beyond = 0, before = 0, between = 0, rays = 0;
};

/// One ray, every half voxel sampled, from t0 to t1 (mm). The n-th sample lies at t0 + n s, which differs from adding s
/// again and again by rounding only. `between` reads between voxels, which has a test of its own.
template <class Leaf>
Vector3f march(const FusionTsdf<Leaf>& volume, FieldReader<Leaf>& between, const Vector3f& o, const Vector3f& d,
               float t0, float t1, MarchCounts& counts) {
    const Vector3f none = Vector3f::Zero();
    const auto& tree = volume.get_fusion_tree();
    const auto s = static_cast<float>(0.5 * static_cast<double>(volume.get_pointDis()));
    const auto sample = [&](float t, float& f) {
        const Vector3f p = o + t * d;
        const Vector3f q = (p - tree.get_shift()) / tree.get_pointDis();
        if (!(q.minCoeff() >= 1.0f && q.maxCoeff() < static_cast<float>(tree.get_size() - 2))) return false;
        const Vector3i voxel = tree.world_to_voxel(p);
        f = value_at(tree, voxel.x(), voxel.y(), voxel.z());
        return true;
    };
    float previous = 0.0f, f = 0.0f, t = t0;
    if (!sample(t0, previous) || !(t1 >= t0)) return none;
    ++counts.rays;
    for (int n = 1;; ++n) {
        const float next = t0 + static_cast<float>(n) * s;
        if (!sample(next, f)) return none;
        if (previous > 0.0f && 0.0f > f) break;
        previous = f;
        t = next;
        if (next > t1) return none;
    }
    const auto F = [&](float x) { return between.trilinear_at_point(o + x * d); };
    const auto point = [&](float x, int& count) {
        ++count;
        return Vector3f(o + x * d);
    };
    const float Fc = F(t + s), Fp = F(t), Fn = F(t + 2.0f * s), Fb = F(t - s);
    if (Fc > 0.0f && Fn < 0.0f) return point((t + s) + s * Fc / (Fc - Fn), counts.beyond);
    if (Fp < 0.0f && Fb > 0.0f) return point((t - s) + s * Fb / (Fb - Fp), counts.before);
    if (Fp > 0.0f && 0.0f > Fc) return point(t + s * Fp / (Fp - Fc), counts.between);
    return none;
}

template <class Leaf>
MarchCounts expect_plain_march(const FusionTsdf<Leaf>& volume, const RigidMatrix& pose, bool guided,
                               const Vector2f& nearFar, float factor) {
    const Vector3f nothing[] = {{0, 0, 0},    {1, 1, 0},     {0, 0, -50},       {0, 0, 9e-6f},
                                {0, 0, kNaN}, {kNaN, 0, 50}, {kInfinity, 0, 50}};
    PointImage guide = truth_view(pose), result = empty_view();
    for (std::size_t i = 0; i < guide.get_vn(); i += 13) guide.set_vCoord(i, nothing[i / 13 % 7]);
    EXPECT_EQ(rayCast(volume, guide, pose, result, guided, nearFar, kFromVolume, factor), 0);
    MarchCounts counts;
    const RayTable rays(result, pose);
    FieldReader<Leaf> between(volume.get_fusion_tree());
    const Vector3f o = pose.get_translation().cast<float>();
    const float halfInterval = 0.5f * volume.get_pointDis() * factor;
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < result.get_vn(); ++i) {
        const int width = result.get_image_width();
        const VoxelPosition ray = rays.direction(static_cast<int>(i) % width, static_cast<int>(i) / width);
        const Vector3f d(ray[0], ray[1], ray[2]);
        EXPECT_LT((d - pose.transform_normal(result.get_ray_direct(i))).norm(), 1e-6f);
        const float r = guide.get_vCoord(i).norm();
        Vector3f expected = Vector3f::Zero();
        if (!guided) {
            expected = march(volume, between, o, d, nearFar.x(), nearFar.y(), counts);
        } else if (guide.get_vCoord(i).z() >= 1e-5f) {
            expected = march(volume, between, o, d, r - halfInterval, r + halfInterval, counts);
        }
        wrong += result.get_vCoord(i) == expected ? 0 : 1;
    }
    EXPECT_EQ(wrong, 0u);
    return counts;
}

TYPED_TEST(EveryLeaf, SkippingEmptySpaceChangesNoBit) {
    const MarchCounts counts = expect_plain_march(scene_volume<TypeParam>(), views()[1], false, kNearFar, 0.0f);
    EXPECT_GT(counts.between, 5000);
}

TEST(RayCast, EveryIntervalIsMarchedAsDefined) {
    const Vector2f intervals[] = {{0.001f, 500.0f}, {-20.0f, 70.0f}, {52.0f, 53.0f}, {60.0f, 5.0f}};
    MarchCounts all;
    for (const RigidMatrix& pose : views()) {
        for (const float factor : {0.0f, 1.0f, 3.0f, 8.0f, 40.0f, -1.0f}) {
            const MarchCounts counts = expect_plain_march(scene_volume(), pose, true, kNearFar, factor);
            EXPECT_EQ(counts.rays > 0, factor >= 0.0f);
            all.beyond += counts.beyond, all.before += counts.before, all.between += counts.between;
        }
        for (const Vector2f& nearFar : intervals) expect_plain_march(scene_volume(), pose, false, nearFar, 0.0f);
    }
    EXPECT_GT(std::min({all.beyond, all.before, all.between}), 100);  // each way of refinement was taken

    // From behind there are back faces.
    const RigidMatrix behind = Simulation::look_at({0, 60, 0}, {0, 0, 0});
    EXPECT_LT(expect_plain_march(scene_volume(), behind, false, kNearFar, 0.0f).between, 100);
}

TEST(RayCast, RaysEndBeforeTheFaces) {
    for (const Vector3i& sceneAt : {Vector3i(28, 24, 30), Vector3i(995, 1000, 992)}) {
        FusionTsdf<LeafTSDFSpeckle> volume(10, 0.5f, 0.6f, 5, 2, "");
        volume.set_shift(-0.5f * sceneAt.cast<float>());
        for (const RigidMatrix& pose : views()) ASSERT_TRUE(fuse(volume, truth_view(pose), pose));
        for (const RigidMatrix& pose : views())
            for (const float factor : {3.0f, 8.0f, 40.0f})
                EXPECT_GT(expect_plain_march(volume, pose, true, kNearFar, factor).between, 500);
    }
}

// ---- against the truth -------------------------------------------------------------------------------

TEST(RayCast, NormalsAreThoseOfTheSurface) {
    const Simulation::ShapePtr scene = ball_and_wall();
    for (const RigidMatrix& pose : views()) {
        const PointImage truth = truth_view(pose);
        for (const bool fromImage : {true, false}) {
            PointImage result = empty_view();
            const RayCastNormals settings{fromImage, 1, fromImage ? 3.0f : 0.0f};
            ASSERT_EQ(rayCast(scene_volume(), truth, pose, result, true, kNearFar, settings, 8.0f), 0);
            EXPECT_EQ(result.get_rt().get_translation(), pose.get_translation());
            EXPECT_EQ(result.get_rt().get_rotation(), pose.get_rotation());
            int compared = 0, points = 0, off = 0, normals = 0, tilted = 0, turned = 0;
            for (std::size_t i = 0; i < result.get_vn(); ++i) {
                compared += truth.has_point(i) && truth.get_vWeight(i) > 0.5f ? 1 : 0;
                if (!result.has_point(i)) continue;
                const Vector3d point = result.get_vCoord(i).cast<double>();
                const Vector3f& normal = result.get_vNrv(i);
                ++points;
                off += std::abs(scene->distance(point)) > 0.05 ? 1 : 0;  // a tenth of a voxel
                if (normal == Vector3f::Zero()) continue;
                ++normals;
                EXPECT_NEAR(normal.norm(), 1.0f, 1e-4f);
                turned += normal.dot((pose.get_translation() - point).cast<float>()) < 0.0f ? 1 : 0;
                tilted += normal.cast<double>().dot(scene->gradient(point)) < 0.98 ? 1 : 0;
            }
            EXPECT_GT(points, 0.97 * compared);
            EXPECT_LT(off, 0.01 * points);
            EXPECT_GT(normals, 0.8 * points);
            EXPECT_LT(tilted, 0.05 * normals);
            EXPECT_EQ(turned, 0);
        }
    }
}

TEST(RayCast, FromOutsideTheVolumeRaysStartWhereTheyEnter) {
    // From 400 mm, 150 mm before the nearest face.
    const RigidMatrix pose = Simulation::look_at({10, -400, 20}, {0, 0, 0});
    PointImage result;
    result.ini(100, 100, {1200.0, 1200.0, 49.5, 49.5}, 1, Vector2f::Zero());
    ASSERT_EQ(rayCast(scene_volume(), PointImage(), pose, result, false, {1.0f, 2000.0f}, kFromVolume, 0.0f), 0);
    int points = 0, off = 0;
    for (std::size_t i = 0; i < result.get_vn(); ++i) {
        if (!result.has_point(i)) continue;
        ++points;
        off += std::abs(ball_and_wall()->distance(result.get_vCoord(i).cast<double>())) > 0.05 ? 1 : 0;
    }
    EXPECT_GT(points, 6000);
    EXPECT_LT(off, points / 100);
    const RigidMatrix past = Simulation::look_at({10, -400, 20}, {0, -800, 0});
    ASSERT_EQ(rayCast(scene_volume(), PointImage(), past, result, false, {1.0f, 2000.0f}, kFromVolume, 0.0f), 0);
    EXPECT_EQ(result.count_vaildNum(), 0);
}

TEST(RayCast, IsTheSameBitsForAnyNumberOfThreadsAndEveryInstructionSet) {
    FusionTsdf<LeafTSDFTeeth>& volume = scene_volume<LeafTSDFTeeth>();
    const PointImage guide = truth_view(views()[1]);
    for (const bool guided : {true, false}) {
        std::vector<PointImage> results;
        with_every_instruction_set([&] {
            for (const int threads : {1, 4}) {
                volume.reset_code_Num(threads);
                results.push_back(empty_view());
                rayCast(volume, guide, views()[1], results.back(), guided, kNearFar, {true, 1, 3.0f}, 6.0f);
            }
        });
        EXPECT_GT(results.front().count_vaildNum(), 5000);
        for (const PointImage& result : results) {
            EXPECT_EQ(result.get_vCoords(), results.front().get_vCoords());
            EXPECT_EQ(result.get_vNrvs(), results.front().get_vNrvs());
        }
    }
}

// ---- limits ------------------------------------------------------------------------------------------

TEST(RayCast, SlotCountsMustAgreeWhenGuided) {
    PointImage result = empty_view();
    result.set_vCoord(7, {1, 2, 3});
    const auto cast = [&](bool guided) {
        return rayCast(scene_volume(), empty_view(kWidth, kHeight - 1), views()[0], result, guided, kNearFar, {}, 8.0f);
    };
    EXPECT_EQ(outcome([&] { return cast(true); }),
              std::pair(2, std::string("resultFrame.get_vn() != guildFrame.get_vn()\nresultFrame.get_vn() = 16500\n"
                                       "guildFrame.get_vn() = 16350\n")));
    EXPECT_EQ(result.get_vCoord(7), Vector3f(1, 2, 3));
    EXPECT_FALSE(result.is_enable_vNormal());
    EXPECT_TRUE(result.get_rt().get_rotation().isIdentity());
    EXPECT_EQ(cast(false), 0);
    EXPECT_NE(result.get_vCoord(7), Vector3f(1, 2, 3));
}

TEST(RayCast, BricksFarApartAreToldApart) {
    // One ray through two stacks of voxels so far apart that only the highest bits of their coordinates differ, which
    // the first tag of a brick has no room for.
    constexpr int kApart = 1 << 17, kFirst = 1000;
    FusionTsdf<LeafTSDFSpeckle> volume(18, 0.5f, 0.5f, 5, 1, "");
    for (int z = -3; z <= 3; ++z)
        for (int k = 0; k < 9; ++k) {
            set_voxel(volume, {500 + k % 3, 500 + k / 3, kFirst + z}, 1.0f);
            set_voxel(volume, {500 + k % 3, 500 + k / 3, kFirst + kApart + z}, 0.5f * (0.4f - static_cast<float>(z)));
        }
    PointImage result;
    result.ini(1, 1, {1.0, 1.0, 0.0, 0.0}, 1, Vector2f::Zero());
    const RigidMatrix pose(Matrix3d::Identity(), {250.75, 250.75, 0.5 * (kFirst - 10)});
    ASSERT_EQ(rayCast(volume, PointImage(), pose, result, false, {0.0f, 80000.0f}, kFromVolume, 0.0f), 0);
    EXPECT_NEAR(result.get_vCoord(0).z(), 0.5 * (kFirst + kApart + 0.5) + 0.2, 0.01);
}

}  // namespace
}  // namespace VexelAlgorithm::Fusion
