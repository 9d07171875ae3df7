#include "recording/poseText.h"

#include <Eigen/LU>

#include "recording/numberText.h"

namespace VexelAlgorithm {
namespace {

constexpr double millimetresPerMetre = 1000.0;
/// Further away than any scanner gets; keeps sums and voxel coordinates finite.
constexpr double farthestPosition = 1e8;

using RowMajor4d = Eigen::Matrix<double, 4, 4, Eigen::RowMajor>;
using RowMajor3d = Eigen::Matrix<double, 3, 3, Eigen::RowMajor>;

bool is_rotation(const Matrix3d& matrix) {
    const double deviation = (matrix.transpose() * matrix - Matrix3d::Identity()).cwiseAbs().maxCoeff();
    return deviation <= rotationTolerance && matrix.determinant() > 0.0;
}

std::string why_no_rotation(const Matrix3d& matrix) {
    const double determinant = matrix.determinant();
    const std::string what = determinant < 0.0 ? "mirrors" : "is scaled or sheared";
    return "its 3 x 3 part " + what + " (determinant " + number_text(determinant) + ") and is not a rotation";
}

}  // namespace

Outcome<RigidMatrix> parse_pose(std::string_view text) {
    const Outcome<std::vector<double>> numbers = parse_numbers(text, 16);
    if (!numbers) return numbers.failure();
    const RowMajor4d matrix = Eigen::Map<const RowMajor4d>(numbers->data());
    if (!matrix.allFinite()) return Failure{"it holds a number that is not finite"};
    if ((matrix.row(3) - Eigen::RowVector4d(0, 0, 0, 1)).cwiseAbs().maxCoeff() > 1e-6) {
        return Failure{"its last row is not 0 0 0 1"};
    }
    const Matrix3d rotation = matrix.topLeftCorner<3, 3>();
    if (!is_rotation(rotation)) return Failure{why_no_rotation(rotation)};
    const Vector3d translation = matrix.topRightCorner<3, 1>() * millimetresPerMetre;
    if (translation.cwiseAbs().maxCoeff() > farthestPosition) {
        return Failure{"its position is more than 100 km away; positions are in metres"};
    }
    RigidMatrix pose(rotation, translation);
    rigidMatrix_regularization(pose);
    return pose;
}

std::string pose_text(const RigidMatrix& cameraToWorld) {
    std::string text;
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) text += number_text(cameraToWorld.get_rotation()(row, column)) + ' ';
        text += number_text(cameraToWorld.get_translation()[row] / millimetresPerMetre) + '\n';
    }
    return text + "0 0 0 1\n";
}

Outcome<CameraInParam> parse_intrinsics(std::string_view text) {
    const Outcome<std::vector<double>> numbers = parse_numbers(text, 9);
    if (!numbers) return numbers.failure();
    const RowMajor3d matrix = Eigen::Map<const RowMajor3d>(numbers->data());
    if (!matrix.allFinite()) return Failure{"it holds a number that is not finite"};
    const bool isCameraMatrix =
        matrix(0, 1) == 0.0 && matrix(1, 0) == 0.0 && matrix.row(2) == Eigen::RowVector3d(0, 0, 1);
    if (!isCameraMatrix) return Failure{"it is not of the form fx 0 cx, 0 fy cy, 0 0 1"};
    const double largest = 1e6;
    const bool isInRange = matrix(0, 0) > 0.0 && matrix(1, 1) > 0.0 && matrix.cwiseAbs().maxCoeff() <= largest;
    if (!isInRange) return Failure{"its focal lengths must be above 0 and all its values at most 1000000 pixels"};
    return CameraInParam(matrix(0, 0), matrix(1, 1), matrix(0, 2), matrix(1, 2));
}

std::string intrinsics_text(const CameraInParam& camera) {
    return number_text(camera.get_fx()) + " 0 " + number_text(camera.get_cx()) + "\n0 " + number_text(camera.get_fy()) +
           ' ' + number_text(camera.get_cy()) + "\n0 0 1\n";
}

Outcome<double> parse_depth_step(std::string_view text) {
    const Outcome<std::vector<double>> numbers = parse_numbers(text, 1);
    if (!numbers) return numbers.failure();
    const double step = numbers->front();
    if (!(step >= 1e-6 && step <= 1000.0)) return Failure{"the step must be 1e-6 to 1000 mm"};
    return step;
}

std::string depth_step_text(double step) {
    return number_text(step) + '\n';
}

}  // namespace VexelAlgorithm
