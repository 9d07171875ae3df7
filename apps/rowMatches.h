// Partners in a rectified pair that are looked for above and below their row too.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace VexelAlgorithm::Apps {

/// Positions in the rectified full-size images, pixels.
struct RowMatch {
    cv::Point2d left;
    cv::Point2d right;

    double parallax() const { return right.x - left.x; }
    double row_error() const { return right.y - left.y; }
};

struct RowMatches {
    int tried = 0;  ///< textured places of the left image
    std::vector<RowMatch> found;
};

/// Partners are searched over whole rows and up to this many pixels above and below.
constexpr int largestRowError = 40;

/// Takes textured places of the left image on a regular grid and finds the window of the right image that correlates
/// best (zero-mean normalised), first at half the size, then around that at full size with a parabola for the sub-pixel
/// position. A partner counts when it correlates well and clearly better than any other place, and when its own best
/// partner in the left image is where it came from. Both images are 8-bit grey, rectified, 0 where they show nothing.
RowMatches find_row_matches(const cv::Mat& left, const cv::Mat& right, int threads);

}  // namespace VexelAlgorithm::Apps
