// Depths, cameras and poses as OpenCV's rgbd module takes them: metres, 4 x 4 matrices.
#pragma once

#include <opencv2/core.hpp>

#include "foundation/CameraInParam.h"
#include "foundation/RigidMatrix.h"
#include "recording/DepthImage.h"

namespace VexelBench {

constexpr double MetresPerMillimetre = 1e-3;

/// 32-bit floating point, metres.
inline cv::Mat metric_depth(const VexelAlgorithm::DepthImage& image) {
    cv::Mat depth(image.height, image.width, CV_32FC1);
    for (std::size_t i = 0; i < image.millimetres.size(); ++i) {
        depth.ptr<float>()[i] = static_cast<float>(image.millimetres[i] * MetresPerMillimetre);
    }
    return depth;
}

inline cv::Mat camera_matrix(const VexelAlgorithm::CameraInParam& camera) {
    const cv::Matx33f matrix(static_cast<float>(camera.get_fx()), 0, static_cast<float>(camera.get_cx()), 0,
                             static_cast<float>(camera.get_fy()), static_cast<float>(camera.get_cy()), 0, 0, 1);
    return cv::Mat(matrix).clone();
}

inline cv::Matx44f metric_pose(const VexelAlgorithm::RigidMatrix& pose) {
    cv::Matx44f matrix = cv::Matx44f::eye();
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) {
            matrix(row, column) = static_cast<float>(pose.get_rotation()(row, column));
        }
        matrix(row, 3) = static_cast<float>(pose.get_translation()[row] * MetresPerMillimetre);
    }
    return matrix;
}

/// The motion (mm) that such a matrix of doubles stands for.
inline VexelAlgorithm::RigidMatrix pose_of(const cv::Mat& matrix) {
    const cv::Matx44d metric = matrix;
    VexelAlgorithm::RigidMatrix pose;
    VexelAlgorithm::Matrix3d rotation;
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) rotation(row, column) = metric(row, column);
        pose.get_translation()[row] = metric(row, 3) / MetresPerMillimetre;
    }
    pose.set_rotation(rotation);
    return pose;
}

}  // namespace VexelBench
