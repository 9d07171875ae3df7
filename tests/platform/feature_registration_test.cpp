// Registration against the truth of the virtual world.
#include <tbb/task_arena.h>

#include "platform/featureRegistration.h"
#include "platform/pointTree.h"
#include "simulation/NoiseModel.h"
#include "simulation/cameraPaths.h"
#include "simulation/combinations.h"
#include "simulation/primitives.h"
#include "simulation/render.h"
#include "simulation/scenes.h"
#include "tests/common.h"

namespace {

using namespace VexelAlgorithm;

constexpr double kRadian = 3.14159265358979323846 / 180.0;

/// A noisy frame in camera coordinates, 1.6 mm between pixels, from 400 mm away; the pose is the camera's.
struct View {
    PointImage frame;
    RigidMatrix cameraToWorld;
};

View view_of(const Simulation::Shape& scene, const Vector3d& target, double azimuth, double elevation) {
    const Vector3d direction(std::cos(azimuth * kRadian) * std::cos(elevation * kRadian),
                             std::sin(azimuth * kRadian) * std::cos(elevation * kRadian),
                             std::sin(elevation * kRadian));
    View view;
    view.cameraToWorld = Simulation::look_at(target + 400.0 * direction, target);
    view.frame = Simulation::render(scene, {250, 250, 79.5, 63.5}, 160, 128, view.cameraToWorld);
    Simulation::apply_noise(view.frame, {}, static_cast<std::uint64_t>(360.0 + azimuth));
    return view;
}

constexpr float kSpacing = 3.0f;

class Registration {
public:
    Registration() : handle(pair_lrf_cue_create_implementaion(5.0f, 10.0f, 20.0f, kSpacing, 3)) {}
    ~Registration() { pair_lrf_cue_release_implementation(handle); }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    RetVal align(const Cloud& ref, const Cloud& obj) {
        if (const RetVal result = pair_lrf_cue_set_ref_cloud(handle, ref)) return result;
        if (const RetVal result = pair_lrf_cue_set_obj_cloud(handle, obj)) return result;
        return pair_lrf_cue_compute_registration(handle, objToRef, alignment);
    }

    void* handle;
    RigidMatrix objToRef;
    FeatureAlignment alignment;
};

constexpr double kAngleTolerance = 1.0;              // degrees
constexpr double kPositionTolerance = kSpacing / 2;  // mm, at the middle of the object

/// The motion of an arbitrary scanner coordinate system, far from the camera's.
RigidMatrix arbitrary_motion(int number) {
    const Vector3d axis = Vector3d(1, number - 2, 2).normalized();
    return {Eigen::AngleAxisd(0.9 * number, axis).toRotationMatrix(), {300.0 * number, -5000, 40}};
}

Cloud as_cloud(const PointImage& frame, const RigidMatrix& motion, bool withNormals) {
    Cloud cloud = frame;
    if (!withNormals) cloud.disable_vNormal();
    cloud.rigid_transformation(motion);
    for (std::size_t i = 0; i < cloud.get_vn(); ++i)
        if (!frame.has_point(i)) cloud.set_vCoord(i, Vector3f::Zero());
    return cloud;
}

bool is_true(const RigidMatrix& found, const RigidMatrix& truth, const Vector3d& middle) {
    const Matrix3d turn = found.get_rotation() * truth.get_rotation().transpose();
    return Eigen::AngleAxisd(turn).angle() < kAngleTolerance * kRadian &&
           (found * middle - truth * middle).norm() < kPositionTolerance;
}

TEST(FeatureRegistration, ViewsTenToFortyDegreesApart) {
    const std::pair<const char*, Vector3d> cases[] = {{"owl", Simulation::owl_centre()}, {"blocks", {0, 0, 25}}};
    for (const auto& [scene, target] : cases) {
        const Simulation::ShapePtr shape = Simulation::make_scene(scene);
        for (const bool withNormals : {true, false}) {
            int pairs = 0, found = 0;
            for (const double azimuth : {-90.0, 150.0}) {
                const View ref = view_of(*shape, target, azimuth, 25);
                for (const double turn : {10.0, 25.0, 40.0}) {
                    const View obj = view_of(*shape, target, azimuth + turn, 25 + turn / 4);
                    ++pairs;
                    // Computed normals are turned to the origin, which therefore stays at the camera.
                    const RigidMatrix moved = withNormals ? arbitrary_motion(pairs) : RigidMatrix();
                    Registration registration;
                    const RetVal result = registration.align(as_cloud(ref.frame, {}, withNormals),
                                                             as_cloud(obj.frame, moved, withNormals));
                    if (result != RET_SUCCESS) continue;
                    ++found;
                    const RigidMatrix truth = ref.cameraToWorld.inverse() * obj.cameraToWorld * moved.inverse();
                    EXPECT_TRUE(is_true(registration.objToRef, truth, moved * Vector3d(0, 0, 400))) << scene << pairs;
                    EXPECT_LT(registration.alignment.residual, 0.2f * kSpacing);
                }
            }
            EXPECT_GE(found, pairs - 1) << scene;
        }
    }
}

TEST(FeatureRegistration, OneFrameAgainstAModelOfAllSides) {
    const Simulation::ShapePtr owl = Simulation::owl_on_books();
    Cloud model;
    model.enable_vNormal();
    for (int side = 0; side < 6; ++side) {
        const View view = view_of(*owl, Simulation::owl_centre(), 60.0 * side, 10);
        for (std::size_t i = 0; i < view.frame.get_vn(); ++i) {
            if (!view.frame.has_point(i)) continue;
            const std::size_t added = model.add_vCoord(view.cameraToWorld * view.frame.get_vCoord(i));
            model.set_vNrv(added, view.cameraToWorld.transform_normal(view.frame.get_vNrv(i)));
        }
    }
    const View frame = view_of(*owl, Simulation::owl_centre(), -100, 30);
    Registration registration;
    ASSERT_EQ(registration.align(model, frame.frame), RET_SUCCESS);
    EXPECT_TRUE(is_true(registration.objToRef, frame.cameraToWorld, {0, 0, 400}));
    EXPECT_GT(registration.alignment.overlap, 0.9f);

    const RigidMatrix there = registration.objToRef;
    ASSERT_EQ(registration.align(frame.frame, model), RET_SUCCESS);
    EXPECT_TRUE(is_true(registration.objToRef * there, {}, {0, 0, 400})) << "forth and back";
}

TEST(FeatureRegistration, NothingInCommonOrFreeToSlide) {
    const Vector3d target(0, 0, 40);
    const std::vector<Simulation::ShapePtr> shapes = {
        Simulation::make_scene("sphere"), Simulation::half_space({0, 0, 0}, {0, 0, 1}), Simulation::make_scene("torus"),
        Simulation::owl_on_books(), Simulation::make_scene("blocks")};
    std::vector<View> views;
    for (std::size_t i = 0; i < shapes.size(); ++i) views.push_back(view_of(*shapes[i], target, 30.0 * i, 35));
    for (std::size_t i = 0; i < views.size(); ++i)
        for (std::size_t j = 0; j < views.size(); ++j) {
            const bool slides = i < 3;  // the first three even on themselves
            if (i == j && !slides) continue;
            Registration registration;
            EXPECT_EQ(registration.align(views[i].frame, views[j].frame), RET_NOT_CONVERGED) << i << ", " << j;
            EXPECT_TRUE(registration.objToRef.get_rotation().isIdentity() && registration.alignment.samples == 0);
        }
}

TEST(FeatureRegistration, SameResultWhateverTheThreads) {
    const Simulation::ShapePtr owl = Simulation::owl_on_books();
    const View ref = view_of(*owl, Simulation::owl_centre(), -80, 20),
               obj = view_of(*owl, Simulation::owl_centre(), -60, 25);
    Registration one;
    tbb::task_arena(1).execute([&] { EXPECT_EQ(one.align(ref.frame, obj.frame), RET_SUCCESS); });
    for (int run = 0; run < 2; ++run) {
        Registration several;
        tbb::task_arena(4).execute([&] { several.align(ref.frame, obj.frame); });
        EXPECT_EQ(several.objToRef.get_rotation(), one.objToRef.get_rotation());
        EXPECT_EQ(several.objToRef.get_translation(), one.objToRef.get_translation());
        EXPECT_EQ(several.alignment.residual, one.alignment.residual);
    }
}

// ---- the tree, against a look at every point -------------------------------------------------------------

TEST(PointTree, AsEveryPointLookedAt) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> coordinate(-1.0f, 1.0f);
    const auto place = [&](float scaleZ) {
        return Vector3f(coordinate(random), coordinate(random), coordinate(random) * scaleZ);
    };
    for (const std::size_t count : {0, 1, 8, 9, 500})
        for (const float scaleZ : {1.0f, 0.0f}) {
            std::vector<Vector3f> points(count);
            for (Vector3f& point : points) point = place(scaleZ);
            for (std::size_t i = count / 2; i < count; i += 3) points[i] = points[0];
            const PointTree tree(points);
            for (int query = 0; query < 40; ++query) {
                const Vector3f at = place(scaleZ);
                const float reach = 0.02f + 0.05f * static_cast<float>(query % 10);
                std::multimap<std::size_t, float> expected, found;
                float least = reach * reach;
                for (std::size_t i = 0; i < count; ++i) {
                    const float squared = (points[i] - at).squaredNorm();
                    if (squared < reach * reach) expected.emplace(i, squared);
                    least = std::min(least, squared);
                }
                tree.for_each_within(at, reach, [&](std::size_t i, float squared) { found.emplace(i, squared); });
                EXPECT_EQ(found, expected);
                const std::size_t nearest = tree.nearest(at, reach);
                ASSERT_EQ(nearest == PointTree::NONE, expected.empty());
                EXPECT_TRUE(expected.empty() || (points[nearest] - at).squaredNorm() == least);
            }
        }
}

}  // namespace
