// Rigid motions and their axis-angle form.
#pragma once

#include <iosfwd>

#include "foundation/export.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// A rigid transform p -> R p + t. R is a rotation matrix, t is in millimetres. A frame's pose takes
/// camera coordinates to model coordinates. Plain data: it may be copied by value and stored in arrays.
/// Computes in double; a float point is widened, transformed and narrowed again.
class VEXEL_API RigidMatrix {
public:
    RigidMatrix() { set_identity(); }
    RigidMatrix(const Matrix3d& rotation, const Vector3d& translation)
        : _rotation(rotation), _translation(translation) {}

    void set_identity() {
        _rotation.setIdentity();
        _translation.setZero();
    }
    void set_rotation(const Matrix3d& rotation) { _rotation = rotation; }
    void set_translation(const Vector3d& translation) { _translation = translation; }
    const Matrix3d& get_rotation() const { return _rotation; }
    const Vector3d& get_translation() const { return _translation; }
    Vector3d& get_translation() { return _translation; }

    /// Composition: (A * B) applied to p is A applied to (B applied to p).
    RigidMatrix operator*(const RigidMatrix& other) const {
        return {_rotation * other._rotation, _rotation * other._translation + _translation};
    }
    Vector3d operator*(const Vector3d& point) const { return _rotation * point + _translation; }
    Vector3f operator*(const Vector3f& point) const {
        return (_rotation * point.cast<double>() + _translation).cast<float>();
    }
    /// Rotates only.
    Vector3f transform_normal(const Vector3f& normal) const {
        return (_rotation * normal.cast<double>()).cast<float>();
    }

    /// The inverse (R^T, -R^T t), exact only while R is a rotation.
    RigidMatrix inverse() const {
        const Matrix3d transposed = _rotation.transpose();
        return {transposed, -(transposed * _translation)};
    }
    void inverseSelf() { *this = inverse(); }

    /// True when no entry is NaN or infinite.
    bool is_finite() const { return _rotation.allFinite() && _translation.allFinite(); }

    /// 96 bytes: nine doubles of the rotation column by column, then the translation, in machine byte order.
    bool write_archive(std::ostream& out) const;
    /// Reads what `write_archive` wrote. On failure returns false and leaves the object as it was.
    bool read_archive(std::istream& in);

private:
    Matrix3d _rotation;
    Vector3d _translation;
};

/// Axis-angle vector (its length is the angle in radians) to rotation matrix, by Rodrigues' formula.
VEXEL_API void rodrigures(const Vector3d& axisAngle, Matrix3d& rotation);
/// Rotation matrix to axis-angle vector, angle in [0, pi]. A matrix that is nearly a rotation yields the
/// vector of the rotation closest to it; one with a value that is not finite yields a vector of NaN.
VEXEL_API void rodrigures(const Matrix3d& rotation, Vector3d& axisAngle);
/// The length of that vector: the angle of a motion's rotation, radians.
VEXEL_API double rotation_angle(const RigidMatrix& motion);

/// Re-orthonormalises the rotation by a round trip through its axis-angle vector.
VEXEL_API void rigidMatrix_regularization(RigidMatrix& rt);

}  // namespace VexelAlgorithm
