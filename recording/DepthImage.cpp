#include "recording/DepthImage.h"

#include <cmath>
#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "recording/files.h"
#include "recording/greyPng.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;

constexpr GreyPngKind depthKind{16, "depth image"};
constexpr std::uint16_t noValue = 65535;  // beside 0

std::vector<std::uint16_t> in_steps(const DepthImage& image) {
    std::vector<std::uint16_t> counts;
    counts.reserve(image.millimetres.size());
    for (const float depth : image.millimetres) {
        const double count = std::round(depth / image.step);
        counts.push_back(count > 0.0 && count < noValue ? static_cast<std::uint16_t>(count) : std::uint16_t{0});
    }
    return counts;
}

Failure failure_of(const fs::path& path, const std::string& cause) {
    return {path.string() + ' ' + cause};
}

}  // namespace

Outcome<ImageSize> inspect_depth_png(const fs::path& path) {
    return inspect_grey_png(path, depthKind);
}

Outcome<DepthImage> read_depth_png(const fs::path& path, double step) {
    const Outcome<cv::Mat> picture = decode_grey_png(path, depthKind);
    if (!picture) return picture.failure();
    DepthImage image{picture->cols, picture->rows, {}, step};
    image.millimetres.reserve(picture->total());
    for (int row = 0; row < picture->rows; ++row) {
        const std::uint16_t* counts = picture->ptr<std::uint16_t>(row);
        for (int column = 0; column < picture->cols; ++column)
            image.millimetres.push_back(counts[column] == noValue ? 0.0F : static_cast<float>(counts[column] * step));
    }
    return image;
}

Outcome<Done> write_depth_png(const fs::path& path, const DepthImage& image) {
    const std::size_t count = static_cast<std::size_t>(std::max(image.width, 0)) * std::max(image.height, 0);
    if (count == 0 || image.millimetres.size() != count)
        return failure_of(path, "not written: the image has no pixels");
    std::vector<unsigned char> encoded;
    try {
        std::vector<std::uint16_t> counts = in_steps(image);
        const cv::Mat picture(image.height, image.width, CV_16UC1, counts.data());
        cv::imencode(".png", picture, encoded);
    } catch (const std::exception& error) {
        return failure_of(path, std::string("not written: ") + error.what());
    }
    return write_whole_file(path, {reinterpret_cast<const char*>(encoded.data()), encoded.size()});
}

}  // namespace VexelAlgorithm
