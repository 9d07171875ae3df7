// Spheres and planes through measured points, and how far the points are off them.
#pragma once

#include <optional>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm::Apps {

// Points in mm. Fits are those of least squares of the distances to the surface; they are nothing for too few points,
// points that do not determine the surface, and points that are not finite.

struct FittedSphere {
    Vector3d centre = Vector3d::Zero();
    double radius = 0.0;

    double deviation(const Vector3d& point) const { return (point - centre).norm() - radius; }
};
/// Gauss-Newton steps from the algebraic solution, which is linear (I. D. Coope, "Circle fitting by linear and
/// nonlinear least squares", J. Optimization Theory and Applications 76, 1993). At least four points.
std::optional<FittedSphere> fit_sphere(const std::vector<Vector3d>& points);

struct FittedPlane {
    Vector3d centroid = Vector3d::Zero();
    Vector3d normal = Vector3d::UnitZ();  ///< towards the origin

    double deviation(const Vector3d& point) const { return normal.dot(point - centroid); }
};
/// Through the centroid, across the eigenvector of the smallest eigenvalue of the covariance. At least three points.
std::optional<FittedPlane> fit_plane(const std::vector<Vector3d>& points);

/// A fit to all points but the worst ones.
template <class Surface>
struct TrimmedFit {
    Surface surface;
    std::vector<char> isKept;  ///< of every point
    std::size_t leftOut = 0;
    double low = 0.0;  ///< extreme deviations of the kept points, mm
    double high = 0.0;
    double rms = 0.0;  ///< of the kept points, mm

    double form_error() const { return high - low; }
};
/// Fits all points, leaves out the share (0 to below 1, rounded down to whole points) of them that is farthest from
/// that surface, and fits the others anew, once.
std::optional<TrimmedFit<FittedSphere>> fit_sphere_without_worst(const std::vector<Vector3d>& points, double share);
std::optional<TrimmedFit<FittedPlane>> fit_plane_without_worst(const std::vector<Vector3d>& points, double share);

}  // namespace VexelAlgorithm::Apps
