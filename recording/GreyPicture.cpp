#include "recording/GreyPicture.h"

#include <algorithm>
#include <exception>
#include <opencv2/imgcodecs.hpp>

#include "recording/files.h"
#include "recording/greyPng.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;

constexpr GreyPngKind pictureKind{8, "camera image"};

}  // namespace

Outcome<ImageSize> inspect_grey_picture(const fs::path& path) {
    return inspect_grey_png(path, pictureKind);
}

Outcome<GreyPicture> read_grey_picture(const fs::path& path) {
    const Outcome<cv::Mat> image = decode_grey_png(path, pictureKind);
    if (!image) return image.failure();
    GreyPicture picture{image->cols, image->rows, {}};
    picture.pixels.reserve(image->total());
    for (int row = 0; row < image->rows; ++row)
        picture.pixels.insert(picture.pixels.end(), image->ptr(row), image->ptr(row) + image->cols);
    return picture;
}

Outcome<Done> write_grey_png(const fs::path& path, const GreyPicture& picture) {
    const std::size_t count =
        static_cast<std::size_t>(std::max(picture.width, 0)) * static_cast<std::size_t>(std::max(picture.height, 0));
    if (count == 0 || picture.pixels.size() != count)
        return Failure{path.string() + " not written: the image has no pixels"};
    std::vector<unsigned char> encoded;
    try {
        const cv::Mat image(picture.height, picture.width, CV_8UC1, const_cast<std::uint8_t*>(picture.pixels.data()));
        cv::imencode(".png", image, encoded, {cv::IMWRITE_PNG_COMPRESSION, 1});
    } catch (const std::exception& error) {
        return Failure{path.string() + " not written: " + error.what()};
    }
    return write_whole_file(path, {reinterpret_cast<const char*>(encoded.data()), encoded.size()});
}

}  // namespace VexelAlgorithm
