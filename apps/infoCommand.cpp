// vexel-scan info: what a recording holds.
#include <algorithm>
#include <memory>

#include "apps/commands.h"
#include "apps/volumePlacement.h"
#include "foundation/diagnostics.h"
#include "recording/Recording.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

struct DepthSummary {
    double validShare = 0.0;
    double lowest = 0.0;
    double middle = 0.0;
    double highest = 0.0;
};

DepthSummary summarise(const DepthImage& image) {
    std::vector<float> values;
    std::copy_if(image.millimetres.begin(), image.millimetres.end(), std::back_inserter(values), DepthImage::is_value);
    if (values.empty()) return {};
    std::sort(values.begin(), values.end());
    const double share = static_cast<double>(values.size()) / static_cast<double>(image.millimetres.size());
    return {share, values.front(), values[values.size() / 2], values.back()};
}

double path_length(const std::vector<RecordedFrame>& frames) {
    double length = 0.0;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        if (!frames[i].cameraToWorld || !frames[i - 1].cameraToWorld) continue;
        length += (frames[i].cameraToWorld->get_translation() - frames[i - 1].cameraToWorld->get_translation()).norm();
    }
    return length;
}

void print_poses(const Recording& recording) {
    const auto& frames = recording.frames();
    const auto posed =
        std::count_if(frames.begin(), frames.end(), [](const auto& frame) { return frame.cameraToWorld; });
    print_line(format_text("Poses         %d, path %.0f mm", static_cast<int>(posed), path_length(frames)));
    if (static_cast<std::size_t>(posed) != frames.size()) return;
    const Outcome<SceneSurvey> survey = survey_scene(recording, frames, {});
    if (!survey) return;
    const Box& box = survey->box;
    print_line(format_text("Scene         x %.0f .. %.0f, y %.0f .. %.0f, z %.0f .. %.0f mm", box.low.x(), box.high.x(),
                           box.low.y(), box.high.y(), box.low.z(), box.high.z()));
}

int run_info(const std::string& folder) {
    const Outcome<Recording> recording = Recording::open(folder, PosePolicy::Optional);
    if (!recording) return report_failure(recording.failure());
    const Outcome<DepthImage> image = read_depth(recording->frames().front());
    if (!image) return report_failure(image.failure());

    const auto& frames = recording->frames();
    const CameraInParam& camera = recording->camera();
    const DepthSummary depth = summarise(*image);
    print_line("Recording     " + recording->folder().string());
    print_line(format_text("Frames        %d, numbers %d .. %d", static_cast<int>(frames.size()), frames.front().number,
                           frames.back().number));
    print_line(format_text("Camera        %d x %d pixels, fx %g, fy %g, cx %g, cy %g", image->width, image->height,
                           camera.get_fx(), camera.get_fy(), camera.get_cx(), camera.get_cy()));
    print_line(format_text("First depth   %.0f .. %.0f mm, median %.0f mm, %.0f %% of the pixels", depth.lowest,
                           depth.highest, depth.middle, 100.0 * depth.validShare));
    print_poses(*recording);
    return EXIT_OK;
}

}  // namespace

void add_info_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command("info", "Tells what a recording of depth frames holds.");
    const auto folder = std::make_shared<std::string>();
    command.add_option("RECORDING", *folder, "Folder with frame-NNNNNN.depth.png, .pose.txt and camera-intrinsics.txt")
        .required();
    command.when_given([folder, &chosen] { chosen = [folder] { return run_info(*folder); }; });
}

}  // namespace VexelAlgorithm::Apps
