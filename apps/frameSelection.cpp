#include "apps/frameSelection.h"

#include "apps/numberOptions.h"
#include "foundation/diagnostics.h"
#include "recording/selectFrames.h"

namespace VexelAlgorithm::Apps {
namespace {

template <class Recorded>
Outcome<std::vector<Recorded>> selected_of(const std::vector<Recorded>& all, const FrameSelection& selection) {
    std::vector<Recorded> selected = select_frames(all, selection.first, selection.last, selection.step);
    if (!selected.empty()) return selected;
    return Failure{format_text("%s has no frame in the chosen range; its numbers go from %d to %d",
                               selection.recording.c_str(), all.front().number, all.back().number)};
}

}  // namespace

CommandOption add_selection_options(const CommandLine& command, FrameSelection& selection, const std::string& content) {
    const CommandOption recording = command.add_option("RECORDING", selection.recording, "Folder with " + content);
    command.add_option("--first", selection.first, "Number of the first frame").check(number_between(0, 999999999));
    command.add_option("--last", selection.last, "Number of the last frame").check(number_between(0, 999999999));
    command.add_option("--step", selection.step, "Take every so-many-th frame")
        .check(number_between(1, 999999999))
        .show_default();
    return recording;
}

Outcome<std::vector<RecordedFrame>> selected_frames(const Recording& recording, const FrameSelection& selection) {
    return selected_of(recording.frames(), selection);
}

Outcome<std::vector<RecordedPair>> selected_pairs(const StereoRecording& recording, const FrameSelection& selection) {
    return selected_of(recording.pairs(), selection);
}

}  // namespace VexelAlgorithm::Apps
