// Virtual cameras as their calibration tells of them.
#pragma once

#include "recording/calibrationText.h"
#include "simulation/DistortedCamera.h"

namespace VexelAlgorithm::Apps {

inline CalibratedCamera calibrated(const Simulation::DistortedCamera& camera) {
    return {camera.fx, camera.fy, camera.cx, camera.cy, camera.distortion, camera.rigToCamera};
}

}  // namespace VexelAlgorithm::Apps
