// From parallax to space in rectified-left coordinates.
#pragma once

#include "foundation/CameraInParam.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// A rectified pair: parallax c - x = depthFactor / z - centreOffset, pixels. Camera coordinates of the rectified left
/// camera, mm.
struct StereoGeometry {
    CameraInParam camera;  ///< rectified left intrinsics, full size
    double depthFactor =
        -1.0;  ///< focal length times the right camera's x offset: negative when it stands to the right
    double centreOffset = 0.0;  ///< principal point left - right, pixels

    /// Depth z; negative or infinite for parallaxes that belong to no point in front of the cameras.
    double depth_of(double parallax) const { return depthFactor / (parallax + centreOffset); }
    double parallax_of(double depth) const { return depthFactor / depth - centreOffset; }

    Vector3d point(double x, double y, double parallax) const {
        Vector3d result;
        camera.depth_to_point(depth_of(parallax), Vector2d(x, y), result);
        return result;
    }
    /// Unit normal, facing the camera, of the facet with these slopes of the parallax (pixel per pixel). On a plane
    /// n P = 1 the inverse depth 1/z = n (ray with z = 1) is affine in the pixel, and so is the parallax.
    Vector3d normal(double x, double y, double parallax, double slopeX, double slopeY) const {
        const Vector2d ray((x - camera.get_cx()) / camera.get_fx(), (y - camera.get_cy()) / camera.get_fy());
        const double nx = slopeX * camera.get_fx() / depthFactor;
        const double ny = slopeY * camera.get_fy() / depthFactor;
        const double nz = 1.0 / depth_of(parallax) - nx * ray.x() - ny * ray.y();
        return -Vector3d(nx, ny, nz).normalized();
    }
};

}  // namespace VexelAlgorithm
