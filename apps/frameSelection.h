// Which frames of a recording a command works on.
#pragma once

#include <string>
#include <vector>

#include "apps/CommandLine.h"
#include "recording/Recording.h"
#include "recording/StereoRecording.h"

namespace VexelAlgorithm::Apps {

struct FrameSelection {
    std::string recording;
    int first = 0;
    int last = 999999999;
    int step = 1;
};

/// Adds RECORDING, --first, --last and --step. `content` tells what the folder must hold. Returns RECORDING.
CommandOption add_selection_options(const CommandLine& command, FrameSelection& selection, const std::string& content);

/// The selected frames; a range without frames fails with the numbers that there are.
Outcome<std::vector<RecordedFrame>> selected_frames(const Recording& recording, const FrameSelection& selection);
Outcome<std::vector<RecordedPair>> selected_pairs(const StereoRecording& recording, const FrameSelection& selection);

}  // namespace VexelAlgorithm::Apps
