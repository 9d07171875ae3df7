// A point image drawn as a lit surface.
#pragma once

#include <opencv2/core.hpp>

#include "foundation/PointImage.h"

namespace VexelAlgorithm::Apps {

/// Draws the frame (points and normals in camera coordinates) as a picture of its size, 8-bit BGR: matt
/// clay under a warm light from the upper left and a cool sky, darkened behind depth edges (unsharp masking
/// of the depth buffer, Luft, Colditz and Deussen 2006), on a dark background. Deterministic.
cv::Mat shaded_picture(const PointImage& frame);

}  // namespace VexelAlgorithm::Apps
