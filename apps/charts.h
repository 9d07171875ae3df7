// Curves over the frames of a recording, as a picture.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace VexelAlgorithm::Apps {

struct Curve {
    std::string name;
    std::vector<double> values;  ///< one a frame, NaN where there is none
};

/// Axes from 0 upwards with some curves. Stacked curves fill the area between each and the one before.
struct Chart {
    std::string title;  ///< with the unit
    std::vector<Curve> curves;
    bool isStacked = false;
};

/// Draws the charts below each other over the same frames; 8-bit BGR, 1400 pixels wide. `numbers` are the frames'
/// numbers for the axis; frames marked in `lost` get a red ground in every chart. All lists are of the same length, at
/// least 1.
cv::Mat draw_charts(const std::string& heading, const std::vector<Chart>& charts, const std::vector<int>& numbers,
                    const std::vector<bool>& lost);

}  // namespace VexelAlgorithm::Apps
