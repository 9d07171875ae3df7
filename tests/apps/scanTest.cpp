// vexel-scan scan and check-calibration as processes: pairs of the virtual scanner, broken calibrations, real pairs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ToolTest.h"
#include "recording/StereoRecording.h"
#include "recording/trajectoryText.h"
#include "simulation/scenes.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using nlohmann::json;
using VexelTest::bytes_of;
using VexelTest::put_bytes;
using VexelTest::quoted;
using VexelTest::ToolRun;

/// Points and normals of a binary PLY file with nothing else.
struct FramePoints {
    std::vector<Vector3f> points, normals;
};
FramePoints read_ply(const fs::path& file) {
    const std::string bytes = bytes_of(file);
    const std::size_t end = bytes.find("end_header\n"), count = bytes.find("element vertex ");
    FramePoints frame;
    if (end == std::string::npos || bytes.find("binary_little_endian") == std::string::npos) return frame;
    const char* data = bytes.data() + end + 11;
    for (int i = std::atoi(bytes.c_str() + count + 15); i > 0; --i, data += 24) {
        float values[6];
        std::memcpy(values, data, sizeof values);
        frame.points.emplace_back(values[0], values[1], values[2]);
        frame.normals.emplace_back(values[3], values[4], values[5]);
    }
    return frame;
}

class ScanTool : public VexelTest::ToolTest {
protected:
    fs::path recording(const std::string& name, int frames) const {
        const fs::path folder = path(name);
        const ToolRun made = run("simulate --stereo --noise --width 320 --height 256 --frames " +
                                 std::to_string(frames) + ' ' + quoted(folder));
        EXPECT_EQ(made.exitCode, 0) << made.errors;
        put_bytes(path("coarse.yml"),
                  "fusion:\n   pointDis: 2\ncommon:\n   rawPointDis: 1.6\nrig:\n   subPixMatchWin: [ 7, 7 ]\n");
        return folder;
    }
    std::string scan_call(const fs::path& recording, const std::string& out) const {
        return "scan " + quoted(recording) + " --settings " + quoted(path("coarse.yml")) + " --out " +
               quoted(path(out)) + ' ';
    }
    json report(const std::string& out) const { return json::parse(bytes_of(path(out) / "report.json")); }
};

TEST_F(ScanTool, WritesModelTrajectoryAndFramesInRawLeftCoordinates) {
    const fs::path folder = recording("recording", 4);
    const ToolRun scanned = run(scan_call(folder, "out") + "--truth --save-frames --pictures 1");
    ASSERT_EQ(scanned.exitCode, 0) << scanned.errors << scanned.output;
    EXPECT_EQ(scanned.errors, "");
    for (const char* file :
         {"mesh.ply", "preview.png", "plot.png", "trajectory.txt", "report.txt", "frame-000000.rectified.png",
          "frame-000000.parallax.png", "frame-000000.depth.png", "frames/frame-000003.ply"})
        EXPECT_TRUE(fs::exists(path("out") / file)) << file;
    EXPECT_FALSE(fs::exists(path("out") / "frame-000001.depth.png"));
    const json found = report("out");
    EXPECT_EQ(found["input"]["frames_tracked"], 4);
    EXPECT_GT(found["timing"]["frames_ms"][2]["reconstruct"], 0.0);
    EXPECT_NEAR(found["rig"]["baseline_mm"], 109.6, 0.1);
    EXPECT_LT(found["comparison"]["ranges"][0]["absolute_first_pose_equal"]["translation_mm"]["max"], 2.5);
    const Outcome<std::vector<TimedPose>> trajectory = read_trajectory(path("out") / "trajectory.txt");
    ASSERT_TRUE(trajectory);
    EXPECT_LT(trajectory->front().cameraToWorld.get_translation().norm(), 1e-9);

    // Recorded poses of the raw camera bring the saved points onto the scene; a rotation that is left out would not.
    const Outcome<StereoRecording> pairs = StereoRecording::open(folder);
    ASSERT_TRUE(pairs);
    const Simulation::ShapePtr scene = Simulation::make_scene("owl_on_table");
    const FramePoints frame = read_ply(path("out") / "frames" / "frame-000003.ply");
    ASSERT_GT(frame.points.size(), 3000u);
    const RigidMatrix& toWorld = *pairs->pairs()[3].leftToWorld;
    std::vector<double> distances;
    Vector3d tableNormal = Vector3d::Zero();
    for (std::size_t i = 0; i < frame.points.size(); ++i) {
        const Vector3d point = toWorld * Vector3d(frame.points[i].cast<double>());
        distances.push_back(std::abs(scene->distance(point)));
        if (std::abs(point.z()) < 0.5) tableNormal += toWorld.get_rotation() * frame.normals[i].cast<double>();
    }
    std::nth_element(distances.begin(), distances.begin() + distances.size() / 2, distances.end());
    EXPECT_LT(distances[distances.size() / 2], 0.4);
    EXPECT_GT(tableNormal.norm(), 300.0);
    EXPECT_GT(tableNormal.normalized().z(), std::cos(0.035));
}

TEST_F(ScanTool, ASinglePairGivesPicturesFrameAndMesh) {
    const fs::path folder = recording("one", 1);
    const ToolRun scanned = run("scan --left " + quoted(folder / "frame-000000.left.png") + " --right " +
                                quoted(folder / "frame-000000.right.png") + " --depth-range 320 420 --settings " +
                                quoted(path("coarse.yml")) + " --out " + quoted(path("out")));
    ASSERT_EQ(scanned.exitCode, 0) << scanned.errors;
    EXPECT_GT(read_ply(path("out") / "frames" / "frame-000000.ply").points.size(), 3000u);
    EXPECT_TRUE(fs::exists(path("out") / "mesh.ply"));
    EXPECT_EQ(report("out")["rig"]["depth_range_mm"][1], 420.0);
    const cv::Mat rectified = cv::imread((path("out") / "frame-000000.rectified.png").string());
    EXPECT_EQ(rectified.size(), cv::Size(640, 256));

    // Nothing to be seen: an empty frame, a reason, and still the pictures.
    fs::create_directory(path("dark"));
    for (const char* name : {"left.png", "right.png"})
        ASSERT_TRUE(write_grey_png(path("dark") / name, {320, 256, std::vector<std::uint8_t>(320 * 256, 0)}));
    for (const char* name : {"calib_left.txt", "calib_right.txt"}) fs::copy(folder / name, path("dark") / name);
    const ToolRun dark = run(scan_call(path("dark"), "night"));
    EXPECT_EQ(dark.exitCode, 1);
    EXPECT_NE(dark.errors.find("too few points; hardly any partner was found"), std::string::npos) << dark.errors;
    EXPECT_TRUE(fs::exists(path("night") / "frame-000000.depth.png"));
}

TEST_F(ScanTool, SaysInOneSentenceWhatIsWrong) {
    const fs::path folder = recording("one", 1);
    fs::create_directory(path("empty"));
    put_bytes(path("file"), "precious");
    put_bytes(path("window.yml"), "rig:\n   pixMatchWin: [ 10, 11 ]\n");
    put_bytes(path("size.yml"), "rig:\n   imgSize: [ 1280, 1024 ]\n");
    put_bytes(path("camera.yml"), "rig:\n   leftCalib: [ 1, 2, 3 ]\n");
    const std::string whole = bytes_of(folder / "calib_left.txt");
    put_bytes(path("short.txt"), whole.substr(0, whole.size() / 2));
    const struct {
        const char* arguments;  // @ stands for the test's folder
        int exitCode;
        const char* message;
    } cases[] = {
        {"scan @/one", 2, "--out is required"},
        {"scan --out @/out", 1, "name a RECORDING, or a pair with --left and --right"},
        {"scan --left @/one/frame-000000.left.png --out @/out", 2, "--left requires --right"},
        {"scan @/one --out @/out --depth-range 300", 2, "--depth-range"},
        {"scan @/one --out @/out --depth-range 500 300", 1, "rig.depthRange(1): 300 is not between 500"},
        {"scan @/one --out @/out --depth-range 0 300", 2, "--depth-range"},
        {"scan @/one --out @/out --depth-range 1 2", 1, "no point between 1 and 2 mm is seen by both cameras"},
        {"scan @/nothing --out @/out", 1, "there is no recording folder"},
        {"scan @/empty --out @/out", 1, "holds no stereo pairs"},
        {"scan @/one --first 7 --out @/out", 1, "has no frame in the chosen range"},
        {"scan @/one --out @/file", 1, "is a file"},
        {"scan @/one --out @/out --calib-left @/none.txt", 1, "none.txt cannot be opened"},
        {"scan @/one --out @/out --calib-left @/short.txt", 1, "short.txt is not usable: the line"},
        {"scan @/one --out @/out --calib-left @/one/calib_right.txt", 1, "the baseline is zero"},
        {"scan @/one --out @/out --settings @/window.yml", 1, "rig.pixMatchWin: both sides must be odd"},
        {"scan @/one --out @/out --settings @/size.yml", 1, "rig.imgSize is 1280 x 1024 where the images have 320"},
        {"scan @/one --out @/out --settings @/camera.yml", 1, "rig.leftCalib: has 3 values where a camera has 22"},
        {"check-calibration @/empty", 1, "holds no stereo pairs"},
        {"check-calibration @/one --calib-right @/short.txt", 1, "short.txt is not usable"},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.arguments);
        std::string arguments = bad.arguments;
        for (std::size_t at = arguments.find('@'); at != std::string::npos; at = arguments.find('@'))
            arguments.replace(at, 1, path("").parent_path().string());
        const ToolRun result = run(arguments);
        EXPECT_EQ(result.exitCode, bad.exitCode);
        EXPECT_NE(result.errors.find(bad.message), std::string::npos) << result.errors;
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
        EXPECT_FALSE(fs::exists(path("out") / "mesh.ply"));
    }
    EXPECT_EQ(bytes_of(path("file")), "precious");
}

TEST_F(ScanTool, CheckCalibrationTellsWhatIsWrong) {
    const fs::path folder = recording("one", 1);
    const auto check = [&](const std::string& more) { return run("check-calibration " + quoted(folder) + ' ' + more); };
    const ToolRun fine = check("--picture " + quoted(path("rows.png")));
    EXPECT_EQ(fine.exitCode, 0) << fine.output << fine.errors;
    EXPECT_NE(fine.output.find("Verdict          the calibration fits"), std::string::npos) << fine.output;
    EXPECT_NE(fine.output.find("This pair needs  --depth-range 3"), std::string::npos) << fine.output;
    EXPECT_EQ(cv::imread(path("rows.png").string()).cols, 640);

    // The right camera after a fall: turned by some degrees about one of its axes.
    std::string text = bytes_of(folder / "calib_right.txt");
    const auto fallen = [&](const char* name, const Vector3d& axisAngle) {
        Matrix3d turn;
        rodrigures(axisAngle, turn);
        const auto values_after = [&](const char* label, int count) {
            std::vector<double> values;
            const char* at = text.c_str() + text.find(label) + std::strlen(label);
            for (char* end = nullptr; count > 0; --count, at = end) values.push_back(std::strtod(at, &end));
            return values;
        };
        const std::vector<double> r = values_after("R = [", 9), t = values_after("T = [", 3);
        const Matrix3d rotation = Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(r.data());
        CalibratedCamera camera;
        camera.worldToCamera = {turn * rotation, turn * Vector3d(t[0], t[1], t[2])};
        const std::string other = calibration_text(camera);
        put_bytes(path(name), text.substr(0, text.find("Translation")) + other.substr(other.find("Translation")));
        return "--calib-right " + quoted(path(name));
    };
    const std::string swapped =
        "--calib-left " + quoted(folder / "calib_right.txt") + " --calib-right " + quoted(folder / "calib_left.txt");
    const struct {
        std::string arguments;
        const char* words;
    } cases[] = {
        {fallen("tilted.txt", {0.02, 0, 0}), "a camera was tilted up or down"},
        {fallen("rolled.txt", {0, 0, 0.09}), "a camera was turned about its axis"},
        {swapped, "left and right are exchanged"},
        {"--depth-range 200 250", "outside the search range of 200 .. 250 mm"},
    };
    for (const auto& wrong : cases) {
        SCOPED_TRACE(wrong.words);
        const ToolRun result = check(wrong.arguments);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_NE(result.output.find(wrong.words), std::string::npos) << result.output << result.errors;
        EXPECT_NE(result.output.find("the calibration does not fit"), std::string::npos);
    }
}

#if !defined(_WIN32)
TEST_F(ScanTool, KeepsWhatIsDoneWhenInterrupted) {
    const fs::path folder = recording("recording", 3);
    for (int number = 3; number < 60; ++number) {  // the scanner stays
        for (const char* side : {"left", "right"}) {
            char name[64];
            std::snprintf(name, sizeof name, "frame-%06d.%s.png", number, side);
            fs::copy(folder / (std::string("frame-000002.") + side + ".png"), folder / name);
        }
    }
    const ToolRun result = run_interrupted(scan_call(folder, "out"), "tracking");
    ASSERT_EQ(result.exitCode, 130) << result.output;
    EXPECT_EQ(report("out")["input"]["interrupted"], true);
    EXPECT_TRUE(fs::exists(path("out") / "mesh.ply"));
}
#endif

TEST_F(ScanTool, RealPairsFromTheirFolders) {
    const char* recordings = std::getenv("VEXEL_RECORDINGS");
    if (recordings == nullptr) GTEST_SKIP() << "VEXEL_RECORDINGS names no folder with recordings";
    const fs::path cylinder = fs::path(recordings) / "stereo_cylinder",
                   projected = fs::path(recordings) / "stereo_projected";
    if (!fs::exists(cylinder) || !fs::exists(projected)) GTEST_SKIP() << "no stereo recordings in " << recordings;
    const struct {
        fs::path folder;
        const char* depths;
        double low, high;  // where the object is, raw left mm
        std::size_t points;
    } cases[] = {{cylinder / "step2", "266 296", 250.0, 320.0, 50000},
                 {projected / "plaster", "740 880", 740.0, 900.0, 8000}};
    for (const auto& real : cases) {
        SCOPED_TRACE(real.folder.string());
        const ToolRun scanned =
            run("scan " + quoted(real.folder) + " --depth-range " + real.depths + " --out " + quoted(path("out")));
        ASSERT_EQ(scanned.exitCode, 0) << scanned.errors;
        const FramePoints frame = read_ply(path("out") / "frames" / "frame-000000.ply");
        EXPECT_GT(frame.points.size(), real.points);
        const auto isInside = [&](const Vector3f& point) { return point.z() > real.low && point.z() < real.high; };
        EXPECT_GT(std::count_if(frame.points.begin(), frame.points.end(), isInside),
                  static_cast<long>(0.97 * frame.points.size()));
    }
}

}  // namespace
