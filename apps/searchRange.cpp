#include "apps/searchRange.h"

#include <algorithm>
#include <cmath>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr int gridStep = 8;

bool is_inside(const Vector2d& pixel, const Vector2i& size) {
    return (pixel.array() >= 0.0).all() && pixel.x() <= size.x() - 1 && pixel.y() <= size.y() - 1;
}

}  // namespace

ParallaxOfDepth::ParallaxOfDepth(const Rebuild::CaliParReadIn& calibration)
    : depthFactor(calibration.get_right_projection()(0, 3)),
      centreOffset(calibration.get_left_projection()(0, 2) - calibration.get_right_projection()(0, 2)) {}

double ParallaxOfDepth::baseline(const Rebuild::CaliParReadIn& calibration) const {
    return std::abs(depthFactor / calibration.get_right_projection()(0, 0));
}

Outcome<Vector2i> search_range(const Rebuild::CaliParReadIn& calibration, double nearest, double farthest, int sample) {
    const ParallaxOfDepth parallax(calibration);
    const auto [low, high] = std::minmax({parallax(nearest), parallax(farthest)});
    const int width = calibration.get_image_size().x(), margin = marginSamples * sample;
    if (low >= width || high <= -width)
        return Failure{
            format_text("no point between %g and %g mm is seen by both cameras; take other depths", nearest, farthest)};
    return Vector2i(static_cast<int>(std::floor(std::max(low, -1.0 * width))) - margin,
                    static_cast<int>(std::ceil(std::min(high, 1.0 * width))) + 1 + margin);
}

Vector2d rectified_depths(const Rebuild::CaliParReadIn& calibration, double nearest, double farthest) {
    const CameraInParam camera = calibration.get_rectified_camera();
    const Vector2i size = calibration.get_image_size();
    const Eigen::RowVector3d rawAxis = calibration.get_rectified_to_raw().get_rotation().row(2);
    const float* map = calibration.get_left_map();
    Vector2d depths(farthest, nearest);
    for (int y = 0; y < size.y(); y += gridStep) {
        for (int x = 0; x < size.x(); x += gridStep) {
            const std::ptrdiff_t pixel = static_cast<std::ptrdiff_t>(y) * size.x() + x;
            if (!is_inside({map[2 * pixel], map[2 * pixel + 1]}, size)) continue;
            Vector3d ray;
            camera.depth_to_point(1.0, Vector2d(x, y), ray);
            const double rawDepth = rawAxis.dot(ray);
            depths = {std::min(depths(0), nearest / rawDepth), std::max(depths(1), farthest / rawDepth)};
        }
    }
    return depths;
}

}  // namespace VexelAlgorithm::Apps
