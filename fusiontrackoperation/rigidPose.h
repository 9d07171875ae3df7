// What counts as a pose.
#pragma once

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {

/// Finite, and a rotation up to what poses of applications and files lose to rounding.
inline bool is_rigid(const RigidMatrix& rt) {
    if (!rt.is_finite()) return false;
    const Matrix3d& rotation = rt.get_rotation();
    const Matrix3d deviation = rotation.transpose() * rotation - Matrix3d::Identity();
    return deviation.cwiseAbs().maxCoeff() < 1e-2 && rotation.determinant() > 0.0;
}

}  // namespace VexelAlgorithm
