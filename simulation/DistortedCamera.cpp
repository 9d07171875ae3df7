#include "simulation/DistortedCamera.h"

#include <Eigen/LU>

#include "foundation/parallel.h"

namespace VexelAlgorithm::Simulation {

namespace {

Vector2d distorted(const std::array<double, 5>& k, const Vector2d& ideal) {
    const double x = ideal.x(), y = ideal.y();
    const double r2 = x * x + y * y;
    const double radial = 1.0 + r2 * (k[0] + r2 * (k[1] + r2 * k[4]));
    return {x * radial + 2.0 * k[2] * x * y + k[3] * (r2 + 2.0 * x * x),
            y * radial + k[2] * (r2 + 2.0 * y * y) + 2.0 * k[3] * x * y};
}

Eigen::Matrix2d distortion_derivative(const std::array<double, 5>& k, const Vector2d& ideal) {
    const double x = ideal.x(), y = ideal.y();
    const double r2 = x * x + y * y;
    const double radial = 1.0 + r2 * (k[0] + r2 * (k[1] + r2 * k[4]));
    const double slope = 2.0 * (k[0] + r2 * (2.0 * k[1] + 3.0 * r2 * k[4]));
    const double mixed = x * y * slope + 2.0 * k[2] * x + 2.0 * k[3] * y;
    Eigen::Matrix2d derivative;
    derivative << radial + x * x * slope + 2.0 * k[2] * y + 6.0 * k[3] * x, mixed, mixed,
        radial + y * y * slope + 6.0 * k[2] * y + 2.0 * k[3] * x;
    return derivative;
}

}  // namespace

Vector2d DistortedCamera::project(const Vector3d& point) const {
    const Vector2d bent = distorted(distortion, {point.x() / point.z(), point.y() / point.z()});
    return {fx * bent.x() + cx, fy * bent.y() + cy};
}

Vector2d DistortedCamera::direction_of(const Vector2d& pixel) const {
    const Vector2d bent((pixel.x() - cx) / fx, (pixel.y() - cy) / fy);
    Vector2d ideal = bent;
    for (int step = 0; step < 20; ++step) {
        const Vector2d rest = distorted(distortion, ideal) - bent;
        ideal -= distortion_derivative(distortion, ideal).inverse() * rest;
        if (rest.norm() < 1e-12) break;
    }
    return ideal;
}

PixelRays rays_of(const DistortedCamera& camera, int threads) {
    const auto width = static_cast<std::size_t>(camera.width);
    PixelRays rays{camera.width, camera.height, {}};
    rays.directions.resize(width * static_cast<std::size_t>(camera.height));
    parallel_ranges(threads, static_cast<std::size_t>(camera.height), 16, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y)
            for (std::size_t x = 0; x < width; ++x)
                rays.directions[y * width + x] = camera.direction_of({static_cast<double>(x), static_cast<double>(y)});
    });
    return rays;
}

}  // namespace VexelAlgorithm::Simulation
