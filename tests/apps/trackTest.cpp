// vexel-scan track as a process: virtual scans come back as trajectory, mesh, pictures and report.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ToolTest.h"
#include "recording/trajectoryText.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using nlohmann::json;
using VexelTest::bytes_of;
using VexelTest::put_bytes;
using VexelTest::quoted;
using VexelTest::ToolRun;

class TrackTool : public VexelTest::ToolTest {
protected:
    /// A scan at a quarter of the resolution, for which the settings file is made.
    fs::path recording(const std::string& sequence, int frames, const std::string& more = "") const {
        const fs::path folder = path(sequence);
        const ToolRun made = run("simulate --sequence " + sequence + " --noise --width 160 --height 128 --frames " +
                                 std::to_string(frames) + ' ' + more + ' ' + quoted(folder));
        EXPECT_EQ(made.exitCode, 0) << made.errors;
        put_bytes(path("coarse.yml"), "fusion:\n   pointDis: 2\ncommon:\n   rawPointDis: 1.6\n");
        return folder;
    }

    std::string track_call(const fs::path& recording, const std::string& out) const {
        return "track " + quoted(recording) + " --preset object --settings " + quoted(path("coarse.yml")) + " --out " +
               quoted(path(out)) + ' ';
    }

    json report(const std::string& out) const { return json::parse(bytes_of(path(out) / "report.json")); }
};

TEST_F(TrackTool, FindsTheTrajectoryOfAVirtualScan) {
    const std::string call = track_call(recording("smooth", 24), "out") + "--threads 1 --truth --truth-range 5:12";
    const ToolRun tracked = run(call);
    ASSERT_EQ(tracked.exitCode, 0) << tracked.errors;
    EXPECT_EQ(tracked.errors, "");
    for (const char* file : {"mesh.ply", "preview.png", "plot.png", "trajectory.txt", "report.txt", "report.json"}) {
        EXPECT_TRUE(fs::exists(path("out") / file)) << file;
    }
    const json found = report("out");
    EXPECT_EQ(found["input"]["frames_tracked"], 24);
    EXPECT_EQ(found["frames"][0]["outcome"], "first frame");
    EXPECT_EQ(found["frames"][23]["outcome"], "fused");
    EXPECT_GT(found["mesh"]["triangles"], 3000);
    const json& ranges = found["comparison"]["ranges"];
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_EQ(ranges[1]["frames"], 8);
    EXPECT_LT(ranges[0]["absolute_first_pose_equal"]["translation_mm"]["rmse"], 0.5);
    EXPECT_LT(ranges[0]["absolute_first_pose_equal"]["rotation_degrees"]["rmse"], 0.1);
    EXPECT_LE(ranges[0]["absolute_best_alignment"]["translation_mm"]["rmse"],
              ranges[0]["absolute_first_pose_equal"]["translation_mm"]["rmse"]);
    EXPECT_NE(tracked.output.find("24 of 24 tracked (100.0 %)"), std::string::npos) << tracked.output;

    const Outcome<std::vector<TimedPose>> trajectory = read_trajectory(path("out") / "trajectory.txt");
    ASSERT_TRUE(trajectory) << trajectory.failure().reason;
    ASSERT_EQ(trajectory->size(), 24u);
    EXPECT_NEAR(trajectory->back().time, 23.0 / 30.0, 1e-6);
    EXPECT_GT((trajectory->back().cameraToWorld.get_translation()).norm(), 30.0);

    const ToolRun again =
        run(track_call(path("smooth"), "again") + "--threads 1 --truth-file " + quoted(path("out") / "trajectory.txt"));
    ASSERT_EQ(again.exitCode, 0) << again.errors;
    EXPECT_EQ(bytes_of(path("again") / "mesh.ply"), bytes_of(path("out") / "mesh.ply")) << "one thread repeats";
    EXPECT_LT(report("again")["comparison"]["ranges"][0]["absolute_first_pose_equal"]["translation_mm"]["max"], 1e-3);
}

TEST_F(TrackTool, GoesOnAfterLostFramesAndStillWritesTheMesh) {
    const ToolRun tracked = run(track_call(recording("black_out", 30), "out") + "--truth");
    ASSERT_EQ(tracked.exitCode, 0) << tracked.errors;
    const json found = report("out");
    EXPECT_EQ(found["input"]["frames_seen"], 30);
    EXPECT_EQ(found["input"]["frames_tracked"], 20);
    EXPECT_EQ(found["frames"][15]["outcome"], "too few points");
    EXPECT_EQ(found["frames"][29]["outcome"], "fused");
    EXPECT_LT(found["comparison"]["ranges"][0]["absolute_first_pose_equal"]["translation_mm"]["max"], 1.5);
    EXPECT_TRUE(fs::exists(path("out") / "mesh.ply"));
    const Outcome<std::vector<TimedPose>> trajectory = read_trajectory(path("out") / "trajectory.txt");
    ASSERT_TRUE(trajectory);
    EXPECT_EQ(trajectory->size(), 20u);

    // Lost frames have a ground of their own in the plot.
    const cv::Mat plot = cv::imread((path("out") / "plot.png").string());
    ASSERT_EQ(plot.cols, 1400);
    int reddish = 0;
    for (int x = 0; x < plot.cols; ++x) {
        const cv::Vec3b colour = plot.at<cv::Vec3b>(110, x);
        reddish += colour[2] > 250 && colour[0] < 220 ? 1 : 0;
    }
    EXPECT_GT(reddish, 1400 / 4);
    EXPECT_LT(reddish, 1400 / 2);
}

TEST_F(TrackTool, DumpsTheSettingsItUsedAndTakesThemBack) {
    const fs::path folder = recording("still", 2);
    ASSERT_EQ(run(track_call(folder, "a") + "--threads 1 --dump-settings " + quoted(path("used.yml"))).exitCode, 0);
    const std::string used = bytes_of(path("used.yml"));
    EXPECT_NE(used.find("imageSize: [ 160, 128 ]"), std::string::npos) << used;
    EXPECT_NE(used.find("pointDis: 2\n"), std::string::npos) << used;
    const ToolRun again = run("track " + quoted(folder) + " --preset room --settings " + quoted(path("used.yml")) +
                              " --out " + quoted(path("a")) + " --dump-settings " + quoted(path("again.yml")));
    ASSERT_EQ(again.exitCode, 0) << again.errors;
    const std::string text = bytes_of(path("again.yml"));
    EXPECT_EQ(text.substr(text.find("\n\n")), used.substr(used.find("\n\n")));
    const ToolRun printed = run("settings --preset object");
    EXPECT_EQ(printed.exitCode, 0);
    EXPECT_NE(printed.output.find("# edge of a voxel"), std::string::npos);
}

TEST_F(TrackTool, SaysInOneSentenceWhatIsWrong) {
    const fs::path still = recording("still", 2);
    fs::copy(still, path("poseless"));
    for (const char* name : {"frame-000000.pose.txt", "frame-000001.pose.txt"}) fs::remove(path("poseless") / name);
    put_bytes(path("file"), "precious");
    put_bytes(path("late.txt"), "1000 0 0 0 0 0 0 1\n");
    const auto settings = [&](const char* name, const char* text) { put_bytes(path(name), text); };
    settings("unknown.yml", "fusion:\n   voxel: 2\n");
    settings("range.yml", "track:\n   icpDis: [ 2, 1 ]\n");
    settings("size.yml", "common:\n   imageSize: [ 320, 240 ]\n");
    settings("tiny.yml", "fusion:\n   pointDis: 0.005\n");
    settings("broken.yml", "fusion: [[\n");
    const struct {
        const char* arguments;  // @ stands for the test's folder
        int exitCode;
        const char* message;
    } cases[] = {
        {"track @/still", 2, "--out is required"},
        {"track @/still --out @/out --preset hall", 2, "--preset"},
        {"track @/still --out @/out --truth-range 7", 2, "no range of frames"},
        {"track @/still --out @/out --truth-range 7:3", 2, "no range of frames"},
        {"track @/still --out @/out --truth-range nan:3", 2, "no range of frames"},
        {"track @/still --out @/out --rate 0", 2, "--rate"},
        {"track @/nothing --out @/out", 1, "there is no recording folder"},
        {"track @/still --out @/file", 1, "is a file"},
        {"track @/still --out @/out --settings @/none.yml", 1, "none.yml cannot be opened"},
        {"track @/still --out @/out --settings @/unknown.yml", 1, "section fusion has no field 'voxel'"},
        {"track @/still --out @/out --settings @/range.yml", 1, "track.icpDis(1): 1 is smaller than"},
        {"track @/still --out @/out --settings @/size.yml", 1, "common.imageSize is 320 x 240"},
        {"track @/still --out @/out --settings @/tiny.yml", 1, "take a larger fusion.pointDis"},
        {"track @/still --out @/out --settings @/broken.yml", 1, "broken.yml is not usable: line"},
        {"track @/poseless --out @/out --truth", 1, "holds no poses to compare with"},
        {"track @/still --out @/out --truth-file @/late.txt", 1, "has no pose at the times of the frames"},
        {"track @/still --out @/out --truth-file @/file", 1, "is not usable: line 1"},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.arguments);
        std::string arguments = bad.arguments;
        for (std::size_t at = arguments.find('@'); at != std::string::npos; at = arguments.find('@')) {
            arguments.replace(at, 1, path("").parent_path().string());
        }
        const ToolRun result = run(arguments);
        EXPECT_EQ(result.exitCode, bad.exitCode);
        EXPECT_NE(result.errors.find(bad.message), std::string::npos) << result.errors;
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
        EXPECT_FALSE(fs::exists(path("out") / "mesh.ply"));
    }
    EXPECT_EQ(bytes_of(path("file")), "precious");
    EXPECT_EQ(run(track_call(path("poseless"), "out")).exitCode, 0) << "poses are not needed";
}

TEST_F(TrackTool, ReportsWhyNothingWasAccepted) {
    const fs::path folder = recording("still", 1);
    put_bytes(path("coarse.yml"), "frame:\n   farthest: 101\n");
    const ToolRun result = run(track_call(folder, "out"));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.errors.find("no frame was accepted; frame 0: too few points"), std::string::npos) << result.errors;
    EXPECT_EQ(report("out")["frames"][0]["accepted"], false);
}

#if !defined(_WIN32)
TEST_F(TrackTool, KeepsWhatIsDoneWhenInterrupted) {
    const fs::path folder = recording("smooth", 120);
    const ToolRun result = run_interrupted(track_call(folder, "out"), "tracking");
    ASSERT_EQ(result.exitCode, 130) << result.output;
    EXPECT_NE(result.output.find("interrupted: writing what the first "), std::string::npos) << result.output;
    EXPECT_EQ(report("out")["input"]["interrupted"], true);
    EXPECT_TRUE(fs::exists(path("out") / "mesh.ply"));
}
#endif

}  // namespace
