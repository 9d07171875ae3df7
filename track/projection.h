// Where a moving point falls in the fixed image: the projective data association of the trackers.
#pragma once

#include <cmath>
#include <cstdint>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {
namespace Track {

// Association by projection instead of a search for the nearest point: Blais and Levine, "Registering multiview range
// data to create 3D computer objects", 1995. Everything per point is single precision: at 3 m a coordinate is good to
// 0.0003 mm and a pixel position to 0.0001. The vector kernels do the same operations in the same order, without
// fused products, so both give the same bits.

/// A point of the moving image (mm, its own frame) and its weight, which may be any number but NaN.
struct alignas(16) MovingPoint {
    float x, y, z, weight;
};

/// The pose that takes moving points to the fixed image's frame.
struct FloatPose {
    float r00, r01, r02, r10, r11, r12, r20, r21, r22;
    float tx, ty, tz;  ///< mm

    explicit FloatPose(const RigidMatrix& movingToFixed) {
        const Eigen::Matrix3f r = movingToFixed.get_rotation().cast<float>();
        const Vector3f t = movingToFixed.get_translation().cast<float>();
        r00 = r(0, 0), r01 = r(0, 1), r02 = r(0, 2);
        r10 = r(1, 0), r11 = r(1, 1), r12 = r(1, 2);
        r20 = r(2, 0), r21 = r(2, 1), r22 = r(2, 2);
        tx = t.x(), ty = t.y(), tz = t.z();
    }
};

/// The camera of the fixed image and its grid of slots: slot (x, y) looks through pixel (x + radialX, y + radialY).
struct SlotCamera {
    float fx = 1.0F, fy = 1.0F, cx = 0.0F, cy = 0.0F;  ///< pixels
    float radialX = 0.0F, radialY = 0.0F;              ///< pixels
    std::int32_t width = 0, height = 0;                ///< slots, at most 2^24 a side
};

/// A moving point in the fixed image's frame.
struct ProjectedPoint {
    float x, y, z;     ///< mm
    float rayX, rayY;  ///< x / z and y / z: the viewing ray at depth 1
    float u, v;        ///< pixel position
};

/// Values mean nothing where z is not above 0.
inline ProjectedPoint project(const MovingPoint& m, const FloatPose& pose, const SlotCamera& camera) {
    ProjectedPoint p;
    p.x = (pose.r00 * m.x + pose.r01 * m.y) + (pose.r02 * m.z + pose.tx);
    p.y = (pose.r10 * m.x + pose.r11 * m.y) + (pose.r12 * m.z + pose.ty);
    p.z = (pose.r20 * m.x + pose.r21 * m.y) + (pose.r22 * m.z + pose.tz);
    const float inverse = 1.0F / p.z;
    p.rayX = p.x * inverse;
    p.rayY = p.y * inverse;
    p.u = camera.fx * p.rayX + camera.cx;
    p.v = camera.fy * p.rayY + camera.cy;
    return p;
}

/// Position of a pixel on the grid of slots, rounded to the slot it lies in; truncation towards zero takes positions
/// down to -1 (excluded) into slot 0.
struct SlotPosition {
    float x, y;  ///< to be truncated

    bool is_inside(const SlotCamera& camera) const {
        return x > -1.0F && y > -1.0F && x < static_cast<float>(camera.width) && y < static_cast<float>(camera.height);
    }
    /// At least `border` slots from every edge, counted in whole slots. Implies `is_inside` for a border of at least 0.
    bool is_inside(const SlotCamera& camera, int border) const {
        const float low = border > 0 ? static_cast<float>(border) : -1.0F;
        const bool isLowInside = border > 0 ? x >= low && y >= low : x > low && y > low;
        return isLowInside && x < static_cast<float>(camera.width - border) &&
               y < static_cast<float>(camera.height - border);
    }
    /// Only for positions that are inside.
    std::int32_t index(const SlotCamera& camera) const {
        return static_cast<std::int32_t>(y) * camera.width + static_cast<std::int32_t>(x);
    }
};

inline SlotPosition nearest_slot(const ProjectedPoint& p, const SlotCamera& camera) {
    return {(p.u + 0.5F) - camera.radialX, (p.v + 0.5F) - camera.radialY};
}
/// Truncated, the top-left slot of the 2 x 2 block around the pixel.
inline SlotPosition block_position(const ProjectedPoint& p, const SlotCamera& camera) {
    return {p.u - camera.radialX, p.v - camera.radialY};
}

/// In front of the camera, and its pixel at least `ImageBorder` from the edges of the image.
constexpr int ImageBorder = 5;
inline bool is_in_view(const ProjectedPoint& p, const SlotCamera& camera) {
    constexpr float low = ImageBorder;
    return p.z > 0.0F && p.u >= low && p.v >= low && p.u < static_cast<float>(camera.width - ImageBorder) &&
           p.v < static_cast<float>(camera.height - ImageBorder);
}

}  // namespace Track
}  // namespace VexelAlgorithm
