// Where measured artefacts are too high and too low.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "apps/AccuracyTest.h"

namespace VexelAlgorithm::Apps {

/// The maps of all positions side by side, 8-bit BGR: blue below the fitted surface, red above it, up to `scale` (mm)
/// either way; white for points that are left out, dark where there is none. At least one measurement.
cv::Mat draw_deviation_maps(const std::vector<const ArtefactMeasurement*>& measurements, double scale);

}  // namespace VexelAlgorithm::Apps
