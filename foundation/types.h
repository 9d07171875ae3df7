// The fixed-size vector vocabulary of the library.
#pragma once

#include <Eigen/Core>
#include <Eigen/Geometry>

namespace VexelAlgorithm {

using Vector2f = Eigen::Vector2f;  ///< pixel positions, small float pairs
using Vector2d = Eigen::Vector2d;  ///< pixel positions in double precision
using Vector2i = Eigen::Vector2i;  ///< image size as (width, height)
using Vector3f = Eigen::Vector3f;  ///< points and normals (mm, unit), colours (RGB in [0, 1])
using Vector3d = Eigen::Vector3d;  ///< translations (mm), axis-angle vectors (radians)
using Vector3i = Eigen::Vector3i;  ///< voxel coordinates
using Vector4f = Eigen::Vector4f;
using Vector4i = Eigen::Vector4i;  ///< image ranges
using Matrix3f = Eigen::Matrix3f;  ///< rotations in single precision, for inner loops
using Matrix3d = Eigen::Matrix3d;  ///< rotations, camera matrices
using Matrix4d = Eigen::Matrix4d;  ///< homogeneous poses

}  // namespace VexelAlgorithm
