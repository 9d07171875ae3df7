// Pinhole intrinsics of one camera.
#pragma once

#include <iosfwd>

#include "foundation/export.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// Focal lengths and principal point in pixels; no distortion, because images are rectified before they
/// reach this type. The centre of the first pixel is (0, 0). Camera space: x right, y down, z forward.
class VEXEL_API CameraInParam {
public:
    CameraInParam() = default;
    CameraInParam(double fx, double fy, double cx, double cy) { set_param(fx, fy, cx, cy); }

    void set_param(double fx, double fy, double cx, double cy) {
        _fx = fx;
        _fy = fy;
        _cx = cx;
        _cy = cy;
    }
    double get_fx() const { return _fx; }
    double get_fy() const { return _fy; }
    double get_cx() const { return _cx; }
    double get_cy() const { return _cy; }

    /// The camera of an image sub-sampled by `sample`: all four values divided by it.
    CameraInParam scaled_down(double sample) const { return {_fx / sample, _fy / sample, _cx / sample, _cy / sample}; }

    /// Camera-space point to pixel: u = fx x / z + cx, v = fy y / z + cy. z must not be 0.
    void point_to_image(const Vector3d& point, Vector2d& pixel) const {
        pixel = {_fx * point.x() / point.z() + _cx, _fy * point.y() / point.z() + _cy};
    }
    void point_to_image(const Vector3f& point, Vector2f& pixel) const {
        Vector2d wide;
        point_to_image(Vector3d(point.cast<double>()), wide);
        pixel = wide.cast<float>();
    }
    /// Pixel at a depth (z, not ray length) to camera-space point.
    void depth_to_point(double depth, const Vector2d& pixel, Vector3d& point) const {
        point = {(pixel.x() - _cx) / _fx * depth, (pixel.y() - _cy) / _fy * depth, depth};
    }
    void depth_to_point(float depth, const Vector2f& pixel, Vector3f& point) const {
        Vector3d wide;
        depth_to_point(static_cast<double>(depth), Vector2d(pixel.cast<double>()), wide);
        point = wide.cast<float>();
    }

    /// 32 bytes: fx, fy, cx, cy as doubles in machine byte order.
    bool write_archive(std::ostream& out) const;
    /// On failure returns false and leaves the object as it was.
    bool read_archive(std::istream& in);

private:
    double _fx = 0.0;
    double _fy = 0.0;
    double _cx = 0.0;
    double _cy = 0.0;
};

}  // namespace VexelAlgorithm
