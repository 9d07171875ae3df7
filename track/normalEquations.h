// The linear system of a point-to-plane registration step, and the motion that solves it.
#pragma once

#include <Eigen/Core>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {
namespace Track {

// The distance of a moving point from the tangent plane of its partner (Chen and Medioni, "Object modelling by
// registration of multiple range images", 1991) is linear in the six parameters of a small motion (Low, "Linear
// least-squares optimization for point-to-plane ICP surface registration", 2004).

using Matrix6d = Eigen::Matrix<double, 6, 6>;
using Vector6d = Eigen::Matrix<double, 6, 1>;

/// One correspondence: coordinates relative to the centre of the fixed image, mm.
struct CorrPoint {
    Vector3f fixed;   ///< q
    Vector3f normal;  ///< n
    Vector3f moving;  ///< m, in the fixed image's frame
};

/// The correspondence's row w (m x n, n) and right-hand side w (q - m) . n. The parameters are three angles in radians
/// and three lengths in mm.
struct SystemRow {
    float a[6];
    float r;
};

/// Sums of a a^T and a r. Rows are single precision, so every product is exact in double; the sums are double, because
/// the smallest eigenvalue of a view that slides is told from the largest over more digits than a float has.
struct NormalEquations {
    static constexpr int Terms = 27;
    /// The upper triangle of JTJ row by row, then JTb.
    double terms[Terms] = {};

    void add(const SystemRow& row) {
        int term = 0;
        for (int i = 0; i < 6; ++i) {
            for (int j = i; j < 6; ++j) terms[term++] += static_cast<double>(row.a[i]) * static_cast<double>(row.a[j]);
        }
        for (const float a : row.a) terms[term++] += static_cast<double>(a) * static_cast<double>(row.r);
    }
    NormalEquations& operator+=(const NormalEquations& other) {
        for (int i = 0; i < Terms; ++i) terms[i] += other.terms[i];
        return *this;
    }
    Matrix6d JTJ() const;
    Vector6d JTb() const { return Eigen::Map<const Vector6d>(terms + 21); }
};

/// The scale of the centred coordinates.
constexpr double AlignmentScale = 1.0;

/// Solves the system for (alpha, beta, gamma, tx, ty, tz). False when the determinant is NaN or the solution not
/// finite. Motions that the points do not determine, to twelve digits of what they determine best, get no share in the
/// solution (the pseudo-inverse, with angles counted at the points' mean lever arm), and a warning goes to the log.
bool solve(const NormalEquations& system, Vector6d& solution);

/// The motion of the parameters about the centre (mm): rotation Rz(gamma) Ry(beta) Rx(alpha).
RigidMatrix increment(const Vector6d& solution, const Vector3d& centre);

/// The pose (moving to fixed) after a solved step: the motion composed with it, re-orthonormalised. False, and the pose
/// as it was, when there is no solution.
bool step_pose(const NormalEquations& system, const Vector3d& centre, RigidMatrix& movingToFixed);

/// Smallest eigenvalue of JTJ; NaN, and a warning in the log, when it cannot be found.
double smallest_eigenvalue(const Matrix6d& JTJ);

}  // namespace Track
}  // namespace VexelAlgorithm
