// Settings and clouds that no registration can use.
#include "platform/featureRegistration.h"
#include "tests/common.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTest;

template <class Call, class Result>
void expect_one_line(const Call& call, Result expected, const std::string& start) {
    const std::string lines = printed([&] { EXPECT_EQ(call(), expected); });
    EXPECT_EQ(line_count(lines), 1) << lines;
    EXPECT_EQ(lines.rfind(start, 0), 0u) << lines;
}

/// A bent sheet of `side` x `side` points, 1 mm apart, without normals.
Cloud sheet(int side) {
    Cloud cloud;
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) {
            const auto u = static_cast<float>(x), v = static_cast<float>(y);
            cloud.add_vCoord({u, v, 100.0f + 3.0f * std::sin(0.5f * u) * std::cos(0.4f * v + 0.01f * u * v)});
        }
    return cloud;
}

TEST(FeatureBoundary, SettingsOutOfRange) {
    // Radii of normals, frames and descriptors; spacing; candidates.
    const std::tuple<float, float, float, float, int> cases[] = {
        {0, 10, 20, 2, 3},    {5, kNaN, 20, 2, 3}, {5, 10, kInfinity, 2, 3}, {5, 10, 65, 2, 3},     {5, 10, 20, 0, 3},
        {5, 10, 20, kNaN, 3}, {5, 10, 20, 2, 0},   {5, 10, 20, 2, 17},       {5, 10, 20, 1e-30f, 3}};
    for (const auto& settings : cases)
        expect_one_line([&] { return std::apply(pair_lrf_cue_create_implementaion, settings); },
                        static_cast<void*>(nullptr), "pair_lrf_cue_create_implementaion failed: ");
}

TEST(FeatureBoundary, NullHandles) {
    RigidMatrix pose(Matrix3d::Identity(), {1, 2, 3});
    FeatureAlignment alignment;
    void* none = nullptr;
    const std::pair<std::string, std::function<RetVal()>> calls[] = {
        {"pair_lrf_cue_set_ref_cloud", [&] { return pair_lrf_cue_set_ref_cloud(none, {}); }},
        {"pair_lrf_cue_set_obj_cloud", [&] { return pair_lrf_cue_set_obj_cloud(none, {}); }},
        {"pair_lrf_cue_compute_registration", [&] { return pair_lrf_cue_compute_registration(none, pose, alignment); }},
        {"pair_lrf_cue_release_implementation", [&] { return pair_lrf_cue_release_implementation(none); }}};
    for (const auto& [name, call] : calls)
        expect_one_line(call, RET_INI_ERROR,
                        "can not run function " + name + " because the feature registration = NULL\n");
    EXPECT_EQ(pose.get_translation(), Vector3d(1, 2, 3));
}

TEST(FeatureBoundary, UnusableCloudsLeaveTheOneBefore) {
    void* handle = pair_lrf_cue_create_implementaion(3, 5, 8, 1, 3);
    RigidMatrix pose;
    FeatureAlignment before, after;
    expect_one_line([&] { return pair_lrf_cue_compute_registration(handle, pose, before); }, RET_STATE_ERROR,
                    "pair_lrf_cue_compute_registration failed: ");
    ASSERT_EQ(pair_lrf_cue_set_ref_cloud(handle, sheet(30)), RET_SUCCESS);
    ASSERT_EQ(pair_lrf_cue_set_obj_cloud(handle, sheet(30)), RET_SUCCESS);
    ASSERT_EQ(pair_lrf_cue_compute_registration(handle, pose, before), RET_SUCCESS);

    const auto all = [](const Vector3f& point) {
        Cloud cloud;
        cloud.set_vCoords(std::vector<Vector3f>(500, point));
        return cloud;
    };
    Cloud farApart, withoutNormals = sheet(30), opposed = sheet(30), notLegal = sheet(30), deleted = sheet(30);
    for (int i = 0; i < 100001; ++i) farApart.add_vCoord({2.0f * static_cast<float>(i % 400), 2.0f * (i / 400), 7.0f});
    withoutNormals.enable_vNormal();
    withoutNormals.set_vNrv(3, {kNaN, 0, 1});
    opposed.enable_vNormal();
    for (std::size_t i = 0; i < opposed.get_vn(); ++i) {
        opposed.set_vCoord(i, {0.3f + 2.0f * static_cast<float>(i / 18), 1.3f, 1.3f});
        opposed.set_vNrv(i, {0, 0, i % 2 == 0 ? 1.0f : -1.0f});
    }
    notLegal.set_vNrvs(std::vector<Vector3f>(7, Vector3f::UnitZ()));
    for (std::size_t i = 0; i < deleted.get_vn(); ++i) deleted.set_vDeleted(i, true);
    std::vector<Cloud> clouds = {{}, sheet(7), farApart, withoutNormals, opposed, notLegal, deleted};
    const Vector3f points[] = {{kNaN, 0, 1}, {kInfinity, 0, 1}, {1e30f, 0, 1}, {0, 0, 0}, {1, 2, 3}};
    for (const Vector3f& point : points) clouds.push_back(all(point));
    for (const Cloud& cloud : clouds) {
        SCOPED_TRACE(&cloud - clouds.data());
        expect_one_line([&] { return pair_lrf_cue_set_ref_cloud(handle, cloud); }, RET_INPUT_ERROR,
                        "pair_lrf_cue_set_ref_cloud failed: ");
        expect_one_line([&] { return pair_lrf_cue_set_obj_cloud(handle, cloud); }, RET_INPUT_ERROR,
                        "pair_lrf_cue_set_obj_cloud failed: ");
    }
    ASSERT_EQ(pair_lrf_cue_compute_registration(handle, pose, after), RET_SUCCESS);
    EXPECT_EQ(after.agreeing, before.agreeing);
    EXPECT_EQ(after.samples, before.samples);
    EXPECT_TRUE(pose.get_rotation().isIdentity(1e-3));
    EXPECT_EQ(pair_lrf_cue_release_implementation(handle), RET_SUCCESS);
    EXPECT_EQ(handle, nullptr);
}

/// Whatever is finite must neither crash nor hang, nor count as aligned when it is noise.
TEST(FeatureBoundary, WildButFiniteClouds) {
    Cloud huge, mixed = sheet(20), turning = sheet(20);
    std::minstd_rand random;
    std::uniform_real_distribution<float> wild(-1.0f, 1.0f);
    const auto draw = [&](float size) { return Vector3f(size * Vector3f(wild(random), wild(random), wild(random))); };
    for (int i = 0; i < 300; ++i) huge.add_vCoord(draw(2.5e5f));
    mixed.set_vCoord(5, {kNaN, kInfinity, 0});
    mixed.set_vCoord(6, {3e38f, -3e38f, 3e38f});
    turning.enable_vNormal();
    for (std::size_t i = 0; i < turning.get_vn(); ++i) turning.set_vNrv(i, draw(1e15f));
    const std::pair<const Cloud*, const Cloud*> pairs[] = {
        {&huge, &turning}, {&turning, &huge}, {&mixed, &huge}, {&mixed, &turning}};
    for (const auto& [spacing, radius] : {std::pair(0.001f, 3.0f), {0.001f, 64.0f}, {2.0f, 3.0f}, {2.0f, 64.0f}}) {
        void* handle = pair_lrf_cue_create_implementaion(1, radius, radius, spacing, 16);
        for (const auto& [ref, obj] : pairs) {
            RigidMatrix pose;
            FeatureAlignment alignment;
            pair_lrf_cue_set_ref_cloud(handle, *ref);
            pair_lrf_cue_set_obj_cloud(handle, *obj);
            EXPECT_NE(pair_lrf_cue_compute_registration(handle, pose, alignment), RET_SUCCESS);
        }
        pair_lrf_cue_release_implementation(handle);
    }
}

}  // namespace
