#include "apps/pictureText.h"

#include <opencv2/imgproc.hpp>

namespace VexelAlgorithm::Apps {

void put_text(cv::Mat& picture, const std::string& text, const cv::Point& place, double size, const cv::Scalar& ink) {
    cv::putText(picture, text, place, cv::FONT_HERSHEY_SIMPLEX, size, ink, 1, cv::LINE_AA);
}

}  // namespace VexelAlgorithm::Apps
