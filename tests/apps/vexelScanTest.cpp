// The tool as a process: exit codes, files, the same bytes twice, one clear line for each failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <opencv2/imgcodecs.hpp>

#include "ToolTest.h"
#include "foundation/PointImage.h"
#include "recording/Recording.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using VexelTest::bytes_of;
using VexelTest::put_bytes;
using VexelTest::quoted;
using VexelTest::ToolRun;

class VexelScan : public VexelTest::ToolTest {
protected:
    /// Frames of a ball in front of a wall, seen from a camera that moves sideways.
    fs::path ball_recording(int frames) const {
        const fs::path folder = path("ball");
        const CameraInParam camera(150.0, 150.0, 79.5, 59.5);
        Outcome<RecordingWriter> writer = RecordingWriter::create(folder, camera);
        for (int i = 0; writer && i < frames; ++i) {
            RigidMatrix pose;
            pose.set_translation({20.0 * i, 0.0, 0.0});
            EXPECT_TRUE(writer->write_frame(3 * i, ball_depth(camera, pose), pose));
        }
        return folder;
    }

private:
    static DepthImage ball_depth(const CameraInParam& camera, const RigidMatrix& pose) {
        const Vector3d centre = pose.inverse() * Vector3d(40.0, 0.0, 700.0);
        const double radius = 150.0;
        DepthImage image{160, 120, {}};
        for (int y = 0; y < image.height; ++y) {
            for (int x = 0; x < image.width; ++x) {
                const Vector3d ray((x - camera.get_cx()) / camera.get_fx(), (y - camera.get_cy()) / camera.get_fy(),
                                   1.0);
                const double along = ray.dot(centre);
                const double rest = along * along - ray.squaredNorm() * (centre.squaredNorm() - radius * radius);
                const double depth = rest > 0.0 ? (along - std::sqrt(rest)) / ray.squaredNorm() : 1000.0;
                image.millimetres.push_back(std::round(static_cast<float>(depth)));
            }
        }
        return image;
    }
};

std::string without_this_run(const std::string& report) {
    return report.substr(0, report.find("This run"));
}
std::string without_timing(const std::string& json) {
    return json.substr(0, json.find("\"timing\""));
}

TEST_F(VexelScan, FusesARecordingToTheSameBytesTwice) {
    const fs::path recording = ball_recording(6);
    const std::string call = "fuse " + quoted(recording) + " --voxel 8 --threads 1 --min-weight 1 --out ";
    const ToolRun first = run(call + quoted(path("a")));
    ASSERT_EQ(first.exitCode, 0) << first.errors;
    EXPECT_EQ(first.errors, "");
    const ToolRun second = run(call + quoted(path("b") / "deeper"));
    ASSERT_EQ(second.exitCode, 0) << second.errors;

    EXPECT_EQ(bytes_of(path("a") / "mesh.ply"), bytes_of(path("b") / "deeper" / "mesh.ply"));
    const std::string json = bytes_of(path("a") / "report.json");
    const std::string text = bytes_of(path("a") / "report.txt");
    EXPECT_EQ(without_timing(json), without_timing(bytes_of(path("b") / "deeper" / "report.json")));
    EXPECT_EQ(without_this_run(text), without_this_run(bytes_of(path("b") / "deeper" / "report.txt")));
    EXPECT_LT(without_timing(json).size(), json.size());
    EXPECT_NE(json.find("\"frames_fused\": 6"), std::string::npos) << json;
    EXPECT_NE(json.find("\"points_outside_volume\": 0"), std::string::npos) << json;
    EXPECT_NE(text.find("integrate"), std::string::npos) << text;

    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(path("a"))) files += entry.is_regular_file() ? 1 : 0;
    EXPECT_EQ(files, 4u) << "only mesh, preview and the two reports remain";
    const cv::Mat preview = cv::imread((path("a") / "preview.png").string());
    ASSERT_FALSE(preview.empty());
    EXPECT_GT(preview.cols, 2 * preview.rows) << "several views side by side";
}

TEST_F(VexelScan, ChoosesFramesAndFormats) {
    const fs::path recording = ball_recording(6);
    const ToolRun four =
        run("fuse " + quoted(recording) + " --first 3 --last 12 --step 3 --voxel 8 --min-weight 1 --format obj --out " +
            quoted(path("out")));
    ASSERT_EQ(four.exitCode, 0) << four.errors;
    EXPECT_TRUE(fs::exists(path("out") / "mesh.obj"));
    EXPECT_NE(bytes_of(path("out") / "report.json").find("\"frames_selected\": 4"), std::string::npos);
    EXPECT_NE(four.output.find("4 of 4 frames"), std::string::npos) << "plain progress lines: " << four.output;
    EXPECT_EQ(four.output.find('\r'), std::string::npos);

    const ToolRun narrow =
        run("fuse " + quoted(recording) + " --depth 10 --voxel 0.8 --range 5 --last 0 --min-weight 0 --out " +
            quoted(path("narrow")));
    ASSERT_EQ(narrow.exitCode, 0) << narrow.errors;
    const std::string json = bytes_of(path("narrow") / "report.json");
    EXPECT_EQ(json.find("\"points_outside_volume\": 0"), std::string::npos)
        << "the wall is wider than 819 mm: " << json;

    const ToolRun info = run("info " + quoted(recording));
    EXPECT_EQ(info.exitCode, 0);
    EXPECT_NE(info.output.find("numbers 0 .. 15"), std::string::npos) << info.output;
}

TEST_F(VexelScan, SimulatesARecordingThatFuses) {
    const std::string call = "simulate --frames 3 --width 120 --height 90 --noise --seed 7 ";
    ASSERT_EQ(run(call + quoted(path("sim"))).exitCode, 0);
    ASSERT_EQ(run(call + quoted(path("again"))).exitCode, 0);
    const char* file = "frame-000002.depth.png";
    EXPECT_EQ(bytes_of(path("sim") / file), bytes_of(path("again") / file));
    const ToolRun fused = run("fuse " + quoted(path("sim")) + " --voxel 4 --min-weight 1 --out " + quoted(path("out")));
    EXPECT_EQ(fused.exitCode, 0) << fused.errors;
    const std::string walk = "simulate --sequence smooth --noise --width 120 --height 90 --frames ";
    const ToolRun handHeld = run(walk + "2 " + quoted(path("walk")));
    ASSERT_EQ(handHeld.exitCode, 0) << handHeld.errors;
    EXPECT_NE(handHeld.output.find("degrees a frame"), std::string::npos) << handHeld.output;
    EXPECT_EQ(bytes_of(path("walk") / "depth-step.txt"), "0.01\n");
    EXPECT_EQ(run("fuse " + quoted(path("walk")) + " --voxel 4 --min-weight 1 --out " + quoted(path("out"))).exitCode,
              0);
    put_bytes(path("wedge.obj"), "v 0 0 0\nv .1 0 0\nv 0 .1 0\nv 0 0 .12\nf 1 3 2\nf 1 2 4\nf 2 3 4\nf 3 1 4\n");
    const std::string mesh = "simulate --frames 2 --width 160 --height 128 --mesh " + quoted(path("wedge.obj"));
    const ToolRun placed = run(mesh + " --mesh-unit m --on-table " + quoted(path("wedge")));
    EXPECT_EQ(placed.exitCode, 0) << placed.errors;
    EXPECT_NE(placed.output.find("4 triangles, 100.0 x 100.0 x 120.0 mm"), std::string::npos) << placed.output;
    EXPECT_EQ(run("fuse " + quoted(path("wedge")) + " --voxel 4 --min-weight 1 --out " + quoted(path("out"))).exitCode,
              0);
    EXPECT_EQ(run(mesh + " --stereo " + quoted(path("wedge-pairs"))).exitCode, 0);
    const ToolRun refused = run(call + quoted(path("sim")));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.errors.find("holds a recording already"), std::string::npos) << refused.errors;
}

TEST_F(VexelScan, MeasuresTheAccuracyOfTheVirtualRig) {
    const std::string call = "accuracy --width 320 --height 256 --distance 400 --window 9 --seed 3 --csv ";
    const ToolRun measured = run(call + quoted(path("one.csv")) + " --out " + quoted(path("maps")));
    ASSERT_EQ(measured.exitCode, 0) << measured.errors;
    ASSERT_EQ(run(call + quoted(path("two.csv"))).exitCode, 0);
    EXPECT_EQ(bytes_of(path("one.csv")), bytes_of(path("two.csv"))) << "reproducible from the seed";
    for (const char* map : {"sphere.png", "ball-bar.png", "plane.png"})
        EXPECT_FALSE(cv::imread((path("maps") / map).string()).empty()) << map;
    // A quarter of the pixels across: a pixel of parallax is worth 2.9 mm there.
    const std::map<std::string, double> limits{{"PF", 6.0}, {"PS", 2.0}, {"SD", 0.5}, {"F", 2.0}};
    for (const auto& [name, limit] : limits) {
        const std::size_t line = measured.output.find("\n" + name + ' ');
        ASSERT_NE(line, std::string::npos) << measured.output;
        const std::size_t end = measured.output.find(" mm\n", line);
        const double value = std::stod(measured.output.substr(measured.output.rfind("  ", end)));
        EXPECT_GT(std::abs(value), 1e-4) << name;
        EXPECT_LT(std::abs(value), limit) << name;
    }
}

struct BadCall {
    const char* arguments;  // @ stands for the test's folder
    int exitCode;
    const char* message;
};

const BadCall badCalls[] = {
    {"frobnicate", 2, "frobnicate"},
    {"fuse @/ball", 2, "--out is required"},
    {"fuse @/ball --out @/out --voxel 0", 2, "--voxel"},
    {"fuse @/ball --out @/out --voxel -5", 2, "--voxel"},
    {"fuse @/ball --out @/out --voxel nan", 2, "--voxel"},
    {"fuse @/ball --out @/out --voxel 1e30", 2, "--voxel"},
    {"fuse @/ball --out @/out --step 0", 2, "--step"},
    {"fuse @/ball --out @/out --threads -1", 2, "--threads"},
    {"fuse @/ball --out @/out --threads 99999999999999999999", 2, "--threads"},
    {"fuse @/ball --out @/out --depth 99", 2, "--depth"},
    {"fuse @/ball --out @/out --range 2.5", 2, "--range"},
    {"fuse @/ball --out @/out --min-weight inf", 2, "--min-weight"},
    {"fuse @/ball --out @/out --format docx", 2, "--format"},
    {"fuse @/ball --out @/out --first 100", 1, "no frame in the chosen range"},
    {"fuse @/ball --out @/out --first 9 --last 3", 1, "no frame in the chosen range"},
    {"fuse @/ball --out @/out --min-weight 1000", 1, "no surface came out"},
    {"fuse @/ball --out @/out --voxel 0.01", 1, "take a larger --voxel"},
    {"fuse @/ball --out @/file", 1, "is a file"},
    {"fuse @/ball --out @/file/below", 1, "cannot be made"},
    {"fuse @/nothing --out @/out", 1, "there is no recording folder"},
    {"fuse @/file --out @/out", 1, "is not a folder"},
    {"fuse @/half --out @/out", 1, "frame-000003.depth.png"},
    {"fuse @/black --out @/out", 1, "no usable depth"},
    {"info @/half", 1, "frame-000003.depth.png"},
    {"simulate @/file", 1, "is a file"},
    {"simulate @/sim --frames 0", 2, "--frames"},
    {"simulate @/sim --scene cathedral", 2, "--scene"},
    {"simulate @/sim --sequence earthquake", 2, "--sequence"},
    {"simulate @/sim --sequence smooth --scene owl", 2, "--sequence"},
    {"simulate @/sim --depth-step 0", 2, "--depth-step"},
    {"accuracy --distance 100", 2, "--distance"},
    {"accuracy --window 8", 2, "--window"},
    {"accuracy --leave-out -1", 2, "--leave-out"},
    {"accuracy --out @/file", 1, "is a file"},
    {"simulate @/sim --mesh @/nothing.ply", 1, "nothing.ply"},
    {"simulate @/sim --mesh @/file", 1, "is no mesh file"},
    {"simulate @/sim --mesh @/dust.obj", 1, "lie in one point"},
    {"simulate @/sim --mesh @/needle.obj", 1, "has an area"},
    {"simulate @/sim --mesh @/needle.obj --mesh-unit m", 1, "--mesh-size"},
    {"simulate @/sim --mesh @/dust.obj --mesh-up w", 2, "--mesh-up"},
    {"simulate @/sim --on-table", 2, "--mesh"},
};

TEST_F(VexelScan, SaysInOneSentenceWhatIsWrong) {
    const fs::path ball = ball_recording(2);
    put_bytes(path("file"), "precious");
    put_bytes(path("dust.obj"), "v 1 1 1\nf 1 1 1\n");
    put_bytes(path("needle.obj"), "v 0 0 0\nv 0 0 5\nv 0 0 9\nf 1 2 3\n");
    fs::copy(ball, path("half"));
    fs::resize_file(path("half") / "frame-000003.depth.png", 100);
    fs::copy(ball, path("black"));
    for (const char* name : {"frame-000000.depth.png", "frame-000003.depth.png"}) {
        cv::imwrite((path("black") / name).string(), cv::Mat(120, 160, CV_16UC1, cv::Scalar(0)));
    }
    for (const BadCall& call : badCalls) {
        SCOPED_TRACE(call.arguments);
        std::string arguments = call.arguments;
        for (std::size_t at = arguments.find('@'); at != std::string::npos; at = arguments.find('@')) {
            arguments.replace(at, 1, path("").parent_path().string());
        }
        const ToolRun result = run(arguments);
        EXPECT_EQ(result.exitCode, call.exitCode);
        EXPECT_NE(result.errors.find(call.message), std::string::npos) << result.errors;
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
        EXPECT_FALSE(fs::exists(path("out") / "mesh.ply"));
    }
    EXPECT_EQ(bytes_of(path("file")), "precious");
}

#if !defined(_WIN32)
TEST_F(VexelScan, WritesWhatIsFusedWhenInterrupted) {
    const fs::path recording = ball_recording(300);
    const ToolRun result = run_interrupted(
        "fuse " + quoted(recording) + " --voxel 8 --min-weight 1 --out " + quoted(path("out")), "fusing");
    ASSERT_EQ(result.exitCode, 130) << result.errors;
    EXPECT_NE(result.output.find("interrupted: writing what the first "), std::string::npos) << result.output;
    EXPECT_NE(bytes_of(path("out") / "report.json").find("\"interrupted\": true"), std::string::npos);
    EXPECT_TRUE(fs::exists(path("out") / "mesh.ply"));
}
#endif

TEST_F(VexelScan, FusesTheRealRecording) {
    const char* recordings = std::getenv("VEXEL_RECORDINGS");
    if (recordings == nullptr) GTEST_SKIP() << "VEXEL_RECORDINGS names no folder of recordings";
    const fs::path office = fs::path(recordings) / "office_depth";
    const ToolRun result = run("fuse " + quoted(office) + " --step 60 --min-weight 1 --out " + quoted(path("out")));
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    const std::string json = bytes_of(path("out") / "report.json");
    EXPECT_NE(json.find("\"frames_fused\": 5"), std::string::npos) << json;
    EXPECT_NE(json.find("\"points_outside_volume\": 0"), std::string::npos) << json;
    EXPECT_GT(fs::file_size(path("out") / "mesh.ply"), 1000000u);
}

}  // namespace
