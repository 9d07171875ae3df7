// vexel-scan track: virtual scans come back as trajectory, mesh, pictures and report, also after Ctrl-C.
#include <nlohmann/json.hpp>

#include "ToolTest.h"
#include "recording/trajectoryText.h"

namespace VexelTest {
namespace {

using namespace VexelAlgorithm;
using nlohmann::json;

class TrackTool : public ToolTest {
protected:
    /// A scan at a quarter of the resolution, and settings for it.
    void simulate(const std::string& sequence, int frames) const {
        run_well("simulate --sequence " + sequence + " --noise --width 160 --height 128 --frames " +
                 std::to_string(frames) + " @/scan");
        put_bytes(path("coarse.yml"), "fusion:\n   pointDis: 2\ncommon:\n   rawPointDis: 1.6\n");
    }
    json report(const std::string& out) const { return json::parse(bytes_of(path(out) / "report.json")); }
    std::vector<TimedPose> trajectory() const {
        const Outcome<std::vector<TimedPose>> read = read_trajectory(path("out/trajectory.txt"));
        EXPECT_TRUE(read) << read.failure().reason;
        return read ? *read : std::vector<TimedPose>{};
    }

    const std::string call = "track @/scan --preset object --settings @/coarse.yml --out @/out ";
};

TEST_F(TrackTool, FindsTheTrajectoryOfAVirtualScan) {
    simulate("smooth", 24);
    const ToolRun tracked = run_well(call + "--threads 1 --truth --truth-range 5:12 --dump-settings @/used.yml");
    for (const char* file : {"out/mesh.ply", "out/preview.png", "out/plot.png", "out/report.txt"})
        EXPECT_TRUE(exists(file)) << file;
    const json found = report("out");
    EXPECT_EQ(found["input"]["frames_tracked"], 24);
    EXPECT_EQ(found["frames"][0]["outcome"], "first frame");
    EXPECT_EQ(found["frames"][23]["outcome"], "fused");
    EXPECT_GT(found["mesh"]["triangles"], 3000);
    const json& ranges = found["comparison"]["ranges"];
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[1]["frames"], 8);
    const json& errors = ranges[0]["absolute_first_pose_equal"];
    EXPECT_LT(errors["translation_mm"]["rmse"], 0.5);
    EXPECT_LT(errors["rotation_degrees"]["rmse"], 0.1);
    EXPECT_LE(ranges[0]["absolute_best_alignment"]["translation_mm"]["rmse"], errors["translation_mm"]["rmse"]);
    EXPECT_TRUE(holds(tracked.output, "24 of 24 tracked (100.0 %)")) << tracked.output;
    const std::vector<TimedPose> poses = trajectory();
    ASSERT_EQ(poses.size(), 24u);
    EXPECT_NEAR(poses.back().time, 23.0 / 30.0, 1e-6);
    EXPECT_GT((poses.back().cameraToWorld.get_translation()).norm(), 30.0);

    // The settings that were used replace every one of another preset; the trajectory serves as truth.
    run_well("track @/scan --preset room --settings @/used.yml --dump-settings @/again.yml --out @/again --threads 1 " +
             std::string("--truth-file @/out/trajectory.txt"));
    EXPECT_EQ(bytes_of(path("again/mesh.ply")), bytes_of(path("out/mesh.ply"))) << "one thread repeats";
    EXPECT_LT(report("again")["comparison"]["ranges"][0]["absolute_first_pose_equal"]["translation_mm"]["max"], 1e-3);
    const std::string used = bytes_of(path("used.yml")), again = bytes_of(path("again.yml"));
    EXPECT_TRUE(holds(used, "imageSize: [ 160, 128 ]") && holds(used, "pointDis: 2\n")) << used;
    EXPECT_EQ(again.substr(again.find("\n\n")), used.substr(used.find("\n\n")));
    EXPECT_TRUE(holds(run_well("settings --preset object").output, "# edge of a voxel"));
}

TEST_F(TrackTool, GoesOnAfterLostFramesAndWithoutRecordedPoses) {
    simulate("black_out", 30);
    std::filesystem::remove(path("scan/frame-000007.pose.txt"));
    run_well(call + "--truth");
    const json found = report("out");
    EXPECT_EQ(found["input"]["frames_seen"], 30);
    EXPECT_EQ(found["input"]["frames_tracked"], 20);
    EXPECT_EQ(found["frames"][15]["outcome"], "too few points");
    EXPECT_EQ(found["frames"][29]["outcome"], "fused");
    EXPECT_EQ(found["comparison"]["ranges"][0]["compared"], 19);
    EXPECT_LT(found["comparison"]["ranges"][0]["absolute_first_pose_equal"]["translation_mm"]["max"], 1.5);
    EXPECT_TRUE(exists("out/mesh.ply"));
    EXPECT_EQ(trajectory().size(), 20u);
}

#if !defined(_WIN32)
TEST_F(TrackTool, KeepsWhatIsDoneWhenInterrupted) {
    simulate("smooth", 120);
    for (const auto& [arguments, word] :
         {std::pair{call, "tracking"}, {"fuse @/scan --voxel 4 --min-weight 1 --out @/out", "fusing"}}) {
        const ToolRun result = run_interrupted(arguments, word);
        ASSERT_EQ(result.exitCode, 130) << result.output;
        EXPECT_TRUE(holds(result.output, "interrupted: writing what the first ")) << result.output;
        EXPECT_EQ(report("out")["input"]["interrupted"], true);
        EXPECT_TRUE(std::filesystem::remove(path("out/mesh.ply")));
    }
}
#endif

}  // namespace
}  // namespace VexelTest
