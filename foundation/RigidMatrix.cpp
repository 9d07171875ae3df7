#include "foundation/RigidMatrix.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <array>
#include <cmath>
#include <limits>

#include "foundation/archive.h"

namespace VexelAlgorithm {
namespace {

Matrix3d cross_product_matrix(const Vector3d& v) {
    Matrix3d cross;
    cross << 0.0, -v.z(), v.y(), v.z(), 0.0, -v.x(), -v.y(), v.x(), 0.0;
    return cross;
}

// The rotation factor of the polar decomposition, by Newton's iteration (N. Higham, "Computing the polar decomposition
// with applications", 1986). It is the closest rotation, and the steps converge quadratically.
Matrix3d closest_rotation(Matrix3d matrix) {
    constexpr int maxSteps = 20;
    constexpr double smallestDeterminant = 1e-3;
    for (int step = 0; step < maxSteps; ++step) {
        if (!(matrix.determinant() > smallestDeterminant)) return matrix;  // not a disturbed rotation
        const Matrix3d next = 0.5 * (matrix + matrix.inverse().transpose());
        const double change = (next - matrix).cwiseAbs().maxCoeff();
        matrix = next;
        if (change < 1e-15) break;
    }
    return matrix;
}

}  // namespace

bool RigidMatrix::write_archive(std::ostream& out) const {
    try {
        std::array<double, 12> values{};
        for (int i = 0; i < 9; ++i) values[i] = _rotation(i % 3, i / 3);
        for (int i = 0; i < 3; ++i) values[9 + i] = _translation[i];
        return Archive::write_value(out, values);
    } catch (...) {
        return false;
    }
}

bool RigidMatrix::read_archive(std::istream& in) {
    try {
        std::array<double, 12> values{};
        if (!Archive::read_value(in, values)) return false;
        for (int i = 0; i < 9; ++i) _rotation(i % 3, i / 3) = values[i];
        for (int i = 0; i < 3; ++i) _translation[i] = values[9 + i];
        return true;
    } catch (...) {
        return false;
    }
}

// R = I + sin(a)/a K + (1 - cos(a))/a^2 K^2 with K the cross product matrix of the vector and a its length. Both
// factors are written with half the angle, which loses no digits near 0.
void rodrigures(const Vector3d& axisAngle, Matrix3d& rotation) {
    const double half = 0.5 * axisAngle.norm();
    const double sinc = half > 0.0 ? std::sin(half) / half : 1.0;
    const Matrix3d cross = cross_product_matrix(axisAngle);
    rotation = Matrix3d::Identity() + sinc * std::cos(half) * cross + 0.5 * sinc * sinc * cross * cross;
}

// By way of the unit quaternion, whose vector part stays well conditioned both near 0 and near pi.
void rodrigures(const Matrix3d& rotation, Vector3d& axisAngle) {
    if (!rotation.allFinite()) {
        axisAngle.setConstant(std::numeric_limits<double>::quiet_NaN());
        return;
    }
    Eigen::Quaterniond quaternion(closest_rotation(rotation));
    quaternion.normalize();
    const double sineOfHalf = quaternion.vec().norm();
    const double angle = 2.0 * std::atan2(sineOfHalf, std::abs(quaternion.w()));
    const double sign = quaternion.w() < 0.0 ? -1.0 : 1.0;
    axisAngle = sineOfHalf > 0.0 ? Vector3d(sign * angle / sineOfHalf * quaternion.vec()) : Vector3d::Zero();
}

double rotation_angle(const RigidMatrix& motion) {
    Vector3d axisAngle;
    rodrigures(motion.get_rotation(), axisAngle);
    return axisAngle.norm();
}

void rigidMatrix_regularization(RigidMatrix& rt) {
    Vector3d axisAngle;
    Matrix3d rotation;
    rodrigures(rt.get_rotation(), axisAngle);
    rodrigures(axisAngle, rotation);
    rt.set_rotation(rotation);
}

}  // namespace VexelAlgorithm
