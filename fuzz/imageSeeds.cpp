// Images as recordings hold them and as cameras write them, each for the reader as it is and with check sums mended.
#include <opencv2/imgcodecs.hpp>

#include "fuzz/seeds.h"
#include "recording/DepthImage.h"
#include "recording/GreyPicture.h"
#include "trials/TemporaryFolder.h"

namespace VexelFuzz {
namespace {

using namespace VexelAlgorithm;

constexpr int readers = 3;
enum Reader { Depth, Grey, Exposure };

std::string depth_file() {
    const VexelTrial::TemporaryFolder folder;
    DepthImage image{7, 5, {}, 0.5};
    for (int i = 0; i < 35; ++i) image.millimetres.push_back(i % 9 == 0 ? 0.0F : 400.0F + static_cast<float>(i * i));
    write_depth_png(folder.path() / "depth.png", image);
    return VexelTrial::bytes_of(folder.path() / "depth.png");
}

std::string grey_file() {
    const VexelTrial::TemporaryFolder folder;
    GreyPicture picture{9, 6, {}};
    for (int i = 0; i < 54; ++i) picture.pixels.push_back(static_cast<std::uint8_t>(i * 37));
    write_grey_png(folder.path() / "grey.png", picture);
    return VexelTrial::bytes_of(folder.path() / "grey.png");
}

std::string encoded(const char* ending, const cv::Mat& picture) {
    std::vector<unsigned char> bytes;
    cv::imencode(ending, picture, bytes);
    return {bytes.begin(), bytes.end()};
}

cv::Mat colour_picture() {
    cv::Mat picture(8, 11, CV_8UC3);
    for (int y = 0; y < picture.rows; ++y)
        for (int x = 0; x < picture.cols; ++x)
            picture.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(20 * x), static_cast<uchar>(30 * y), 90);
    return picture;
}

}  // namespace

std::vector<Seed> image_seeds() {
    const struct {
        std::string name;
        int reader;
        std::string bytes;
    } files[] = {
        {"depth.png", Depth, depth_file()},
        {"grey.png", Grey, grey_file()},
        {"wrong_kind.png", Depth, grey_file()},
        {"exposure.png", Exposure, grey_file()},
        {"colour.png", Exposure, encoded(".png", colour_picture())},
        {"colour.jpg", Exposure, encoded(".jpg", colour_picture())},
    };
    std::vector<Seed> seeds;
    for (const auto& file : files) {
        seeds.push_back({file.name, static_cast<char>(file.reader) + file.bytes});
        seeds.push_back({"mended_" + file.name, static_cast<char>(file.reader + readers) + file.bytes});
    }
    return seeds;
}

}  // namespace VexelFuzz
