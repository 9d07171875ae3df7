#include "apps/stereoOptions.h"

#include "apps/numberOptions.h"

namespace VexelAlgorithm::Apps {

void add_stereo_options(const CommandLine& command, StereoOptions& options) {
    const CommandOption recording = add_selection_options(
        command, options.selection,
        "frame-NNNNNN.left.png and .right.png (8-bit grey), or left.png and right.png, or folders with these; "
        "calib_left.txt, calib_right.txt and, if you like, settings.yml");
    const CommandOption left =
        command.add_option("--left", options.left, "Left image of a single pair, in place of RECORDING");
    const CommandOption right = command.add_option("--right", options.right, "Right image of a single pair");
    left.needs(right).excludes(recording);
    right.needs(left);
    command.add_option("--calib-left", options.leftCalibration,
                       "Calibration of the left camera, if not the recording's");
    command.add_option("--calib-right", options.rightCalibration, "Calibration of the right camera");
    command
        .add_option(
            "--depth-range", options.depthRange,
            "Nearest and farthest depth in mm, perpendicular to the line from camera to camera, from which the search "
            "range follows")
        .expected(2)
        .check(number_between(1, 65534));
}

Outcome<StereoRecording> open_stereo(const StereoOptions& options) {
    if (!options.left.empty()) return StereoRecording::of_pair(options.left, options.right);
    if (!options.selection.recording.empty()) return StereoRecording::open(options.selection.recording);
    return Failure{"name a RECORDING, or a pair with --left and --right"};
}

std::string name_of(const StereoOptions& options) {
    return options.left.empty() ? options.selection.recording : options.left;
}

CalibrationFiles calibration_files(const StereoOptions& options, const StereoRecording& recording) {
    CalibrationFiles files{recording.left_calibration(), recording.right_calibration()};
    if (!options.leftCalibration.empty()) files.left = options.leftCalibration;
    if (!options.rightCalibration.empty()) files.right = options.rightCalibration;
    return files;
}

void apply(const StereoOptions& options, ScanSettings& settings) {
    RebParam& rebuild = settings.rig.rebuild;
    if (!options.leftCalibration.empty()) rebuild.leftCalib.clear();
    if (!options.rightCalibration.empty()) rebuild.rightCalib.clear();
    if (options.depthRange.size() == 2) settings.rig.depthRange = {options.depthRange[0], options.depthRange[1]};
}

}  // namespace VexelAlgorithm::Apps
