// vexel-scan given what it cannot use: one clear line for each failure, and nothing lost.
#include <opencv2/imgcodecs.hpp>

#include "ToolTest.h"
#include "apps/calibrated.h"
#include "recording/StereoRecording.h"
#include "simulation/StereoRig.h"

namespace VexelTest {
namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using Apps::calibrated;

class ToolFailures : public ToolTest {};

TEST_F(ToolFailures, DepthFrames) {
    run_well("simulate --sequence still --noise --width 80 --height 64 --frames 2 @/still");
    for (const char* name : {"half", "black", "poseless"}) fs::copy(path("still"), path(name));
    fs::resize_file(path("half/frame-000001.depth.png"), 100);
    for (const char* number : {"frame-000000", "frame-000001"}) {
        cv::imwrite(path(std::string("black/") + number + ".depth.png").string(),
                    cv::Mat(64, 80, CV_16UC1, cv::Scalar(0)));
        fs::remove(path(std::string("poseless/") + number + ".pose.txt"));
    }
    put_bytes(path("late.txt"), "1000 0 0 0 0 0 0 1\n");
    put_bytes(path("range.yml"), "track:\n   icpDis: [ 2, 1 ]\n");
    put_bytes(path("size.yml"), "common:\n   imageSize: [ 320, 240 ]\n");
    put_bytes(path("tiny.yml"), "fusion:\n   pointDis: 0.005\n");
    put_bytes(path("broken.yml"), "fusion: [[\n");
    put_bytes(path("near.yml"), "frame:\n   farthest: 101\n");
    const BadCall calls[] = {
        {"frobnicate", 2, "frobnicate"},
        {"fuse @/still", 2, "--out is required"},
        {"fuse @/still --out @/out --voxel 0", 2, "--voxel"},
        {"fuse @/still --out @/out --step 0", 2, "--step"},
        {"fuse @/still --out @/out --threads -1", 2, "--threads"},
        {"fuse @/still --out @/out --depth 99", 2, "--depth"},
        {"fuse @/still --out @/out --min-weight inf", 2, "--min-weight"},
        {"fuse @/still --out @/out --format docx", 2, "--format"},
        {"fuse @/still --out @/out --first 9 --last 3", 1, "no frame in the chosen range"},
        {"fuse @/still --out @/out --min-weight 1000", 1, "no surface came out"},
        {"fuse @/still --out @/out --voxel 0.01", 1, "take a larger --voxel"},
        {"fuse @/still --out @/file/below", 1, "cannot be made"},
        {"fuse @/nothing --out @/out", 1, "there is no recording folder"},
        {"fuse @/half --out @/out", 1, "frame-000001.depth.png"},
        {"fuse @/black --out @/out", 1, "no usable depth"},
        {"info @/half", 1, "frame-000001.depth.png"},
        {"track @/still --out @/out --preset hall", 2, "--preset"},
        {"track @/still --out @/out --truth-range 7:3", 2, "no range of frames"},
        {"track @/still --out @/out --rate 0", 2, "--rate"},
        {"track @/still --out @/file", 1, "is a file"},
        {"track @/still --out @/out --settings @/none.yml", 1, "none.yml cannot be opened"},
        {"track @/still --out @/out --settings @/range.yml", 1, "track.icpDis(1): 1 is smaller than"},
        {"track @/still --out @/out --settings @/size.yml", 1, "common.imageSize is 320 x 240"},
        {"track @/still --out @/out --settings @/tiny.yml", 1, "take a larger fusion.pointDis"},
        {"track @/still --out @/out --settings @/broken.yml", 1, "broken.yml is not usable: line"},
        {"track @/poseless --out @/out --truth", 1, "holds no poses to compare with"},
        {"track @/still --out @/out --truth-file @/late.txt", 1, "has no pose at the times of the frames"},
        {"track @/still --out @/out --truth-file @/file", 1, "is not usable: line 1"},
        {"track @/poseless --out @/out --settings @/near.yml", 1, "no frame was accepted; frame 0: too few points"},
    };
    expect_failures(calls);
    EXPECT_TRUE(holds(bytes_of(path("out/report.json")), "\"accepted\": false")) << "the last one says more";
}

TEST_F(ToolFailures, StereoPairs) {
    fs::create_directory(path("empty"));
    const Simulation::StereoRig rig = Simulation::make_stereo_rig(160, 128);
    StereoFrame dark;
    dark.left = dark.right = {160, 128, std::vector<std::uint8_t>(160 * 128, 0)};
    Outcome<StereoRecordingWriter> writer =
        StereoRecordingWriter::create(path("one"), calibrated(rig.left), calibrated(rig.right), 0.01, "");
    ASSERT_TRUE(writer && writer->write_frame(0, dark));
    put_bytes(path("window.yml"), "rig:\n   pixMatchWin: [ 10, 11 ]\n");
    put_bytes(path("size.yml"), "rig:\n   imgSize: [ 1280, 1024 ]\n");
    put_bytes(path("camera.yml"), "rig:\n   leftCalib: [ 1, 2, 3 ]\n");
    const std::string whole = bytes_of(path("one/calib_left.txt"));
    put_bytes(path("short.txt"), whole.substr(0, whole.size() / 2));
    const BadCall calls[] = {
        {"scan --out @/out", 1, "name a RECORDING, or a pair with --left and --right"},
        {"scan --left @/one/frame-000000.left.png --out @/out", 2, "--left requires --right"},
        {"scan @/one --out @/out --depth-range 300", 2, "--depth-range"},
        {"scan @/one --out @/out --depth-range 500 300", 1, "rig.depthRange(1): 300 is not between 500"},
        {"scan @/one --out @/out --depth-range 1 2", 1, "no point between 1 and 2 mm is seen by both cameras"},
        {"scan @/empty --out @/out", 1, "holds no stereo pairs"},
        {"scan @/one --first 7 --out @/out", 1, "has no frame in the chosen range"},
        {"scan @/one --out @/out --calib-left @/none.txt", 1, "none.txt cannot be opened"},
        {"scan @/one --out @/out --calib-left @/short.txt", 1, "short.txt is not usable: the line"},
        {"scan @/one --out @/out --calib-left @/one/calib_right.txt", 1, "the baseline is zero"},
        {"scan @/one --out @/out --settings @/window.yml", 1, "rig.pixMatchWin: both sides must be odd"},
        {"scan @/one --out @/out --settings @/size.yml", 1, "rig.imgSize is 1280 x 1024 where the images have 160"},
        {"scan @/one --out @/out --settings @/camera.yml", 1, "rig.leftCalib: has 3 values where a camera has 22"},
        {"scan @/one --out @/out", 1, "too few points; hardly any partner was found"},
        {"check-calibration @/empty", 1, "holds no stereo pairs"},
    };
    expect_failures(calls);
    EXPECT_TRUE(exists("out/frame-000000.depth.png")) << "pictures of the dark pair";
}

TEST_F(ToolFailures, VirtualWorldsAndExposures) {
    put_bytes(path("dust.obj"), "v 1 1 1\nf 1 1 1\n");
    put_bytes(path("needle.obj"), "v 0 0 0\nv 0 0 5\nv 0 0 9\nf 1 2 3\n");
    const std::string head = "P5 16 16 255\n";
    for (const char* name : {"flat", "sizes", "broken"}) {
        fs::create_directory(path(name));
        put_bytes(path(name) / "a.pgm", head + std::string(256, '\x80'));
    }
    put_bytes(path("sizes/b.pgm"), "P5 8 8 255\n" + std::string(64, '\x80'));
    put_bytes(path("broken/b.pgm"), "no image");
    const BadCall calls[] = {
        {"simulate @/file", 1, "is a file"},
        {"simulate @/sim --frames 0", 2, "--frames"},
        {"simulate @/sim --scene cathedral", 2, "--scene"},
        {"simulate @/sim --sequence smooth --scene owl", 2, "--sequence"},
        {"simulate @/sim --mesh @/nothing.ply", 1, "nothing.ply"},
        {"simulate @/sim --mesh @/dust.obj", 1, "lie in one point"},
        {"simulate @/sim --mesh @/needle.obj", 1, "has an area"},
        {"simulate @/sim --mesh @/needle.obj --mesh-unit m", 1, "--mesh-size"},
        {"simulate @/sim --mesh @/dust.obj --mesh-up w", 2, "--mesh-up"},
        {"simulate @/sim --on-table", 2, "--mesh"},
        {"accuracy --distance 100", 2, "--distance"},
        {"accuracy --leave-out -1", 2, "--leave-out"},
        {"expose @/nowhere", 1, "cannot read the folder"},
        {"expose @/flat --match nothing", 1, "no images in"},
        {"expose @/flat", 1, "no image shows a pattern"},
        {"expose @/flat --region 0 128 0", 2, "--region"},
        {"expose @/flat --reference @/broken/b.pgm", 1, "cannot read the image"},
        {"expose @/sizes", 1, "not of the same size"},
        {"expose @/broken", 1, "cannot read the image"},
    };
    expect_failures(calls);
    EXPECT_FALSE(exists("sim"));
}

}  // namespace
}  // namespace VexelTest
