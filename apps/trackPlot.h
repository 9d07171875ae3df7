// A tracking run at a glance.
#pragma once

#include <opencv2/core.hpp>

#include "apps/TrackReport.h"

namespace VexelAlgorithm::Apps {

/// Residual, correspondences and milliseconds by stage over the frames, and with a truth the errors too. `compared`
/// holds the report's frames, or nothing.
cv::Mat draw_track_plot(const TrackReport& report, const std::vector<ComparedFrame>& compared);

}  // namespace VexelAlgorithm::Apps
