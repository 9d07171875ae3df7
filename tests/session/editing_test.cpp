// Editing: what is deleted is gone everywhere, what is not stays, and the scan goes on.
#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "fusiontrackoperation/DebugRecordReader.h"
#include "fusiontrackoperation/replayEdit.h"
#include "tests/project/projectScenes.h"
#include "tests/session/sessionScenes.h"

namespace VexelAlgorithm {
namespace {

class Editing : public testing::Test {
protected:
    Editing() {
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(session.step(frame(i)));
        const Cloud& cloud = get_show_data(session);
        Vector3f low, high;
        cloud.get_boundBox(low, high);
        centre = *std::min_element(
            cloud.get_vCoords().begin(), cloud.get_vCoords().end(),
            [&](const Vector3f& a, const Vector3f& b) { return distance(a, low, high) < distance(b, low, high); });
    }
    static float distance(const Vector3f& p, const Vector3f& low, const Vector3f& high) {
        return (p - 0.5F * (low + high)).head<2>().norm();
    }
    bool is_inside(const Vector3f& p, float margin = 0.0F) const { return (p - centre).norm() < radius + margin; }
    std::vector<int> selection() {
        std::vector<int> selected;
        const Cloud& cloud = get_show_data(session);
        for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
            if (is_inside(cloud.get_vCoord(i))) selected.push_back(static_cast<int>(i));
        }
        return selected;
    }
    Cloud around_centre(float spacing) const {
        Cloud cloud;
        for (float x = -radius; x <= radius; x += spacing) {
            for (float y = -radius; y <= radius; y += spacing) {
                for (float z = -radius; z <= radius; z += spacing) {
                    const Vector3f offset(x, y, z);
                    if (offset.norm() <= radius) cloud.add_vCoord(centre + offset);
                }
            }
        }
        return cloud;
    }
    template <class Points>
    std::size_t count_inside(const Points& points, float margin) const {
        return static_cast<std::size_t>(
            std::count_if(points.begin(), points.end(), [&](const Vector3f& p) { return is_inside(p, margin); }));
    }
    /// As bytes, so that equal means the same bits.
    template <class Points>
    std::set<std::array<float, 3>> far_away(const Points& points) const {
        std::set<std::array<float, 3>> far;
        for (const Vector3f& p : points) {
            if (!is_inside(p, 4 * voxel)) far.insert({p.x(), p.y(), p.z()});
        }
        return far;
    }

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
};

TEST_F(Editing, SelectedSurfaceIsGoneEverywhereAndTheScanGoesOn) {
    const std::vector<int> selected = selection();
    ASSERT_GT(selected.size(), 100U);
    Cloud marked = get_show_data(session);
    for (const int i : selected) marked.set_vDeleted(static_cast<std::size_t>(i), true);
    const std::string whole = project_of(session);
    const BaseTriMesh meshBefore = session.mesh();
    const auto shownFar = far_away(marked.get_vCoords()), meshFar = far_away(meshBefore.get_vCoords());
    ASSERT_GT(count_inside(meshBefore.get_vCoords(), -2 * voxel), 100U);
    Session fresh(scan.records);
    Loader loader;

    // By index, by place, by marks in a copy: the same surface in the same way, from the same beginning.
    const std::function<RetVal()> edits[] = {
        [&] { return delete_selected_point(session, selected); },
        [&] { return delete_point_when_scan(session, around_centre(voxel), voxel); },
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
        EXPECT_EQ(count_inside(shown.get_vCoords(), -voxel), 0U);
        EXPECT_EQ(count_inside(mesh.get_vCoords(), -voxel), 0U);
        EXPECT_EQ(far_away(shown.get_vCoords()), shownFar);
        EXPECT_EQ(far_away(mesh.get_vCoords()), meshFar);

        ASSERT_TRUE(loader.load(fresh, project_of(session)));
        EXPECT_EQ(fresh.mesh_bytes(), session.mesh_bytes());
        EXPECT_EQ(count_inside(get_show_data(fresh).get_vCoords(), -voxel), 0U);

        ASSERT_TRUE(session.step(frame(2)));
        EXPECT_LT(session.state().predictionValid, predicted - 100);
        EXPECT_GT(count_inside(get_show_data(session).get_vCoords(), -voxel), 100U) << "it was seen again";
        EXPECT_LT(pose_error(scan.sequence.pose_in_model(2), get_current_rt(session)).x(), 0.5);
    }
    // With a frame before, which guides the prediction.
    ASSERT_TRUE(session.step(frame(2)));
    const int predicted = session.state().predictionValid;
    ASSERT_EQ(delete_point_when_scan(session, around_centre(voxel), voxel), RET_SUCCESS);
    ASSERT_TRUE(session.step(frame(2)));
    EXPECT_LT(session.state().predictionValid, predicted - 100);
}

TEST_F(Editing, UnstableSurfaceIsWhatTheNoiseFilterLeavesOut) {
    ASSERT_EQ(fusion_reset(session), RET_SUCCESS);
    ASSERT_TRUE(session.step(frame(0)));
    int microseconds = 0;
    const std::size_t stable = get_show_data(session).get_vn();
    ASSERT_TRUE(fusion(session, frame(12), scan.sequence.pose_in_model(12), microseconds));
    ASSERT_GT(get_show_data(session).get_vn(), stable + 100U);
    ASSERT_EQ(delete_unStable(session, 3), RET_SUCCESS);
    const std::size_t left = get_show_data(session).get_vn();
    EXPECT_NEAR(static_cast<double>(left), static_cast<double>(stable), 0.02 * static_cast<double>(stable));
    EXPECT_EQ(get_show_data_filter_noise(session).get_vn(), left);
}

TEST_F(Editing, WithoutSurfaceTheNextFrameIsAFirstOne) {
    std::vector<int> all(get_show_data(session).get_vn());
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<int>(i);
    ASSERT_EQ(delete_selected_point(session, all), RET_SUCCESS);
    EXPECT_EQ(get_show_data(session).get_vn(), 0U);
    EXPECT_EQ(session.mesh().get_fn(), 0U);
    ASSERT_TRUE(session.step(frame(2)));
    EXPECT_EQ(session.state().outcome, FrameOutcome::FirstFrame);
}

/// What the used leaves hold, in an order that does not depend on their ids.
struct VolumeContent {
    explicit VolumeContent(void* session) {
        get_show_data(session);
        const std::string bytes = project_of(session);
        const ProjectLayout layout(bytes);
        for (std::size_t i = 0; i < layout.used; ++i) {
            const std::size_t record = layout.records + 40 * i;
            counts.push_back(number_at<std::int32_t>(bytes, record + 4));
            sums.push_back(number_at<float>(bytes, record + 8));
            weights.push_back(number_at<float>(bytes, record + 12));
        }
        std::sort(counts.begin(), counts.end());
        std::sort(sums.begin(), sums.end());
        std::sort(weights.begin(), weights.end());
    }
    void expect_near(const VolumeContent& other) const {
        ASSERT_EQ(counts, other.counts);
        for (std::size_t i = 0; i < sums.size(); ++i) {
            ASSERT_NEAR(sums[i], other.sums[i], 2e-5F);
            ASSERT_NEAR(weights[i], other.weights[i], 1e-5F);
        }
    }
    std::vector<std::int32_t> counts;
    std::vector<float> sums, weights;
};

class FrameEditing : public Editing {
protected:
    /// Fuses frames of the scan at their true poses, the volume being at one place.
    void fuse(void* to, const std::vector<int>& frames) {
        ASSERT_EQ(fusion_reset(to), RET_SUCCESS);
        ASSERT_EQ(set_treeShift(to, {-1024, -1024, -700}), RET_SUCCESS);
        int microseconds = 0;
        for (const int i : frames) {
            ASSERT_TRUE(fusion(to, frame(i), scan.sequence.pose_in_model(i), microseconds));
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
    const std::vector<int> even = every_slot(0, 2), odd = every_slot(1, 2);
    const Cloud everywhere = around_centre(radius);
    const struct {
        std::vector<int> fused;
        std::function<RetVal()> edit;
        std::vector<int> left;
    } cases[] = {
        {{0, far, 2}, [&] { return delete_frame_point(session, 1); }, {0, 2}},
        {{0, 2, far}, [&] { return delete_key_frame(session, 2); }, {0, 2}},
        // The first one was integrated three times.
        {{0, far, far, far, 2}, [&] { return delete_frame_point(session, 0); }, {far, 2}},
        {{0, far, 2, 5},
         [&] {
             return delete_frame_point_new(session, {3, 1, 3});
         },
         {0, 2}},
        {{0, far, 2}, [&] { return map_on_frame_delete_point(session, 1, everywhere, 1e6F); }, {0, 2}},
        {{0, far, 2},
         [&] {
             EXPECT_EQ(delete_single_frame_point(session, 1, even), RET_SUCCESS);
             EXPECT_EQ(printed([&] { delete_single_frame_point(session, 1, even); }),
                       can_not("delete_single_frame_point", "none of the selected points was fused"));
             return delete_single_frame_point_tbb(session, 1, odd);
         },
         {0, 2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        fuse(session, c.fused);
        fuse(other, c.left);
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

TEST_F(FrameEditing, OnlyWhatTheSettingsOfItsTimeAddedIsTakenOut) {
    fuse(session, {0, 12});
    ASSERT_EQ(fusion_set_fusionrange(session, 3), RET_SUCCESS);
    int microseconds = 0;
    ASSERT_TRUE(fusion(session, frame(2), scan.sequence.pose_in_model(2), microseconds));
    ASSERT_EQ(delete_frame_point(session, 1), RET_SUCCESS);
    fuse(other, {0});
    ASSERT_EQ(fusion_set_fusionrange(other, 3), RET_SUCCESS);
    ASSERT_TRUE(fusion(other, frame(2), scan.sequence.pose_in_model(2), microseconds));
    VolumeContent(session).expect_near(VolumeContent(other));
}

TEST_F(FrameEditing, WhatWasDeletedBeforeIsNotSubtractedOnceMore) {
    fuse(session, {0, 1});
    ASSERT_EQ(delete_point_when_scan(session, around_centre(voxel), voxel), RET_SUCCESS);
    int microseconds = 0;
    ASSERT_TRUE(fusion(session, frame(2), scan.sequence.pose_in_model(2), microseconds));
    const auto inside = [&] {
        std::set<std::array<float, 3>> points;
        for (const Vector3f& p : get_show_data(session).get_vCoords()) {
            if (is_inside(p, -4 * voxel)) points.insert({p.x(), p.y(), p.z()});
        }
        return points;
    };
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
    int microseconds = 0;
    ASSERT_TRUE(fusion(session, noisy, scan.sequence.pose_in_model(2), microseconds));
    const std::string before = session.mesh_bytes();
    EXPECT_EQ(fusion_single_frame_filtering_using_tsdf(session, 2, 100.0F), RET_SUCCESS);
    EXPECT_EQ(session.mesh_bytes(), before) << "nothing is as far";
    EXPECT_EQ(fusion_single_frame_filtering_using_tsdf(session, 2, 0.2F * voxel), RET_SUCCESS);
    for (const int slot : outliers) {
        EXPECT_EQ(printed([&] { delete_single_frame_point(session, 2, {slot}); }),
                  can_not("delete_single_frame_point", "none of the selected points was fused"))
            << slot;
    }
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
    fuse(session, {0, 1, 2, 5});
    EXPECT_FALSE(is_kept(1));
    EXPECT_TRUE(is_kept(3));
    ASSERT_EQ(set_kept_frame_memory(session, 512), RET_SUCCESS);
    fuse(session, {0, 1, 2});
    int microseconds = 0;
    ASSERT_TRUE(track(session, frame(2), microseconds));
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

TEST_F(FrameEditing, RecordedEditsAreRepeatedToTheLastBit) {
    const VexelTest::TemporaryFolder folder;
    DataArchiveConfig& config = DataArchiveConfig::global();
    config.set_store_directory(folder.path().string());
    const auto record = [&](bool on) {
        config.set_archive_enabled(on);
        config.set_testbug_enabled(on);
    };
    fuse(session, {0, 1, 2, 12});
    fuse(other, {0, 1, 2, 12});
    printed([&] {
        record(true);
        const std::vector<int> shown = selection();  // display calls are not repeated
        EXPECT_EQ(delete_selected_point(session, {shown.begin(), shown.begin() + 40}), RET_SUCCESS);
        EXPECT_EQ(delete_point_when_scan(session, around_centre(voxel), 0.5F * voxel), RET_SUCCESS);
        EXPECT_EQ(delete_single_frame_point(session, 1, every_slot(0, 3)), RET_SUCCESS);
        EXPECT_EQ(fusion_single_frame_filtering_using_tsdf(session, 1, 0.02F * voxel), RET_SUCCESS);
        EXPECT_EQ(delete_frame_point_new(session, {2, 3}), RET_SUCCESS);
        EXPECT_EQ(delete_unStable(session, 2), RET_SUCCESS);
        EXPECT_EQ(edit_testbug_write(session), RET_SUCCESS);
        record(false);
    });
    std::vector<EditRecord> edits;
    for (const auto& file : std::filesystem::directory_iterator(folder.path())) {
        std::ifstream in(file.path(), std::ios::binary);
        DebugRecordReader reader(in);
        ASSERT_FALSE(reader.read_header());
        for (DebugRecord r; reader.next(r) == DebugRecordReader::Read::Record;) {
            if (const auto* edit = std::get_if<EditRecord>(&r.content)) edits.push_back(*edit);
        }
    }
    ASSERT_EQ(edits.size(), 6U);
    for (const EditRecord& edit : edits) EXPECT_EQ(replay_edit(other, edit), RET_SUCCESS) << edit.name;
    EXPECT_EQ(other.bytes(), session.bytes());

    EditRecord odd;
    for (const char* name : {"delete_selected_point", "delete_frame_point", "delete_unStable", "set_campar"}) {
        odd.name = name;
        EXPECT_NE(printed([&] { EXPECT_EQ(replay_edit(other, odd), RET_INPUT_ERROR); }), "") << name;
    }
    odd.name = "delete_selected_point";
    odd.datas.points = {{kNaN, 0, 0}, {1, 2, 3}, {1e30F, 1e30F, 0}, {0, 0, 1e30F}};
    EXPECT_EQ(replay_edit(other, odd), RET_SUCCESS) << "places that are none";
    EXPECT_EQ(other.bytes(), session.bytes());
}

struct EditCall {
    const char* name;
    std::function<RetVal(void*)> call;
    std::string reason;
    RetVal result = RET_INPUT_ERROR;
};

TEST_F(Editing, WhatCannotBeSelectedIsRefusedWithOneLine) {
    const int shown = static_cast<int>(get_show_data(session).get_vn());
    const auto out_of_range = [&](int i) {
        return "index " + std::to_string(i) + " is out of range, " + std::to_string(shown) + " points are shown";
    };
    Cloud none, farAway, notANumber, uneven;
    farAway.add_vCoord({1e6F, 0, 0});
    notANumber.add_vCoord({kNaN, 0, 0});
    uneven.set_vNrvs({Vector3f(0, 0, 1)});
    const Cloud some = around_centre(voxel);
    const int most = std::numeric_limits<int>::max();
    const char *selected = "delete_selected_point", *near = "delete_point_when_scan",
               *marked = "delete_point_when_scan_accord_delete", *map = "map_on_frame_delete_point",
               *filter = "fusion_single_frame_filtering_using_tsdf",
               *mark = "fusion_nonrigid_delete_points_through_tsdf";
    const std::string empty = "no point is selected", noRadius = "radius is not a positive number",
                      noDistance = "distance is not a positive number";
    const EditCall calls[] = {
        {selected, [&](void* s) { return delete_selected_point(s, {}); }, empty},
        {selected,
         [&](void* s) {
             return delete_selected_point(s, {0, -1});
         },
         out_of_range(-1)},
        {selected,
         [&](void* s) {
             return delete_selected_point(s, {0, shown});
         },
         out_of_range(shown)},
        {selected,
         [&](void* s) {
             return delete_selected_point(s, {most, 1});
         },
         out_of_range(most)},
        {near, [&](void* s) { return delete_point_when_scan(s, none, 1); }, empty},
        {near, [&](void* s) { return delete_point_when_scan(s, notANumber, 1); }, empty},
        {near, [&](void* s) { return delete_point_when_scan(s, farAway, 1); }, "no surface is near the points"},
        {near, [&](void* s) { return delete_point_when_scan(s, some, 0); }, noRadius},
        {near, [&](void* s) { return delete_point_when_scan(s, some, kNaN); }, noRadius},
        {marked, [&](void* s) { return delete_point_when_scan_accord_delete(s, none); }, empty},
        {marked, [&](void* s) { return delete_point_when_scan_accord_delete(s, some); }, empty},
        {marked, [&](void* s) { return delete_point_when_scan_accord_delete(s, uneven); },
         "the cloud's attributes differ in length"},
        {"delete_unStable", [&](void* s) { return delete_unStable(s, 1); }, "minContributions is not above 1"},
        {"delete_frame_point", [&](void* s) { return delete_frame_point(s, -1); }, "frame -1 is not kept"},
        {"delete_frame_point_new", [&](void* s) { return delete_frame_point_new(s, {}); }, "no frame is selected"},
        {"delete_frame_point_new",
         [&](void* s) {
             return delete_frame_point_new(s, {0, most});
         },
         "frame 2147483647 is not kept"},
        {"delete_key_frame", [&](void* s) { return delete_key_frame(s, 3); }, "frame 3 is not kept"},
        {"delete_single_frame_point", [&](void* s) { return delete_single_frame_point(s, 0, {}); }, empty},
        {"delete_single_frame_point",
         [&](void* s) {
             return delete_single_frame_point(s, 0, {5, -1});
         },
         "index -1 is out of range, a frame has 20480 points"},
        {"delete_single_frame_point_tbb", [&](void* s) { return delete_single_frame_point_tbb(s, 0, {20480}); },
         "index 20480 is out of range, a frame has 20480 points"},
        {"delete_single_frame_point_tbb", [&](void* s) { return delete_single_frame_point_tbb(s, 7, {1}); },
         "frame 7 is not kept"},
        {map, [&](void* s) { return map_on_frame_delete_point(s, 0, none, 1); }, empty},
        {map, [&](void* s) { return map_on_frame_delete_point(s, 0, some, -1); }, noRadius},
        {map, [&](void* s) { return map_on_frame_delete_point(s, 9, some, 1); }, "frame 9 is not kept"},
        {map, [&](void* s) { return map_on_frame_delete_point(s, 0, farAway, 1); },
         "no point of the frame is near the points"},
        {filter, [&](void* s) { return fusion_single_frame_filtering_using_tsdf(s, 0, kNaN); }, noDistance},
        {filter, [&](void* s) { return fusion_single_frame_filtering_using_tsdf(s, 9, 1); }, "frame 9 is not kept"},
        {mark, [&](void* s) { return fusion_nonrigid_delete_points_through_tsdf(s, none, 1); }, "there are no points"},
        {mark, [&](void* s) { return fusion_nonrigid_delete_points_through_tsdf(s, farAway, 0); }, noDistance},
        {"fusion_nonrigid_gpu_delete_points_through_tsdf",
         [&](void* s) { return fusion_nonrigid_gpu_delete_points_through_tsdf(s, uneven, 1); },
         "the cloud's attributes differ in length"},
        {"set_kept_frame_memory", [&](void* s) { return set_kept_frame_memory(s, -1); }, "mebibytes is negative"},
    };
    const std::string before = session.bytes();
    for (const EditCall& c : calls) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(printed([&] { EXPECT_EQ(c.call(session), c.result); }), can_not(c.name, c.reason));
        EXPECT_EQ(printed([&] { EXPECT_EQ(c.call(nullptr), RET_INI_ERROR); }), can_not(c.name, "pFusionTrack = NULL"));
    }
    EXPECT_EQ(session.bytes(), before);

    // Repeated indices, a radius beyond everything, and an empty model.
    EXPECT_EQ(delete_selected_point(session, std::vector<int>(1000, 7)), RET_SUCCESS);
    EXPECT_EQ(delete_point_when_scan(session, some, 1e30F), RET_SUCCESS);
    EXPECT_EQ(get_show_data(session).get_vn(), 0U);
    EXPECT_EQ(printed([&] { EXPECT_EQ(delete_unStable(session, 3), RET_STATE_ERROR); }),
              can_not("delete_unStable", "the model is empty"));
    EXPECT_EQ(delete_selected_point(session, {0}), RET_INPUT_ERROR);
}

}  // namespace
}  // namespace VexelAlgorithm
