#include "apps/surfaceFit.h"

#include <Eigen/Cholesky>
#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <numeric>

namespace VexelAlgorithm::Apps {

namespace {

using Points = std::vector<Vector3d>;
using Eigen::Vector4d;

constexpr int mostSteps = 50;
constexpr double settledStep = 1e-12;     ///< of the radius
constexpr double leastCondition = 1e-12;  ///< smallest eigenvalue of a normal matrix, relative to the largest
constexpr double largestRadius = 1e6;     ///< of the points' spread; flatter caps are planes

bool are_finite(const Points& points) {
    return std::all_of(points.begin(), points.end(), [](const Vector3d& p) { return p.allFinite(); });
}

Vector3d centroid_of(const Points& points) {
    return std::accumulate(points.begin(), points.end(), Vector3d(Vector3d::Zero())) /
           static_cast<double>(points.size());
}

Matrix3d covariance_of(const Points& points, const Vector3d& centroid) {
    Matrix3d sum = Matrix3d::Zero();
    for (const Vector3d& point : points) sum += (point - centroid) * (point - centroid).transpose();
    return sum / static_cast<double>(points.size());
}

std::optional<Vector4d> solved(const Matrix4d& normal, const Vector4d& right) {
    const Eigen::SelfAdjointEigenSolver<Matrix4d> eigen(normal);
    const Vector4d& values = eigen.eigenvalues();
    if (!(values(0) > leastCondition * values(3))) return std::nullopt;
    return Vector4d(normal.ldlt().solve(right));
}

/// |p|^2 = 2 c p + (r^2 - |c|^2), linear in c and the bracket; lengths in units of `scale` about `origin`.
std::optional<FittedSphere> algebraic_sphere(const Points& points, const Vector3d& origin, double scale) {
    Matrix4d normal = Matrix4d::Zero();
    Vector4d right = Vector4d::Zero();
    for (const Vector3d& point : points) {
        const Vector3d local = (point - origin) / scale;
        const Vector4d row(2.0 * local.x(), 2.0 * local.y(), 2.0 * local.z(), 1.0);
        normal += row * row.transpose();
        right += local.squaredNorm() * row;
    }
    const std::optional<Vector4d> solution = solved(normal, right);
    if (!solution) return std::nullopt;
    const Vector3d centre = solution->head<3>();
    const double squaredRadius = (*solution)(3) + centre.squaredNorm();
    if (!(squaredRadius > 0.0)) return std::nullopt;
    return FittedSphere{origin + scale * centre, scale * std::sqrt(squaredRadius)};
}

/// The step of Gauss and Newton for sum (|p - c| - r)^2.
std::optional<Vector4d> geometric_step(const Points& points, const FittedSphere& sphere) {
    Matrix4d normal = Matrix4d::Zero();
    Vector4d right = Vector4d::Zero();
    for (const Vector3d& point : points) {
        const Vector3d away = point - sphere.centre;
        const double distance = away.norm();
        if (distance == 0.0) continue;
        Vector4d row;
        row << -away / distance, -1.0;
        normal += row * row.transpose();
        right -= (distance - sphere.radius) * row;
    }
    return solved(normal, right);
}

template <class Surface, class Fit>
std::optional<TrimmedFit<Surface>> fit_without_worst(const Points& points, double share, const Fit& fit) {
    const std::optional<Surface> first = fit(points);
    if (!first) return std::nullopt;
    std::vector<std::size_t> order(points.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    TrimmedFit<Surface> result;
    result.leftOut = static_cast<std::size_t>(std::clamp(share, 0.0, 1.0) * static_cast<double>(points.size()));
    const auto firstWorst = order.end() - static_cast<std::ptrdiff_t>(result.leftOut);
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return std::abs(first->deviation(points[a])) < std::abs(first->deviation(points[b]));
    });
    result.isKept.assign(points.size(), 0);
    Points kept;
    for (auto i = order.begin(); i != firstWorst; ++i) result.isKept[*i] = 1;
    for (std::size_t i = 0; i < points.size(); ++i)
        if (result.isKept[i] != 0) kept.push_back(points[i]);
    const std::optional<Surface> second = fit(kept);
    if (!second) return std::nullopt;
    result.surface = *second;
    result.low = result.high = second->deviation(kept.front());
    double squares = 0.0;
    for (const Vector3d& point : kept) {
        const double deviation = second->deviation(point);
        result.low = std::min(result.low, deviation);
        result.high = std::max(result.high, deviation);
        squares += deviation * deviation;
    }
    result.rms = std::sqrt(squares / static_cast<double>(kept.size()));
    return result;
}

}  // namespace

std::optional<FittedSphere> fit_sphere(const Points& points) {
    if (points.size() < 4 || !are_finite(points)) return std::nullopt;
    const Vector3d origin = centroid_of(points);
    const double spread = std::sqrt(covariance_of(points, origin).trace());
    if (!(spread > 0.0)) return std::nullopt;
    std::optional<FittedSphere> sphere = algebraic_sphere(points, origin, spread);
    for (int step = 0; sphere && step < mostSteps; ++step) {
        const std::optional<Vector4d> change = geometric_step(points, *sphere);
        if (!change) return std::nullopt;
        sphere->centre += change->head<3>();
        sphere->radius += (*change)(3);
        if (!(sphere->radius > 0.0 && sphere->radius < largestRadius * spread)) return std::nullopt;
        if (change->norm() < settledStep * sphere->radius) break;
    }
    return sphere;
}

std::optional<FittedPlane> fit_plane(const Points& points) {
    if (points.size() < 3 || !are_finite(points)) return std::nullopt;
    FittedPlane plane;
    plane.centroid = centroid_of(points);
    const Eigen::SelfAdjointEigenSolver<Matrix3d> eigen(covariance_of(points, plane.centroid));
    const Vector3d& values = eigen.eigenvalues();
    if (!(values(1) > leastCondition * values(2))) return std::nullopt;
    plane.normal = eigen.eigenvectors().col(0);
    if (plane.normal.dot(plane.centroid) > 0.0) plane.normal = -plane.normal;
    return plane;
}

std::optional<TrimmedFit<FittedSphere>> fit_sphere_without_worst(const Points& points, double share) {
    return fit_without_worst<FittedSphere>(points, share, fit_sphere);
}

std::optional<TrimmedFit<FittedPlane>> fit_plane_without_worst(const Points& points, double share) {
    return fit_without_worst<FittedPlane>(points, share, fit_plane);
}

}  // namespace VexelAlgorithm::Apps
