// The calibration of one camera, as the calibration files and vectors give it.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <string_view>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm {
namespace Rebuild {

/// A pinhole camera with Brown's distortion model and its place in the calibration world frame.
struct CameraCalibration {
    Matrix3d K = Matrix3d::Identity();                                    ///< [fx alpha*fx cx; 0 fy cy; 0 0 1], pixels
    Eigen::Matrix<double, 5, 1> D = Eigen::Matrix<double, 5, 1>::Zero();  ///< k1 k2 p1 p2 k3
    Matrix3d R = Matrix3d::Identity();                                    ///< world to camera
    Vector3d T = Vector3d::Zero();                                        ///< world to camera, mm
};

/// Number of values of a camera vector: fx, fy, cx, cy, alpha, k1, k2, p1, p2, k3, T (3), R row by row (9).
constexpr std::size_t CameraVectorSize = 22;

/// Nothing unless there are exactly `CameraVectorSize` values.
std::optional<CameraCalibration> calibration_from_vector(const std::vector<float>& values);

/// Reads the text of a calibration file: ten formatted reads in order, each of which must convert all its
/// numbers. As scanf does it, white space in a pattern stands for any amount of white space, text after the
/// last number of a pattern is not required, and what follows the tenth read is ignored. The decimal point is
/// '.' in every locale.
std::optional<CameraCalibration> calibration_from_text(std::string_view text);

}  // namespace Rebuild
}  // namespace VexelAlgorithm
