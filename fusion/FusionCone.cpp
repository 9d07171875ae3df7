#include "fusion/FusionCone.h"

#include <algorithm>
#include <cmath>

namespace VexelAlgorithm {
namespace Fusion {
namespace {

// Slopes at half-width r around a position, the smaller first: a negative half-width spans the same cone.
Vector2f slope_pair(double position, float r, double principal, double focal) {
    const float a = static_cast<float>((position - r - principal) / focal);
    const float b = static_cast<float>((position + r - principal) / focal);
    return {std::min(a, b), std::max(a, b)};
}

bool is_positive(double value) {
    return std::isfinite(value) && value > 0.0;
}

}  // namespace

void FusionCone::clear() {
    _columns.clear();
    _rows.clear();
}

bool FusionCone::is_usable(const CameraInParam& camera) {
    return is_positive(camera.get_fx()) && is_positive(camera.get_fy()) && std::isfinite(camera.get_cx()) &&
           std::isfinite(camera.get_cy());
}

bool FusionCone::build(const PointImage& frame, float smoothThreshold) {
    const CameraInParam& camera = frame.get_camPar();
    if (frame.get_image_width() < 1 || frame.get_image_height() < 1 || !is_usable(camera)) return false;

    clear();
    for (int u = 0; u < frame.get_image_width(); ++u) {
        _columns.push_back(slope_pair(static_cast<double>(u) + frame.get_viewRadialX(), smoothThreshold,
                                      camera.get_cx(), camera.get_fx()));
    }
    for (int v = 0; v < frame.get_image_height(); ++v) {
        _rows.push_back(slope_pair(static_cast<double>(v) + frame.get_viewRadialY(), smoothThreshold, camera.get_cy(),
                                   camera.get_fy()));
    }
    _open = !(std::abs(smoothThreshold) > 0.0f);
    return true;
}

std::array<Vector3f, 4> FusionCone::plane_normals(int u, int v) const {
    const PixelCone cone = pixel(u, v);
    const float width = cone.right - cone.left;
    const float height = cone.bottom - cone.top;
    return {Vector3f(height, 0.0f, -height * cone.left), Vector3f(0.0f, width, -width * cone.top),
            Vector3f(-height, 0.0f, height * cone.right), Vector3f(0.0f, -width, width * cone.bottom)};
}

PixelCone cone_around(const CameraInParam& camera, float u, float v, float r) {
    const Vector2f column = slope_pair(u, r, camera.get_cx(), camera.get_fx());
    const Vector2f row = slope_pair(v, r, camera.get_cy(), camera.get_fy());
    return {column.x(), column.y(), row.x(), row.y()};
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
