// vexel-scan scan and check-calibration: pairs of a virtual scanner become a mesh that is measured against the surface
// that was scanned.
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "ToolTest.h"
#include "recording/StereoRecording.h"
#include "recording/trajectoryText.h"
#include "simulation/StereoRig.h"
#include "simulation/scenes.h"

namespace VexelTest {
namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using nlohmann::json;

struct PlyPoints {
    std::vector<Vector3d> points, normals;
};

/// The vertices of a binary file with points and normals in floats.
PlyPoints read_ply(const fs::path& file) {
    const std::string bytes = bytes_of(file);
    const std::size_t end = bytes.find("end_header\n"), count = bytes.find("element vertex ");
    PlyPoints read;
    if (end == std::string::npos || !holds(bytes, "binary_little_endian")) return read;
    const char* data = bytes.data() + end + 11;
    for (int i = std::atoi(bytes.c_str() + count + 15); i > 0; --i, data += 24) {
        Eigen::Matrix<float, 6, 1> values;
        std::memcpy(values.data(), data, 24);
        read.points.push_back(values.head<3>().cast<double>());
        read.normals.push_back(values.tail<3>().cast<double>());
    }
    return read;
}

class ScanTool : public ToolTest {
protected:
    json report() const { return json::parse(bytes_of(path("out/report.json"))); }
};

TEST_F(ScanTool, FromRawPairsToAMeshThatMatchesTheScannedSurface) {
    run_well("simulate --stereo --noise --frames 4 --width 640 --height 512 @/recording");
    // Voxels as large as the points of the small images are apart.
    put_bytes(path("coarse.yml"), "fusion:\n   pointDis: 1\ncommon:\n   rawPointDis: 0.8\n");
    run_well("scan @/recording --truth --save-frames --pictures 1 --settings @/coarse.yml --out @/out");
    for (const char* file : {"preview.png", "plot.png", "report.txt", "frame-000000.rectified.png",
                             "frame-000000.parallax.png", "frame-000000.depth.png"})
        EXPECT_TRUE(exists(std::string("out/") + file)) << file;
    EXPECT_FALSE(exists("out/frame-000001.depth.png"));
    const json found = report();
    EXPECT_EQ(found["input"]["frames_tracked"], found["input"]["frames_selected"]);
    EXPECT_GT(found["timing"]["frames_ms"][2]["reconstruct"], 0.0);
    EXPECT_NEAR(found["rig"]["baseline_mm"], 109.6, 0.1);
    EXPECT_LT(found["comparison"]["ranges"][0]["absolute_first_pose_equal"]["translation_mm"]["max"], 2.5);
    const Outcome<std::vector<TimedPose>> trajectory = read_trajectory(path("out/trajectory.txt"));
    ASSERT_TRUE(trajectory);
    EXPECT_LT(trajectory->front().cameraToWorld.get_translation().norm(), 1e-9);

    const Outcome<StereoRecording> pairs = StereoRecording::open(path("recording"));
    ASSERT_TRUE(pairs) << pairs.failure().reason;
    const std::vector<Vector3d> vertices = read_ply(path("out/mesh.ply")).points;
    ASSERT_GT(vertices.size(), 10000u);
    const Simulation::ShapePtr truth = Simulation::make_scene("owl_on_table");
    const RigidMatrix firstPose = *pairs->pairs().front().leftToWorld;
    double sum = 0.0, squares = 0.0;
    for (const Vector3d& vertex : vertices) {
        const double distance = Simulation::distance_by_descent(*truth, firstPose * vertex);
        sum += distance;
        squares += distance * distance;
    }
    const auto count = static_cast<double>(vertices.size());
    EXPECT_LT(std::sqrt(squares / count), 0.22);
    EXPECT_LT(std::abs(sum / count), 0.05);

    // Recorded poses of the raw camera bring the saved points onto the scene; a rotation that is left out would not.
    const PlyPoints frame = read_ply(path("out/frames/frame-000003.ply"));
    ASSERT_GT(frame.points.size(), 3000u);
    const RigidMatrix& toWorld = *pairs->pairs()[3].leftToWorld;
    std::vector<double> distances;
    Vector3d tableNormal = Vector3d::Zero();
    for (std::size_t i = 0; i < frame.points.size(); ++i) {
        const Vector3d point = toWorld * frame.points[i];
        distances.push_back(std::abs(truth->distance(point)));
        if (std::abs(point.z()) < 0.5) tableNormal += toWorld.get_rotation() * frame.normals[i];
    }
    std::nth_element(distances.begin(), distances.begin() + distances.size() / 2, distances.end());
    EXPECT_LT(distances[distances.size() / 2], 0.4);
    EXPECT_GT(tableNormal.norm(), 300.0);
    EXPECT_GT(tableNormal.normalized().z(), std::cos(0.035));
}

TEST_F(ScanTool, SinglePairsAreScannedAndTheirCalibrationIsChecked) {
    run_well("simulate --stereo --noise --width 320 --height 256 --frames 1 @/one");
    put_bytes(path("coarse.yml"),
              "fusion:\n   pointDis: 2\ncommon:\n   rawPointDis: 1.6\nrig:\n   subPixMatchWin: [ 7, 7 ]\n");
    run_well(
        "scan --left @/one/frame-000000.left.png --right @/one/frame-000000.right.png --depth-range 320 420 "
        "--settings @/coarse.yml --out @/out");
    EXPECT_GT(read_ply(path("out/frames/frame-000000.ply")).points.size(), 3000u);
    EXPECT_TRUE(exists("out/mesh.ply"));
    EXPECT_EQ(report()["rig"]["depth_range_mm"][1], 420.0);
    EXPECT_EQ(cv::imread(path("out/frame-000000.rectified.png").string()).size(), cv::Size(640, 256));

    const ToolRun fine = run_well("check-calibration @/one --picture @/rows.png");
    EXPECT_TRUE(holds(fine.output, "Verdict          the calibration fits")) << fine.output;
    EXPECT_TRUE(holds(fine.output, "This pair needs  --depth-range 3")) << fine.output;
    EXPECT_EQ(cv::imread(path("rows.png").string()).cols, 640);
    // The right camera after a fall: turned by some degrees about one of its axes.
    const auto fallen = [&](const char* name, const Vector3d& axisAngle) {
        const Simulation::DistortedCamera camera = Simulation::make_stereo_rig(320, 256).right;
        put_bytes(path(name),
                  calibration_text({camera.fx, camera.fy, camera.cx, camera.cy, camera.distortion,
                                    RigidMatrix(turned(axisAngle), Vector3d::Zero()) * camera.rigToCamera}));
    };
    fallen("tilted.txt", {0.02, 0, 0});
    fallen("rolled.txt", {0, 0, 0.09});
    const std::pair<const char*, const char*> cases[] = {
        {"--calib-right @/tilted.txt", "a camera was tilted up or down"},
        {"--calib-right @/rolled.txt", "a camera was turned about its axis"},
        {"--calib-left @/one/calib_right.txt --calib-right @/one/calib_left.txt", "left and right are exchanged"},
        {"--depth-range 200 250", "outside the search range of 200 .. 250 mm"},
    };
    for (const auto& [arguments, words] : cases) {
        const ToolRun result = run(std::string("check-calibration @/one ") + arguments);
        EXPECT_EQ(result.exitCode, 1) << arguments;
        EXPECT_TRUE(holds(result.output, words)) << result.output << result.errors;
        EXPECT_TRUE(holds(result.output, "the calibration does not fit")) << result.output;
    }
}

}  // namespace
}  // namespace VexelTest
