#include "track/normalEquations.h"

#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <cmath>
#include <limits>

#include "foundation/numericWarning.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

NumericWarning NearlySingular("registration: the 6 x 6 system of a step is singular or nearly so");
NumericWarning NoEigenvalues("registration: the eigenvalues of the 6 x 6 system cannot be found");

using EigenSolver = Eigen::SelfAdjointEigenSolver<Matrix6d>;

/// Length (mm) by which an angle moves the points on average: it makes angles and lengths comparable.
double mean_lever_arm(const Matrix6d& JTJ) {
    const double squared = JTJ.topLeftCorner<3, 3>().trace() / JTJ.bottomRightCorner<3, 3>().trace();
    return std::isfinite(squared) && squared > 0.0 ? std::sqrt(squared) : 1.0;
}

}  // namespace

Matrix6d NormalEquations::JTJ() const {
    Matrix6d matrix;
    int term = 0;
    for (int i = 0; i < 6; ++i) {
        for (int j = i; j < 6; ++j) matrix(i, j) = matrix(j, i) = terms[term++];
    }
    return matrix;
}

bool solve(const NormalEquations& system, Vector6d& solution) {
    const Matrix6d JTJ = system.JTJ();
    const Vector6d JTb = system.JTb();
    if (std::isnan(JTJ.determinant()) || !JTJ.allFinite() || !JTb.allFinite()) return false;

    const double arm = mean_lever_arm(JTJ);
    Vector6d units = Vector6d::Ones();
    units.head<3>().setConstant(1.0 / arm);
    const EigenSolver eigen(units.asDiagonal() * JTJ * units.asDiagonal());
    if (eigen.info() != Eigen::Success) {
        NoEigenvalues.log();
        return false;
    }
    constexpr double Determined = 1e-12;
    const double floor = Determined * eigen.eigenvalues()(5);
    const Vector6d projected = eigen.eigenvectors().transpose() * (units.asDiagonal() * JTb);
    Vector6d scaled = Vector6d::Zero();
    int undetermined = 0;
    for (int i = 0; i < 6; ++i) {
        if (eigen.eigenvalues()(i) > floor) {
            scaled += eigen.eigenvectors().col(i) * (projected(i) / eigen.eigenvalues()(i));
        } else {
            ++undetermined;
        }
    }
    if (undetermined > 0) NearlySingular.log();
    solution = units.asDiagonal() * scaled;
    return solution.allFinite();
}

RigidMatrix increment(const Vector6d& solution, const Vector3d& centre) {
    const Matrix3d rotation =
        (Eigen::AngleAxisd(solution(2), Vector3d::UnitZ()) * Eigen::AngleAxisd(solution(1), Vector3d::UnitY()) *
         Eigen::AngleAxisd(solution(0), Vector3d::UnitX()))
            .toRotationMatrix();
    return {rotation, solution.tail<3>() / AlignmentScale + centre - rotation * centre};
}

bool step_pose(const NormalEquations& system, const Vector3d& centre, RigidMatrix& movingToFixed) {
    Vector6d solution;
    if (!solve(system, solution)) return false;
    movingToFixed = increment(solution, centre) * movingToFixed;
    rigidMatrix_regularization(movingToFixed);
    return true;
}

double smallest_eigenvalue(const Matrix6d& JTJ) {
    const EigenSolver eigen(JTJ, Eigen::EigenvaluesOnly);
    if (!JTJ.allFinite() || eigen.info() != Eigen::Success) {
        NoEigenvalues.log();
        return std::numeric_limits<double>::quiet_NaN();
    }
    return eigen.eigenvalues()(0);
}

}  // namespace Track
}  // namespace VexelAlgorithm
