// A camera with a real lens: pinhole and distortion, and the rays of its pixels.
#pragma once

#include <array>
#include <vector>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm::Simulation {

/// A calibrated camera. Pixels are those of the image as stored, the centre of the first one at (0, 0); distortion as
/// in D. C. Brown, "Close-range camera calibration", 1971, with the coefficients k1 k2 p1 p2 k3:
///     x' = x (1 + k1 r^2 + k2 r^4 + k3 r^6) + 2 p1 x y + p2 (r^2 + 2 x^2),  y' likewise,  x = X / Z, y = Y / Z.
struct DistortedCamera {
    int width = 1280;
    int height = 1024;
    double fx = 2000.0;
    double fy = 2000.0;
    double cx = 639.5;
    double cy = 511.5;
    std::array<double, 5> distortion{};  ///< k1 k2 p1 p2 k3
    RigidMatrix rigToCamera;             ///< from the coordinates of the rig's calibration, mm

    /// Pixel of a point (mm) in camera coordinates; its z must be above 0.
    Vector2d project(const Vector3d& point) const;
    /// The direction (x, y, 1) in camera coordinates that a pixel looks along, by Newton's method to 1e-12.
    Vector2d direction_of(const Vector2d& pixel) const;
};

/// The directions (x, y, 1) of all pixels of an image, row by row.
struct PixelRays {
    int width = 0;
    int height = 0;
    std::vector<Vector2d> directions;

    Vector3d at(int x, int y) const {
        const Vector2d& direction =
            directions[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
        return {direction.x(), direction.y(), 1.0};
    }
};
PixelRays rays_of(const DistortedCamera& camera, int threads = 2);

}  // namespace VexelAlgorithm::Simulation
