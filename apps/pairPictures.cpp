#include "apps/pairPictures.h"

#include <algorithm>
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "apps/pictureText.h"
#include "apps/searchRange.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr int lineStep = 40;
constexpr int scaleWidth = 110;
constexpr int barWidth = 18;
constexpr int labels = 9;
constexpr double fontSize = 0.45;

/// One value a slot, where there is one.
struct ValueMap {
    cv::Mat1f values;
    cv::Mat1b isThere;
};

template <class Value>
ValueMap value_map(const PointImage& frame, Value&& value) {
    const int width = frame.get_image_width(), height = frame.get_image_height();
    ValueMap map{cv::Mat1f(height, width, 0.0F), cv::Mat1b(height, width, std::uint8_t{0})};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            if (!frame.has_point(frame.index_of(x, y))) continue;
            map.values(y, x) = static_cast<float>(value(frame.get_point(x, y)));
            map.isThere(y, x) = 255;
        }
    }
    return map;
}

struct ValueRange {
    float low = 0.0F;
    float high = 1.0F;
};

/// All values but the half percent at either end, so that a few outliers do not cost the contrast.
ValueRange usual_range(const ValueMap& map) {
    std::vector<float> values;
    for (int y = 0; y < map.values.rows; ++y)
        for (int x = 0; x < map.values.cols; ++x)
            if (map.isThere(y, x) != 0) values.push_back(map.values(y, x));
    if (values.empty()) return {};
    std::sort(values.begin(), values.end());
    const std::size_t cut = values.size() / 200;
    const float low = values[cut], high = values[values.size() - 1 - cut];
    return {low, std::max(high, low + 1e-3F)};
}

cv::Mat in_colour(const cv::Mat1f& shares) {
    cv::Mat bytes, colours;
    shares.convertTo(bytes, CV_8U, 255.0);
    cv::applyColorMap(bytes, colours, cv::COLORMAP_TURBO);
    return colours;
}

void draw_scale(cv::Mat& picture, const cv::Rect& place, const ValueRange& range) {
    const int top = place.y + 20, height = place.height - 40;
    cv::Mat1f shares(height, barWidth);
    for (int y = 0; y < height; ++y) shares.row(y) = 1.0F - static_cast<float>(y) / static_cast<float>(height - 1);
    in_colour(shares).copyTo(picture(cv::Rect(place.x + 10, top, barWidth, height)));
    for (int i = 0; i < labels; ++i) {
        const double share = static_cast<double>(i) / (labels - 1);
        const int y = top + static_cast<int>((1.0 - share) * (height - 1));
        put_text(picture, format_text("%.1f", range.low + share * (range.high - range.low)),
                 {place.x + 16 + barWidth, y + 5}, fontSize);
    }
}

cv::Mat draw_values(const ValueMap& map, const char* title) {
    const ValueRange range = usual_range(map);
    const cv::Mat1f shares = (map.values - range.low) / (range.high - range.low);
    cv::Mat colours(map.values.size(), CV_8UC3, cv::Scalar::all(0));
    in_colour(shares).copyTo(colours, map.isThere);

    const int titleHeight = 26, height = std::max(colours.rows, 120);
    cv::Mat picture(height + titleHeight, colours.cols + scaleWidth, CV_8UC3, darkPaper);
    colours.copyTo(picture(cv::Rect(0, titleHeight, colours.cols, colours.rows)));
    draw_scale(picture, {colours.cols, titleHeight, scaleWidth, height}, range);
    put_text(picture, title, {8, 18}, fontSize);
    return picture;
}

}  // namespace

Outcome<RectifiedPair> rectified_pair(const StereoImages& images, const Rig& rig) {
    const int width = images.left.width, height = images.left.height;
    RectifiedPair pair{cv::Mat(height, width, CV_8UC1), cv::Mat(height, width, CV_8UC1)};
    if (rig.calibration.remap_image_LR(images.left.pixels.data(), images.right.pixels.data(), pair.left.data,
                                       pair.right.data))
        return pair;
    return Failure{"the pair cannot be rectified; the line above says why"};
}

cv::Mat draw_rectified_pair(const StereoImages& images, const Rig& rig) {
    const Outcome<RectifiedPair> pair = rectified_pair(images, rig);
    if (!pair) return {};
    const int width = images.left.width, height = images.left.height;
    cv::Mat picture;
    cv::hconcat(pair->left, pair->right, picture);
    cv::cvtColor(picture, picture, cv::COLOR_GRAY2BGR);
    const cv::Scalar colours[] = {{80, 200, 80}, {60, 160, 255}, {255, 170, 60}};
    for (int y = lineStep / 2; y < height; y += lineStep)
        cv::line(picture, {0, y}, {picture.cols - 1, y}, colours[(y / lineStep) % 3], 1);
    cv::line(picture, {width, 0}, {width, height - 1}, cv::Scalar::all(255), 1);
    return picture;
}

cv::Mat draw_parallax_map(const PointImage& frame, const Rig& rig) {
    const ParallaxOfDepth parallax(rig.calibration);
    return draw_values(value_map(frame, [&](const Vector3f& point) { return parallax(point.z()); }),
                       "parallax (right - left column), pixels");
}

cv::Mat draw_depth_map(const PointImage& frame) {
    return draw_values(value_map(frame, [](const Vector3f& point) { return point.z(); }), "depth, mm");
}

}  // namespace VexelAlgorithm::Apps
