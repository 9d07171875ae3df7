#include "apps/exposureDrawing.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "apps/charts.h"
#include "apps/pictureText.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr int columns = 5, mostTiles = 20;
constexpr int tileWidth = 280, labelHeight = 40;
constexpr int tooBright = 160;
constexpr double tint = 0.35;
const cv::Vec3b green(60, 200, 40), blue(230, 130, 40), red(50, 40, 230);
const cv::Scalar white(255, 255, 255), ink(50, 40, 40), chosenFrame(0, 94, 213);

cv::Vec3b tinted(unsigned char grey, const cv::Vec3b& colour) {
    cv::Vec3b mixed;
    for (int i = 0; i < 3; ++i) mixed[i] = cv::saturate_cast<unsigned char>((1.0 - tint) * grey + tint * colour[i]);
    return mixed;
}

void write(cv::Mat& picture, const std::string& text, int x, int y) {
    put_text(picture, text, {x, y}, 0.4, ink);
}

cv::Mat draw_tile(const MeasuredImage& image, bool isChosen) {
    const double scale = static_cast<double>(tileWidth) / image.view.cols;
    const int height = std::clamp(static_cast<int>(std::lround(scale * image.view.rows)), 1, 2 * tileWidth);
    cv::Mat tile(height + labelHeight, tileWidth, CV_8UC3, white);
    cv::resize(image.view, tile.rowRange(0, height), {tileWidth, height}, 0, 0, cv::INTER_AREA);
    const auto& statistics = image.record.statistics;
    write(tile, image.name.substr(0, 40), 4, height + 15);
    write(tile,
          format_text("pattern %.1f %%, grey %.0f, quality %.3f", 100.0 * static_cast<double>(statistics.P2),
                      static_cast<double>(statistics.P1), static_cast<double>(image.record.quality)),
          4, height + 31);
    if (isChosen) cv::rectangle(tile, {0, 0, tileWidth, height}, chosenFrame, 5);
    return tile;
}

/// Evenly spaced ones, the nearest of which gives way to the chosen one.
std::vector<std::size_t> shown_images(std::size_t count, std::size_t chosen) {
    const std::size_t shown = std::min<std::size_t>(count, mostTiles);
    std::vector<std::size_t> list;
    for (std::size_t i = 0; i < shown; ++i) list.push_back(i * count / shown);
    *std::prev(std::upper_bound(list.begin(), list.end(), chosen)) = chosen;
    return list;
}

cv::Mat draw_tiles(const std::vector<MeasuredImage>& images, std::size_t chosen) {
    const std::vector<std::size_t> shown = shown_images(images.size(), chosen);
    const int tileHeight = draw_tile(images.front(), false).rows;
    const int rows = (static_cast<int>(shown.size()) + columns - 1) / columns;
    cv::Mat sheet(rows * tileHeight, columns * tileWidth, CV_8UC3, white);
    for (int i = 0; i < static_cast<int>(shown.size()); ++i) {
        const std::size_t image = shown[static_cast<std::size_t>(i)];
        const cv::Rect place(i % columns * tileWidth, i / columns * tileHeight, tileWidth, tileHeight);
        draw_tile(images[image], image == chosen).copyTo(sheet(place));
    }
    return sheet;
}

template <class Value>
Curve curve_of(const std::string& name, const std::vector<MeasuredImage>& images, const Value& value) {
    Curve curve{name, {}};
    for (const MeasuredImage& image : images) curve.values.push_back(static_cast<double>(value(image.record)));
    return curve;
}

cv::Mat draw_scores(const std::vector<MeasuredImage>& images, std::size_t chosen) {
    using Record = autoExposureFoot::ExposureRecord;
    const std::vector<Chart> charts{
        {"penalty (lower is better)", {curve_of("-quality", images, [](const Record& r) { return -r.quality; })}},
        {"shares",
         {curve_of("of the region with pattern", images, [](const Record& r) { return r.statistics.P2; }),
          curve_of("of the rest too bright", images, [](const Record& r) { return r.statistics.P3; })}},
        {"grey level", {curve_of("mean of the pattern", images, [](const Record& r) { return r.statistics.P1; })}},
    };
    std::vector<int> numbers;
    for (std::size_t i = 0; i < images.size(); ++i) numbers.push_back(static_cast<int>(i));
    return draw_charts(format_text("Best exposed: image %d, ", static_cast<int>(chosen)) + images[chosen].name, charts,
                       numbers, std::vector<bool>(images.size()));
}

}  // namespace

cv::Mat draw_view(const autoExposureFoot::ExposureView& view) {
    cv::Mat picture(view.height, view.width, CV_8UC3);
    for (int y = 0; y < view.height; ++y) {
        for (int x = 0; x < view.width; ++x) {
            const auto i =
                static_cast<std::size_t>(y) * static_cast<std::size_t>(view.width) + static_cast<std::size_t>(x);
            const unsigned char grey = view.grey[i];
            cv::Vec3b& pixel = picture.at<cv::Vec3b>(y, x);
            pixel = {grey, grey, grey};
            if (view.cluster[i] != 0)
                pixel = tinted(grey, green);
            else if (grey > tooBright)
                pixel = tinted(grey, red);
            else if (view.mask[i] != 0)
                pixel = tinted(grey, blue);
        }
    }
    const Vector4i& region = view.region;
    if (region(0) < region(1) && region(2) < region(3))
        cv::rectangle(picture, {region(0), region(2), region(1) - region(0), region(3) - region(2)}, white);
    return picture;
}

cv::Mat draw_exposures(const std::vector<MeasuredImage>& images, std::size_t chosen) {
    cv::Mat picture;
    cv::vconcat(draw_tiles(images, chosen), draw_scores(images, chosen), picture);
    return picture;
}

}  // namespace VexelAlgorithm::Apps
