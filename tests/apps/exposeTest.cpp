// vexel-scan expose: the choice, the picture of it, and folders that it cannot use.
#include <cstdlib>
#include <opencv2/imgcodecs.hpp>

#include "ToolTest.h"

namespace VexelTest {
namespace {

/// Squares of two levels, as PGM.
void write_pattern(const std::filesystem::path& path, int dark, int bright, int width = 128) {
    std::ofstream file(path, std::ios::binary);
    file << "P5 " << width << " 96 255\n";
    for (int y = 0; y < 96; ++y)
        for (int x = 0; x < width; ++x) file.put(static_cast<char>((x / 8 + y / 8) % 2 == 0 ? dark : bright));
}

class ExposeTest : public ToolTest {
protected:
    void SetUp() override {
        std::filesystem::create_directory(path("images"));
        write_pattern(path("images/a.pgm"), 2, 6);
        write_pattern(path("images/b.left.pgm"), 10, 40);
        write_pattern(path("images/c.left.pgm"), 30, 210);
        write_pattern(path("images/d.PGM"), 200, 255);
        std::ofstream(path("images/notes.txt")) << "no image";
    }
    ToolRun expose(const std::string& options = "") const {
        return run("expose " + quoted(path("images")) + " --out " + quoted(path("images/seen.png")) + ' ' + options);
    }
    void expect_failure(const ToolRun& result, const std::string& reason) const {
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
        EXPECT_NE(result.errors.find(reason), std::string::npos) << result.errors;
    }
};

TEST_F(ExposeTest, PicksTheImageAndDrawsWhatItSaw) {
    const std::string best = "Best exposed  ";
    for (int repetition = 0; repetition < 2; ++repetition) {  // the second time the picture lies among the images
        const ToolRun result = expose();
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_NE(result.output.find(best + path("images/c.left.pgm").string()), std::string::npos) << result.output;
        const cv::Mat picture = cv::imread(path("images/seen.png").string());
        EXPECT_EQ(picture.cols, 1400);
        EXPECT_GT(picture.rows, 800);
    }
    const ToolRun like = expose("--match left --reference " + quoted(path("images/b.left.pgm")));
    EXPECT_NE(like.output.find(best + path("images/b.left.pgm").string()), std::string::npos) << like.output;
    EXPECT_EQ(like.output.find("a.pgm"), std::string::npos);
}

TEST_F(ExposeTest, SaysWhatItCannotUse) {
    expect_failure(run("expose " + quoted(path("nowhere"))), "cannot read the folder");
    expect_failure(expose("--match nothing"), "no images in");
    expect_failure(expose("--match a.pgm"), "no image shows a pattern");
    expect_failure(expose("--region 0 128 0 96"), "no image shows a pattern");
    expect_failure(expose("--reference " + quoted(path("images/notes.txt"))), "cannot read the image");
    expect_failure(run("expose " + quoted(path("images")) + " --out " + quoted(path("none/seen.png"))), "none");
    EXPECT_EQ(expose("--region 0 128 0").exitCode, 2);
    EXPECT_FALSE(std::filesystem::exists(path("images/seen.png")));
    write_pattern(path("images/e.pgm"), 30, 210, 64);
    expect_failure(expose(), "not of the same size");
    std::ofstream(path("images/e.pgm")) << "no image";
    expect_failure(expose(), "cannot read the image");
}

}  // namespace
}  // namespace VexelTest
