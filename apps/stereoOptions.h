// Which stereo pairs a command works on, and their scanner.
#pragma once

#include <string>
#include <vector>

#include "apps/CommandLine.h"
#include "apps/Rig.h"
#include "apps/frameSelection.h"
#include "recording/StereoRecording.h"

namespace VexelAlgorithm::Apps {

struct StereoOptions {
    FrameSelection selection;
    std::string left;  ///< a single pair in place of a recording
    std::string right;
    std::string leftCalibration;  ///< empty: the recording's
    std::string rightCalibration;
    std::vector<float> depthRange;  ///< two values, mm, or empty
};
/// Adds RECORDING, --first, --last, --step, --left, --right, --calib-left, --calib-right and --depth-range.
void add_stereo_options(const CommandLine& command, StereoOptions& options);

Outcome<StereoRecording> open_stereo(const StereoOptions& options);
/// The recording's folder or the left image, for messages and reports.
std::string name_of(const StereoOptions& options);
CalibrationFiles calibration_files(const StereoOptions& options, const StereoRecording& recording);
/// Depth range and calibration files go before what the settings say.
void apply(const StereoOptions& options, ScanSettings& settings);

}  // namespace VexelAlgorithm::Apps
