#include "apps/frameSelection.h"

#include "apps/numberOptions.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {

void add_selection_options(CLI::App& command, FrameSelection& selection, const std::string& content) {
    command.add_option("RECORDING", selection.recording, "Folder with " + content)->required();
    command.add_option("--first", selection.first, "Number of the first frame")->check(number_between(0, 999999999));
    command.add_option("--last", selection.last, "Number of the last frame")->check(number_between(0, 999999999));
    command.add_option("--step", selection.step, "Take every so-many-th frame")
        ->check(number_between(1, 999999999))
        ->capture_default_str();
}

Outcome<std::vector<RecordedFrame>> selected_frames(const Recording& recording, const FrameSelection& selection) {
    std::vector<RecordedFrame> frames = recording.select(selection.first, selection.last, selection.step);
    if (!frames.empty()) return frames;
    return Failure{format_text("%s has no frame in the chosen range; its numbers go from %d to %d",
                               selection.recording.c_str(), recording.frames().front().number,
                               recording.frames().back().number)};
}

}  // namespace VexelAlgorithm::Apps
