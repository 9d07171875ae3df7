// A stereo scanner, ready to reconstruct.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "apps/ScanSettings.h"
#include "readCaliData/CaliParReadIn.h"
#include "recording/Outcome.h"
#include "recording/StereoRecording.h"
#include "recording/calibrationText.h"

namespace VexelAlgorithm::Apps {

/// The 22 values of a camera, see `RebParam`.
std::vector<float> camera_values(const CalibratedCamera& camera, double skew = 0.0);
/// Those of a calibration file, or why there are none.
Outcome<std::vector<float>> read_camera_file(const std::filesystem::path& path);

struct Rig {
    RebParam param;  ///< complete
    Rebuild::CaliParReadIn calibration;

    /// From rectified-left to raw left camera coordinates, a rotation.
    RigidMatrix rectified_to_raw() const { return calibration.get_rectified_to_raw(); }
};

/// Where a rig's calibration is read unless its settings hold it.
struct CalibrationFiles {
    std::filesystem::path left;
    std::filesystem::path right;
};

/// Completes `settings.rig` with the recording's image size, calibration files and search range, and brings
/// `settings.common` in line: image size, sampling and the rectified intrinsics, in which the frames are.
Outcome<Rig> make_rig(ScanSettings& settings, const CalibrationFiles& files, ImageSize imageSize);

/// Why two cameras (22 values each) cannot be a stereo pair, in words; empty when they can.
std::string fault_of_pair(const std::vector<float>& left, const std::vector<float>& right);

}  // namespace VexelAlgorithm::Apps
