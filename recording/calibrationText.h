// The calibration file of one camera of a stereo scanner, as text.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {

/// Pixels of the image as stored, the centre of the first one at (0, 0); no skew.
struct CalibratedCamera {
    double fx = 0.0;
    double fy = 0.0;
    double cx = 0.0;
    double cy = 0.0;
    std::array<double, 5> distortion{};  ///< k1 k2 p1 p2 k3
    RigidMatrix worldToCamera;           ///< from the coordinates of the calibration, mm
};

/// What the calibration reader of the library takes, to the last digit; uncertainties and error are written as 0.
std::string calibration_text(const CalibratedCamera& camera);

/// What is wrong with a text that the calibration reader does not take, in words.
std::string calibration_fault(std::string_view text);

}  // namespace VexelAlgorithm
