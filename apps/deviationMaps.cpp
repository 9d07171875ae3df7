#include "apps/deviationMaps.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <string>

#include "apps/pictureText.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {

namespace {

constexpr int tileWidth = 300;
constexpr int tileHeight = 220;
constexpr int captionHeight = 22;
constexpr int columns = 5;
constexpr int headHeight = 40;

/// Blue, light grey, red.
cv::Vec3b colour_of(double share) {
    const double towards = std::clamp(share, -1.0, 1.0);
    const auto mixed = [towards](double low, double middle, double high) {
        const double end = towards < 0.0 ? low : high;
        return static_cast<unsigned char>(std::lround(middle + std::abs(towards) * (end - middle)));
    };
    return {mixed(220.0, 225.0, 20.0), mixed(90.0, 225.0, 30.0), mixed(10.0, 225.0, 210.0)};
}

cv::Mat coloured(const DeviationMap& map, double scale) {
    cv::Mat3b picture(map.height, map.width, cv::Vec3b(60, 60, 60));
    for (int y = 0; y < map.height; ++y)
        for (int x = 0; x < map.width; ++x) {
            const float deviation = map.deviations[static_cast<std::size_t>(y * map.width + x)];
            if (std::isnan(deviation)) continue;
            picture(y, x) = std::isinf(deviation) ? cv::Vec3b(255, 255, 255) : colour_of(deviation / scale);
        }
    return std::move(picture);
}

void draw_tile(cv::Mat& picture, const cv::Rect& place, const ArtefactMeasurement& measurement, std::size_t number,
               double scale) {
    const Vector3d& at = measurement.artefact.place;
    put_text(picture,
             format_text("%zu  (%.0f, %.0f, %.0f)  %.3f mm", number, at.x(), at.y(), at.z(), measurement.formError),
             {place.x + 6, place.y + 15}, 0.42);
    const DeviationMap& map = measurement.map;
    if (map.width == 0) return;
    const double zoom = std::min(static_cast<double>(place.width - 10) / map.width,
                                 static_cast<double>(place.height - captionHeight - 10) / map.height);
    cv::Mat zoomed;
    cv::resize(coloured(map, scale), zoomed, {}, zoom, zoom, zoom < 1.0 ? cv::INTER_AREA : cv::INTER_NEAREST);
    const cv::Rect target(place.x + (place.width - zoomed.cols) / 2, place.y + captionHeight, zoomed.cols, zoomed.rows);
    zoomed.copyTo(picture(target));
}

void draw_scale(cv::Mat& picture, double scale) {
    const int width = 240, left = picture.cols - width - 90;
    for (int x = 0; x < width; ++x)
        cv::line(picture, {left + x, 10}, {left + x, 24}, cv::Scalar(colour_of(2.0 * x / (width - 1) - 1.0)));
    put_text(picture, format_text("-%g", scale), {left - 55, 22}, 0.42);
    put_text(picture, format_text("+%g mm", scale), {left + width + 6, 22}, 0.42);
}

}  // namespace

cv::Mat draw_deviation_maps(const std::vector<const ArtefactMeasurement*>& measurements, double scale) {
    const int count = static_cast<int>(measurements.size());
    const int rows = (count + columns - 1) / columns;
    const int across = std::max(std::min(count, columns), 3);
    cv::Mat picture(headHeight + rows * tileHeight, across * tileWidth, CV_8UC3, darkPaper);
    put_text(picture, std::string(name_of(measurements.front()->artefact.kind)) + ": deviation from the fitted surface",
             {8, 22}, 0.5);
    draw_scale(picture, scale);
    for (int i = 0; i < count; ++i)
        draw_tile(picture, {i % columns * tileWidth, headHeight + i / columns * tileHeight, tileWidth, tileHeight},
                  *measurements[static_cast<std::size_t>(i)], static_cast<std::size_t>(i + 1), scale);
    return picture;
}

}  // namespace VexelAlgorithm::Apps
