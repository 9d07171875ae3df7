// What a stereo pair and its reconstruction look like.
#pragma once

#include <opencv2/core.hpp>

#include "apps/Rig.h"
#include "foundation/PointImage.h"
#include "recording/StereoRecording.h"

namespace VexelAlgorithm::Apps {

/// 8-bit grey.
struct RectifiedPair {
    cv::Mat left;
    cv::Mat right;
};
Outcome<RectifiedPair> rectified_pair(const StereoImages& images, const Rig& rig);

/// The rectified images side by side with horizontal lines, along which partners lie; 8-bit BGR.
cv::Mat draw_rectified_pair(const StereoImages& images, const Rig& rig);

/// The parallax (right column minus left column, rectified full-size pixels) of every slot, in colour with a scale.
/// Slots without a point are black.
cv::Mat draw_parallax_map(const PointImage& frame, const Rig& rig);

/// The depth z of every slot, mm, likewise.
cv::Mat draw_depth_map(const PointImage& frame);

}  // namespace VexelAlgorithm::Apps
