// vexel-scan fuse, info, simulate, accuracy and expose: files, figures, the same bytes twice.
#include <opencv2/imgcodecs.hpp>

#include "ToolTest.h"

namespace VexelTest {
namespace {

namespace fs = std::filesystem;

class VexelScan : public ToolTest {};

std::string before(const std::string& text, const std::string& words) {
    EXPECT_TRUE(holds(text, words)) << text;
    return text.substr(0, text.find(words));
}

TEST_F(VexelScan, FusesARecordingToTheSameBytesTwice) {
    run_well("simulate --frames 5 --width 120 --height 90 --noise --seed 7 @/sim");
    run_well("simulate --frames 5 --width 120 --height 90 --noise --seed 7 @/again");
    EXPECT_EQ(bytes_of(path("sim/frame-000002.depth.png")), bytes_of(path("again/frame-000002.depth.png")));
    const std::string call = "fuse @/sim --voxel 4 --threads 1 --min-weight 1 --out ";
    const ToolRun fused = run_well(call + "@/a");
    EXPECT_TRUE(holds(fused.output, "5 of 5 frames")) << "plain progress lines: " << fused.output;
    EXPECT_EQ(fused.output.find('\r'), std::string::npos);
    run_well(call + "@/b/deeper");
    EXPECT_EQ(bytes_of(path("a/mesh.ply")), bytes_of(path("b/deeper/mesh.ply")));
    const std::string figures = bytes_of(path("a/report.json")), text = bytes_of(path("a/report.txt"));
    EXPECT_EQ(before(figures, "\"timing\""), before(bytes_of(path("b/deeper/report.json")), "\"timing\""));
    EXPECT_EQ(before(text, "This run"), before(bytes_of(path("b/deeper/report.txt")), "This run"));
    EXPECT_TRUE(holds(figures, "\"frames_fused\": 5") && holds(figures, "\"points_outside_volume\": 0")) << figures;
    EXPECT_EQ(std::distance(fs::directory_iterator(path("a")), {}), 4) << "mesh, preview and two reports";
    const cv::Mat preview = cv::imread(path("a/preview.png").string());
    ASSERT_FALSE(preview.empty());
    EXPECT_GT(preview.cols, 2 * preview.rows) << "several views side by side";

    EXPECT_TRUE(holds(run("simulate --frames 1 --width 60 --height 45 @/sim").errors, "holds a recording already"));
    for (const char* file : {"camera-intrinsics.txt", "frame-000000.depth.png"})
        EXPECT_EQ(bytes_of(path("sim") / file), bytes_of(path("again") / file)) << "recordings are never mixed";
}

TEST_F(VexelScan, ChoosesFramesFormatsAndVolumes) {
    const ToolRun walked = run_well("simulate --sequence smooth --noise --width 120 --height 90 --frames 6 @/walk");
    EXPECT_TRUE(holds(walked.output, "degrees a frame")) << walked.output;
    EXPECT_EQ(bytes_of(path("walk/depth-step.txt")), "0.01\n");
    for (const char* name : {"walk/frame-000002.depth.png", "walk/frame-000002.pose.txt"}) fs::remove(path(name));
    EXPECT_TRUE(holds(run_well("info @/walk").output, "numbers 0 .. 5"));
    run_well("fuse @/walk --first 1 --last 5 --step 2 --voxel 4 --min-weight 1 --format obj --out @/out");
    EXPECT_TRUE(exists("out/mesh.obj"));
    EXPECT_TRUE(holds(bytes_of(path("out/report.json")), "\"frames_selected\": 3")) << "by number, not by place";
    run_well("fuse @/walk --depth 10 --voxel 0.25 --range 11 --last 0 --min-weight 0 --out @/narrow");
    EXPECT_FALSE(holds(bytes_of(path("narrow/report.json")), "\"points_outside_volume\": 0"))
        << "the table is wider than 256 mm";
}

TEST_F(VexelScan, SimulatesMeshes) {
    put_bytes(path("wedge.obj"), "v 0 0 0\nv .1 0 0\nv 0 .1 0\nv 0 0 .12\nf 1 3 2\nf 1 2 4\nf 2 3 4\nf 3 1 4\n");
    const std::string call = "simulate --frames 2 --width 160 --height 128 --mesh @/wedge.obj ";
    const ToolRun placed = run_well(call + "--mesh-unit m --on-table @/wedge");
    EXPECT_TRUE(holds(placed.output, "4 triangles, 100.0 x 100.0 x 120.0 mm")) << placed.output;
    run_well("fuse @/wedge --voxel 4 --min-weight 1 --out @/out");
    run_well(call + "--stereo @/pairs");
}

TEST_F(VexelScan, MeasuresTheAccuracyOfTheVirtualRig) {
    const std::string call = "accuracy --width 320 --height 256 --distance 400 --window 9 --seed 3 --csv ";
    const ToolRun measured = run_well(call + "@/one.csv --out @/maps");
    run_well(call + "@/two.csv");
    EXPECT_EQ(bytes_of(path("one.csv")), bytes_of(path("two.csv"))) << "reproducible from the seed";
    for (const char* map : {"maps/sphere.png", "maps/ball-bar.png", "maps/plane.png"}) EXPECT_TRUE(exists(map)) << map;
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

/// Squares of two levels.
std::string pattern(int dark, int bright) {
    std::string image = "P5 128 96 255\n";
    for (int y = 0; y < 96; ++y)
        for (int x = 0; x < 128; ++x) image += static_cast<char>((x / 8 + y / 8) % 2 == 0 ? dark : bright);
    return image;
}

TEST_F(VexelScan, PicksTheBestExposureAndDrawsWhatItSaw) {
    fs::create_directory(path("images"));
    put_bytes(path("images/a.pgm"), pattern(2, 6));
    put_bytes(path("images/b.left.pgm"), pattern(10, 40));
    put_bytes(path("images/c.left.pgm"), pattern(30, 210));
    put_bytes(path("images/d.PGM"), pattern(200, 255));
    put_bytes(path("images/notes.txt"), "no image");
    const std::string call = "expose @/images --out @/images/seen.png ", best = "Best exposed  ";
    EXPECT_TRUE(holds(run(call + "--match a.pgm").errors, "no image shows a pattern"));
    EXPECT_TRUE(holds(run(call + "--region 0 128 0 96").errors, "no image shows a pattern"));
    EXPECT_FALSE(exists("images/seen.png"));
    for (int repetition = 0; repetition < 2; ++repetition) {  // the second time the picture lies among the images
        const ToolRun result = run_well(call);
        EXPECT_TRUE(holds(result.output, best + path("images/c.left.pgm").string())) << result.output;
        const cv::Mat picture = cv::imread(path("images/seen.png").string());
        EXPECT_EQ(picture.cols, 1400);
        EXPECT_GT(picture.rows, 800);
    }
    const ToolRun like = run_well(call + "--match left --reference @/images/b.left.pgm");
    EXPECT_TRUE(holds(like.output, best + path("images/b.left.pgm").string())) << like.output;
    EXPECT_FALSE(holds(like.output, "a.pgm"));
    EXPECT_EQ(run("expose @/images --out @/none/seen.png").exitCode, 1) << "no such folder";
}

}  // namespace
}  // namespace VexelTest
