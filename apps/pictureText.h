// Letters in pictures, and the colours of those that are dark around what they show.
#pragma once

#include <opencv2/core.hpp>
#include <string>

namespace VexelAlgorithm::Apps {

inline const cv::Scalar darkPaper = cv::Scalar::all(30);
inline const cv::Scalar lightInk = cv::Scalar::all(230);

/// `place` is the left end of the line on which the letters stand.
void put_text(cv::Mat& picture, const std::string& text, const cv::Point& place, double size,
              const cv::Scalar& ink = lightInk);

}  // namespace VexelAlgorithm::Apps
