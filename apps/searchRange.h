// From the depths that a scan expects to the columns in which partners are looked for.
#pragma once

#include "foundation/types.h"
#include "readCaliData/CaliParReadIn.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm::Apps {

/// A rectified pair: parallax c - x = depthFactor / z - centreOffset, full-size pixels, z in rectified-left coordinates
/// (mm). The principal points differ by the offset where the cameras converge.
struct ParallaxOfDepth {
    double depthFactor = 0.0;   ///< focal length times the x offset of the right camera, pixels mm
    double centreOffset = 0.0;  ///< principal point left - right, pixels

    explicit ParallaxOfDepth(const Rebuild::CaliParReadIn& calibration);
    double operator()(double z) const { return depthFactor / z - centreOffset; }
    double depth_of(double parallax) const { return depthFactor / (parallax + centreOffset); }
    double baseline(const Rebuild::CaliParReadIn& calibration) const;  ///< mm
};

/// The search range [first, last) of `RebParam::findRange` for depths z from `nearest` to `farthest` (mm,
/// rectified-left coordinates, which means perpendicular to the line from camera to camera): their parallaxes and
/// `marginSamples` sampled pixels on either side, because the pixel matcher takes no best partner among the first two
/// or at the last one, and windows on slanted surfaces reach a little beyond. Fails where no partner can lie within the
/// image.
constexpr int marginSamples = 4;
Outcome<Vector2i> search_range(const Rebuild::CaliParReadIn& calibration, double nearest, double farthest, int sample);

/// Nearest and farthest z in rectified-left coordinates of what the raw left camera sees between two depths along its
/// own axis (mm). Rectification turns the camera, so these are further apart.
Vector2d rectified_depths(const Rebuild::CaliParReadIn& calibration, double nearest, double farthest);

}  // namespace VexelAlgorithm::Apps
