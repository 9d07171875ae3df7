// Editing: what is deleted is gone everywhere, what is not stays, and the scan goes on.
#include "fusiontrackoperation/replayEdit.h"
#include "tests/project/projectScenes.h"
#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;

class Editing : public testing::Test {
protected:
    Editing() {
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(session.step(frame(i)));
        const Cloud& cloud = get_show_data(session);
        Vector3f low, high;
        cloud.get_boundBox(low, high);
        const auto aside = [&](const Vector3f& p) { return (p - 0.5F * (low + high)).head<2>().norm(); };
        centre = *std::min_element(cloud.get_vCoords().begin(), cloud.get_vCoords().end(),
                                   [&](const Vector3f& a, const Vector3f& b) { return aside(a) < aside(b); });
        for (const int i : selection()) around.add_vCoord(cloud.get_vCoord(static_cast<std::size_t>(i)));
    }
    bool is_inside(const Vector3f& p, float margin = 0.0F) const { return (p - centre).norm() < radius + margin; }
    std::vector<int> selection() {
        std::vector<int> selected;
        const Cloud& cloud = get_show_data(session);
        for (std::size_t i = 0; i < cloud.get_vn(); ++i)
            if (is_inside(cloud.get_vCoord(i))) selected.push_back(static_cast<int>(i));
        return selected;
    }
    /// The points inside or outside, as bytes, so that equal means the same bits.
    std::set<std::array<float, 3>> points_at(const Cloud& cloud, bool inside, float margin) const {
        std::set<std::array<float, 3>> found;
        for (const Vector3f& p : cloud.get_vCoords())
            if (is_inside(p, margin) == inside) found.insert({p.x(), p.y(), p.z()});
        return found;
    }
    std::size_t count_inside(const Cloud& cloud, float margin) const { return points_at(cloud, true, margin).size(); }
    auto far_away(const Cloud& cloud) const { return points_at(cloud, false, 4 * voxel); }
    /// At its true pose.
    void fuse_one(Session& to, int i) const { ASSERT_TRUE(to.fuse(frame(i), scan.sequence.pose_in_model(i))); }

    /// Rendered once.
    const PointImage& frame(int i) const {
        static std::map<int, PointImage> frames;
        if (frames.count(i) == 0) frames[i] = scan.frame(i);
        return frames[i];
    }

    Scan scan{"smooth"};
    Session session{scan.records};
    const float voxel = scan.records.fusion.pointDis;
    const float radius = 20.0F;
    Vector3f centre;
    Cloud around;  // display points around the centre
};

TEST_F(Editing, SelectedSurfaceIsGoneEverywhereAndTheScanGoesOn) {
    const std::vector<int> selected = selection();
    ASSERT_GT(selected.size(), 100U);
    Cloud marked = get_show_data(session);
    for (const int i : selected) marked.set_vDeleted(static_cast<std::size_t>(i), true);
    const std::string whole = project_of(session);
    const BaseTriMesh meshBefore = session.mesh();
    const auto shownFar = far_away(marked), meshFar = far_away(meshBefore);
    ASSERT_GT(count_inside(meshBefore, -2 * voxel), 100U);
    Session fresh(scan.records);
    Loader loader;

    // By index, by place, by marks in a copy: the same surface in the same way, from the same beginning.
    const std::function<RetVal()> edits[] = {
        [&] { return delete_selected_point(session, selected); },
        [&] { return delete_point_when_scan(session, around, 2 * voxel); },
        [&] { return delete_point_when_scan_accord_delete(session, marked); },
    };
    for (const auto& edit : edits) {
        ASSERT_TRUE(loader.load(session, whole));
        ASSERT_TRUE(session.step(frame(2)));
        const int predicted = session.state().predictionValid;
        ASSERT_TRUE(loader.load(session, whole));
        ASSERT_EQ(edit(), RET_SUCCESS);
        const Cloud shown = get_show_data(session);
        const BaseTriMesh mesh = session.mesh();
        EXPECT_EQ(count_inside(shown, -voxel), 0U);
        EXPECT_EQ(count_inside(mesh, -voxel), 0U);
        EXPECT_EQ(far_away(shown), shownFar);
        EXPECT_EQ(far_away(mesh), meshFar);

        ASSERT_TRUE(loader.load(fresh, project_of(session)));
        EXPECT_EQ(fresh.mesh_bytes(), session.mesh_bytes());
        EXPECT_EQ(count_inside(get_show_data(fresh), -voxel), 0U);

        ASSERT_TRUE(session.step(frame(2)));
        EXPECT_LT(session.state().predictionValid, predicted - 100);
        EXPECT_GT(count_inside(get_show_data(session), -voxel), 100U) << "it was seen again";
        EXPECT_LT(pose_error(scan.sequence.pose_in_model(2), get_current_rt(session)).x(), 0.5);
    }
}

TEST_F(Editing, UnstableSurfaceIsWhatTheNoiseFilterLeavesOut) {
    ASSERT_EQ(fusion_reset(session), RET_SUCCESS);
    ASSERT_TRUE(session.step(frame(0)));
    const std::size_t stable = get_show_data(session).get_vn();
    fuse_one(session, 12);
    ASSERT_GT(get_show_data(session).get_vn(), stable + 100U);
    ASSERT_EQ(delete_unStable(session, 3), RET_SUCCESS);
    const std::size_t left = get_show_data(session).get_vn();
    EXPECT_NEAR(static_cast<double>(left), static_cast<double>(stable), 0.02 * static_cast<double>(stable));
    EXPECT_EQ(get_show_data_filter_noise(session).get_vn(), left);
}

/// What the used leaves hold, in an order that does not depend on their ids.
struct VolumeContent {
    explicit VolumeContent(void* session) {
        get_show_data(session);
        const std::string bytes = project_of(session);
        const ProjectLayout layout(bytes);
        for (std::size_t i = 0; i < layout.used; ++i) {
            const std::size_t record = layout.records + 40 * i;
            counts.push_back(static_cast<float>(number_at<std::int32_t>(bytes, record + 4)));
            sums.push_back(number_at<float>(bytes, record + 8));
            weights.push_back(number_at<float>(bytes, record + 12));
        }
        for (auto* values : {&counts, &sums, &weights}) std::sort(values->begin(), values->end());
    }
    void expect_near(const VolumeContent& other) const {
        ASSERT_EQ(counts, other.counts);
        for (std::size_t i = 0; i < sums.size(); ++i) {
            ASSERT_NEAR(sums[i], other.sums[i], 2e-5F);
            ASSERT_NEAR(weights[i], other.weights[i], 1e-5F);
        }
    }
    std::vector<float> counts, sums, weights;
};

class FrameEditing : public Editing {
protected:
    /// Fuses frames, the volume being at one place; the last one with another range where one is given.
    void fuse(Session& to, const std::vector<int>& frames, int lastRange = 0) {
        ASSERT_EQ(fusion_reset(to), RET_SUCCESS);
        ASSERT_EQ(set_treeShift(to, {-1024, -1024, -700}), RET_SUCCESS);
        for (const int& i : frames) {
            if (lastRange != 0 && &i == &frames.back()) {
                ASSERT_EQ(fusion_set_fusionrange(to, lastRange), RET_SUCCESS);
            }
            fuse_one(to, i);
        }
    }
    std::vector<int> every_slot(std::size_t first, std::size_t step) const {
        std::vector<int> slots;
        for (std::size_t i = first; i < frame(0).get_vn(); i += step) slots.push_back(static_cast<int>(i));
        return slots;
    }
    Session other{scan.records};
};

TEST_F(FrameEditing, AFrameTakenOutLeavesTheVolumeOfTheOthers) {
    const int far = 12;  // sees places that the others do not
    const std::vector<int> even = every_slot(0, 2), odd = every_slot(1, 2), twoFrames = {3, 1, 3};
    const auto half_by_half = [&] {
        EXPECT_EQ(delete_single_frame_point(session, 1, even), RET_SUCCESS);
        EXPECT_EQ(printed([&] { delete_single_frame_point(session, 1, even); }),
                  can_not("delete_single_frame_point", "none of the selected points was fused"));
        return delete_single_frame_point_tbb(session, 1, odd);
    };
    const struct {
        std::vector<int> fused;
        std::function<RetVal()> edit;
        std::vector<int> left = {0, 2};
        int lastRange = 0;
    } cases[] = {
        {{0, far, 2}, [&] { return delete_frame_point(session, 1); }},
        {{0, 2, far}, [&] { return delete_key_frame(session, 2); }},
        // The first one was integrated three times.
        {{0, far, far, far, 2}, [&] { return delete_frame_point(session, 0); }, {far, 2}},
        {{0, far, 2, 5}, [&] { return delete_frame_point_new(session, twoFrames); }},
        {{0, far, 2}, [&] { return map_on_frame_delete_point(session, 1, around, 1e6F); }},
        {{0, far, 2}, half_by_half},
        // Only what the settings of its time added is taken out.
        {{0, far, 2}, [&] { return delete_frame_point(session, 1); }, {0, 2}, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        fuse(session, c.fused, c.lastRange);
        fuse(other, c.left, c.lastRange);
        const std::size_t before = VolumeContent(session).counts.size();
        ASSERT_EQ(c.edit(), RET_SUCCESS);
        const VolumeContent content(session);
        EXPECT_LT(content.counts.size(), before);
        content.expect_near(VolumeContent(other));
        // Integration does not look at display points again whose voxels all lie off the surface; editing does.
        const auto shown = static_cast<double>(get_show_data(other).get_vn());
        EXPECT_NEAR(static_cast<double>(get_show_data(session).get_vn()), shown, 0.002 * shown);
        ASSERT_TRUE(session.step(frame(3)));
    }
}

TEST_F(FrameEditing, WhatWasDeletedBeforeIsNotSubtractedOnceMore) {
    fuse(session, {0, 1});
    ASSERT_EQ(delete_point_when_scan(session, around, 2 * voxel), RET_SUCCESS);
    fuse_one(session, 2);
    const auto inside = [&] { return points_at(get_show_data(session), true, -4 * voxel); };
    const auto before = inside();
    ASSERT_GT(before.size(), 50U);
    ASSERT_EQ(delete_frame_point(session, 1), RET_SUCCESS);
    EXPECT_EQ(inside(), before);
    ASSERT_EQ(delete_frame_point(session, 2), RET_SUCCESS);
    EXPECT_EQ(inside().size(), 0U);
}

TEST_F(FrameEditing, FiltersGoByTheDistanceFromTheSurface) {
    fuse(session, {0, 1});
    PointImage noisy = frame(2);
    std::vector<int> outliers;
    for (int slot = 64 * 160 + 40; slot < 64 * 160 + 120; slot += 20) {
        const auto i = static_cast<std::size_t>(slot);
        ASSERT_TRUE(noisy.has_point(i));
        noisy.set_vCoord(i, noisy.get_vCoord(i) + 0.8F * voxel * noisy.get_vNrv(i));
        outliers.push_back(slot);
    }
    ASSERT_TRUE(session.fuse(noisy, scan.sequence.pose_in_model(2)));
    const std::string before = session.mesh_bytes();
    EXPECT_EQ(fusion_single_frame_filtering_using_tsdf(session, 2, 100.0F), RET_SUCCESS);
    EXPECT_EQ(session.mesh_bytes(), before) << "nothing is as far";
    EXPECT_EQ(fusion_single_frame_filtering_using_tsdf(session, 2, 0.2F * voxel), RET_SUCCESS);
    for (const int slot : outliers)
        EXPECT_EQ(printed([&] { delete_single_frame_point(session, 2, {slot}); }),
                  can_not("delete_single_frame_point", "none of the selected points was fused"))
            << slot;
    EXPECT_EQ(delete_single_frame_point(session, 2, every_slot(0, 2)), RET_SUCCESS) << "most of it is still there";

    for (const auto filter :
         {fusion_nonrigid_delete_points_through_tsdf, fusion_nonrigid_gpu_delete_points_through_tsdf}) {
        Cloud cloud = get_show_data(session);
        const std::size_t onSurface = cloud.get_vn();
        cloud.set_vDeleted(0, true);
        cloud.add_vCoord({kNaN, 0, 0});
        cloud.add_vCoord({1e6F, 0, 0});
        ASSERT_EQ(filter(session, cloud, 0.5F * voxel), RET_SUCCESS);
        EXPECT_TRUE(cloud.get_vDeleted(0) && cloud.get_vDeleted(onSurface) && cloud.get_vDeleted(onSurface + 1));
        cloud.squeeze(false);
        EXPECT_GT(static_cast<double>(cloud.get_vn()), 0.9 * static_cast<double>(onSurface));
    }
}

TEST_F(FrameEditing, FramesAreKeptAsFarAsTheMemoryGoes) {
    const auto is_kept = [&](int frame) {
        bool kept = false;
        const std::string lines = printed([&] { kept = delete_frame_point(session, frame) == RET_SUCCESS; });
        EXPECT_EQ(lines, kept ? "" : can_not("delete_frame_point", "frame " + std::to_string(frame) + " is not kept"));
        return kept;
    };
    ASSERT_EQ(set_kept_frame_memory(session, 1), RET_SUCCESS);  // two frames of 380 KB
    EXPECT_FALSE(is_kept(0));
    EXPECT_TRUE(is_kept(2));
    EXPECT_FALSE(is_kept(2)) << "it was taken out";
    ASSERT_EQ(set_kept_frame_memory(session, 512), RET_SUCCESS);
    fuse(session, {0, 1, 2});
    ASSERT_TRUE(track(session, frame(2), session.microseconds));
    EXPECT_FALSE(is_kept(3)) << "it was only tracked";
    ASSERT_EQ(set_kept_frame_memory(session, 0), RET_SUCCESS);
    EXPECT_FALSE(is_kept(0));
    ASSERT_EQ(set_kept_frame_memory(session, 512), RET_SUCCESS);
    fuse(session, {0, 1});
    get_show_data(session);
    Loader loader;
    ASSERT_TRUE(loader.load(session, project_of(session)));
    EXPECT_FALSE(is_kept(0));
    ASSERT_TRUE(session.step(frame(1)));
    EXPECT_TRUE(is_kept(2)) << "behind the two poses of the project";
}

TEST_F(Editing, WhatCannotBeSelectedIsRefusedWithOneLine) {
    const int shown = static_cast<int>(get_show_data(session).get_vn());
    const auto out_of_range = [&](int i) {
        return "index " + std::to_string(i) + " is out of range, " + std::to_string(shown) + " points are shown";
    };
    Cloud none, farAway, uneven;
    farAway.add_vCoord({1e6F, 0, 0});
    uneven.set_vNrvs({Vector3f(0, 0, 1)});
    const int most = std::numeric_limits<int>::max();
    const std::string empty = "no point is selected", noRadius = "radius is not a positive number",
                      noDistance = "distance is not a positive number",
                      lengths = "the cloud's attributes differ in length";
    const std::string before = session.bytes();
    expect_refused(
        session,
        {
            REFUSED(delete_selected_point, empty, {}),
            REFUSED(delete_selected_point, out_of_range(-1), {0, -1}),
            REFUSED(delete_selected_point, out_of_range(shown), {0, shown}),
            REFUSED(delete_point_when_scan, empty, none, 1),
            REFUSED(delete_point_when_scan, "no surface is near the points", farAway, 1),
            REFUSED(delete_point_when_scan, noRadius, around, 0),
            REFUSED(delete_point_when_scan_accord_delete, empty, none),
            REFUSED(delete_point_when_scan_accord_delete, lengths, uneven),
            REFUSED(delete_unStable, "minContributions is not above 1", 1),
            REFUSED(delete_frame_point_new, "no frame is selected", {}),
            REFUSED(delete_frame_point_new, "frame 2147483647 is not kept", {0, most}),
            REFUSED(delete_key_frame, "frame 3 is not kept", 3),
            REFUSED(delete_single_frame_point, empty, 0, {}),
            REFUSED(delete_single_frame_point, "index -1 is out of range, a frame has 20480 points", 0, {5, -1}),
            REFUSED(delete_single_frame_point_tbb, "index 20480 is out of range, a frame has 20480 points", 0, {20480}),
            REFUSED(map_on_frame_delete_point, empty, 0, none, 1),
            REFUSED(map_on_frame_delete_point, noRadius, 0, around, -1),
            REFUSED(map_on_frame_delete_point, "frame 9 is not kept", 9, around, 1),
            REFUSED(map_on_frame_delete_point, "no point of the frame is near the points", 0, farAway, 1),
            REFUSED(fusion_single_frame_filtering_using_tsdf, noDistance, 0, kNaN),
            REFUSED(fusion_single_frame_filtering_using_tsdf, "frame 9 is not kept", 9, 1),
            REFUSED(fusion_nonrigid_delete_points_through_tsdf, "there are no points", none, 1),
            REFUSED(fusion_nonrigid_delete_points_through_tsdf, noDistance, farAway, 0),
            REFUSED(set_kept_frame_memory, "mebibytes is negative", -1),
        });
    EditRecord odd;
    for (const char* name : {"delete_selected_point", "delete_frame_point", "delete_unStable", "set_campar"}) {
        odd.name = name;
        EXPECT_NE(printed([&] { EXPECT_EQ(replay_edit(session, odd), RET_INPUT_ERROR); }), "") << name;
    }
    odd.name = "delete_selected_point";
    odd.datas.points = {{kNaN, 0, 0}, {1, 2, 3}, {1e30F, 1e30F, 0}, {0, 0, 1e30F}};
    EXPECT_EQ(replay_edit(session, odd), RET_SUCCESS) << "places that are none";
    EXPECT_EQ(session.bytes(), before);

    // Repeated indices, a radius beyond everything, and an empty model, in which the next frame is a first one.
    EXPECT_EQ(delete_selected_point(session, std::vector<int>(1000, 7)), RET_SUCCESS);
    EXPECT_EQ(delete_point_when_scan(session, around, 1e30F), RET_SUCCESS);
    EXPECT_EQ(get_show_data(session).get_vn(), 0U);
    EXPECT_EQ(session.mesh().get_fn(), 0U);
    EXPECT_EQ(printed([&] { EXPECT_EQ(delete_unStable(session, 3), RET_STATE_ERROR); }),
              can_not("delete_unStable", "the model is empty"));
    EXPECT_EQ(delete_selected_point(session, {0}), RET_INPUT_ERROR);
    ASSERT_TRUE(session.step(frame(2)));
    EXPECT_EQ(session.state().outcome, FrameOutcome::FirstFrame);
}

}  // namespace
