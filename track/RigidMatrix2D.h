// A rigid motion of the image plane.
#pragma once

#include "foundation/types.h"

namespace VexelAlgorithm {
namespace Track {

/// p -> rotation p + translation, positions and translation in pixels.
struct RigidMatrix2D {
    Eigen::Matrix2d rotation = Eigen::Matrix2d::Identity();
    Vector2d translation = Vector2d::Zero();

    Vector2d operator*(const Vector2d& point) const { return rotation * point + translation; }
    /// First `other`, then this.
    RigidMatrix2D operator*(const RigidMatrix2D& other) const {
        return {rotation * other.rotation, rotation * other.translation + translation};
    }
};

}  // namespace Track
}  // namespace VexelAlgorithm
