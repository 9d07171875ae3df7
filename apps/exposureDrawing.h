// What the choice of exposure saw in a series of images.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "exposure/autoExposureC.h"

namespace VexelAlgorithm::Apps {

struct MeasuredImage {
    std::string name;
    autoExposureFoot::ExposureRecord record;
    cv::Mat view;  ///< as `draw_view` draws it
};

/// The reduced image, 8-bit BGR: green where enough pattern hangs together, blue where there is a little, red where it
/// is too bright; a frame around the region.
cv::Mat draw_view(const autoExposureFoot::ExposureView& view);

/// Up to 20 of the views, the chosen one among them and marked, above curves of the statistics over all images.
cv::Mat draw_exposures(const std::vector<MeasuredImage>& images, std::size_t chosen);

}  // namespace VexelAlgorithm::Apps
