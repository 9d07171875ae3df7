#include "apps/shading.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

namespace VexelAlgorithm::Apps {
namespace {

// Camera coordinates: x right, y down, z forward. Colours are linear BGR.
const Vector3f keyLight = Vector3f(-0.62f, -0.55f, -0.56f).normalized();
const Vector3f fillLight = Vector3f(0.85f, -0.10f, -0.50f).normalized();
const Vector3f skyDirection(0.0f, -1.0f, 0.0f);
const Vector3f clay(0.60f, 0.70f, 0.78f);
const Vector3f keyColour(0.80f, 0.92f, 1.00f);
const Vector3f fillColour(0.16f, 0.13f, 0.11f);
const Vector3f skyColour(0.30f, 0.25f, 0.20f);
const Vector3f groundColour(0.07f, 0.075f, 0.085f);
const Vector3f backgroundTop(0.036f, 0.027f, 0.022f);
const Vector3f backgroundBottom(0.105f, 0.085f, 0.070f);

Vector3f lit_colour(const Vector3f& normal, const Vector3f& toCamera) {
    const float key = std::max(0.0f, normal.dot(keyLight));
    const float sky = 0.5f + 0.5f * normal.dot(skyDirection);
    const Vector3f halfway = (keyLight + toCamera).normalized();
    const float shine = 0.06f * std::pow(std::max(0.0f, normal.dot(halfway)), 24.0f);
    const float fill = std::max(0.0f, normal.dot(fillLight));
    const Vector3f light = 0.72f * key * keyColour + fill * fillColour + sky * skyColour + (1.0f - sky) * groundColour;
    return clay.cwiseProduct(light) + Vector3f::Constant(shine);
}

/// How far each pixel lies behind its surroundings, as a factor of its brightness. Works on inverse depth, in
/// which the background is 0.
cv::Mat depth_darkening(const cv::Mat& inverseDepth) {
    cv::Mat surroundings;
    const double scale = 0.022 * std::max(inverseDepth.cols, inverseDepth.rows);
    cv::GaussianBlur(inverseDepth, surroundings, cv::Size(), scale, scale, cv::BORDER_REPLICATE);
    cv::Mat factor(inverseDepth.size(), CV_32FC1);
    for (int y = 0; y < factor.rows; ++y) {
        for (int x = 0; x < factor.cols; ++x) {
            const float own = inverseDepth.at<float>(y, x);
            const float behind = own > 0.0f ? std::max(0.0f, surroundings.at<float>(y, x) / own - 1.0f) : 0.0f;
            factor.at<float>(y, x) = std::max(0.35f, 1.0f - 2.2f * behind);
        }
    }
    return factor;
}

cv::Mat inverse_depth_of(const PointImage& frame) {
    cv::Mat inverse(frame.get_image_height(), frame.get_image_width(), CV_32FC1, cv::Scalar(0));
    for (int y = 0; y < inverse.rows; ++y) {
        for (int x = 0; x < inverse.cols; ++x) {
            const bool hasDepth = frame.has_point(frame.index_of(x, y)) && frame.get_point(x, y).z() > 0.0f;
            if (hasDepth) inverse.at<float>(y, x) = 1.0f / frame.get_point(x, y).z();
        }
    }
    return inverse;
}

/// The transfer curve of sRGB, approximated by its exponent.
unsigned char display_value(float linear) {
    return static_cast<unsigned char>(255.0f * std::pow(std::clamp(linear, 0.0f, 1.0f), 1.0f / 2.2f) + 0.5f);
}

cv::Vec3b display_colour(const Vector3f& linear) {
    return {display_value(linear.x()), display_value(linear.y()), display_value(linear.z())};
}

}  // namespace

cv::Mat shaded_picture(const PointImage& frame) {
    const cv::Mat inverseDepth = inverse_depth_of(frame);
    const cv::Mat darkening = depth_darkening(inverseDepth);
    cv::Mat picture(inverseDepth.size(), CV_8UC3);
    for (int y = 0; y < picture.rows; ++y) {
        const float down = static_cast<float>(y) / static_cast<float>(picture.rows);
        const cv::Vec3b background = display_colour(backgroundTop + down * (backgroundBottom - backgroundTop));
        for (int x = 0; x < picture.cols; ++x) {
            const Vector3f& normal = frame.get_normal(x, y);
            const bool isDrawn = inverseDepth.at<float>(y, x) > 0.0f && normal.allFinite() && !normal.isZero();
            const Vector3f toCamera = isDrawn ? Vector3f(-frame.get_point(x, y).normalized()) : Vector3f::Zero();
            picture.at<cv::Vec3b>(y, x) =
                isDrawn ? display_colour(darkening.at<float>(y, x) * lit_colour(normal, toCamera)) : background;
        }
    }
    return picture;
}

}  // namespace VexelAlgorithm::Apps
