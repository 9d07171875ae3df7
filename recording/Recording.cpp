#include "recording/Recording.h"

#include <cctype>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "foundation/diagnostics.h"
#include "recording/files.h"
#include "recording/frameNames.h"
#include "recording/poseText.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;

constexpr const char* intrinsicsName = "camera-intrinsics.txt";
constexpr const char* depthStepName = "depth-step.txt";
constexpr std::string_view depthEnding = ".depth.png";
constexpr std::string_view poseEnding = ".pose.txt";

struct FrameFiles {
    bool hasDepth = false;
    bool hasPose = false;
};

Outcome<std::map<int, FrameFiles>> list_frames(const fs::path& folder) {
    std::error_code error;
    if (!fs::exists(folder, error)) return Failure{"there is no recording folder " + folder.string()};
    if (!fs::is_directory(folder, error)) return Failure{folder.string() + " is not a folder; name a recording folder"};
    std::map<int, FrameFiles> frames;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (const auto depthNumber = frame_number(name, depthEnding)) frames[*depthNumber].hasDepth = true;
        if (const auto poseNumber = frame_number(name, poseEnding)) frames[*poseNumber].hasPose = true;
    }
    if (error) return Failure{"the folder " + folder.string() + " cannot be listed (" + error.message() + ")"};
    return frames;
}

/// Millimetres where the folder says nothing else.
Outcome<double> read_depth_step(const fs::path& folder) {
    std::error_code error;
    const fs::path file = folder / depthStepName;
    if (!fs::exists(file, error)) return 1.0;
    return read_text_as(file, parse_depth_step);
}

Outcome<RecordedFrame> open_frame(const fs::path& folder, int number, const FrameFiles& files, double depthStep,
                                  PosePolicy policy) {
    RecordedFrame frame{number, folder / frame_name(number, depthEnding), depthStep, std::nullopt};
    const fs::path poseFile = folder / frame_name(number, poseEnding);
    if (!files.hasDepth) {
        return Failure{poseFile.string() + " has no depth image " + frame_name(number, depthEnding) +
                       " beside it; complete the recording or remove the file"};
    }
    if (!files.hasPose && policy == PosePolicy::Required) {
        return Failure{frame.depthFile.string() + " has no pose " + frame_name(number, poseEnding) +
                       " beside it; complete the recording or remove the image"};
    }
    if (files.hasPose) {
        const Outcome<RigidMatrix> pose = read_text_as(poseFile, parse_pose);
        if (!pose) return pose.failure();
        frame.cameraToWorld = *pose;
    }
    return frame;
}

Failure other_size(const fs::path& file, ImageSize size, ImageSize expected) {
    return {format_text("%s has %d x %d pixels where the recording's first image has %d x %d", file.string().c_str(),
                        size.width, size.height, expected.width, expected.height)};
}

}  // namespace

Outcome<DepthImage> read_depth(const RecordedFrame& frame) {
    return read_depth_png(frame.depthFile, frame.depthStep);
}

Outcome<Recording> Recording::open(const fs::path& folder, PosePolicy policy) {
    const Outcome<std::map<int, FrameFiles>> listed = list_frames(folder);
    if (!listed) return listed.failure();
    if (listed->empty()) {
        return Failure{"the folder " + folder.string() +
                       " holds no frames; a recording has files like frame-000000.depth.png"};
    }
    const Outcome<CameraInParam> camera = read_text_as(folder / intrinsicsName, parse_intrinsics);
    if (!camera) return camera.failure();
    const Outcome<double> depthStep = read_depth_step(folder);
    if (!depthStep) return depthStep.failure();

    Recording recording;
    recording._folder = folder;
    recording._camera = *camera;
    for (const auto& [number, files] : *listed) {
        Outcome<RecordedFrame> frame = open_frame(folder, number, files, *depthStep, policy);
        if (!frame) return frame.failure();
        const Outcome<ImageSize> size = inspect_depth_png(frame->depthFile);
        if (!size) return size.failure();
        if (recording._frames.empty()) recording._imageSize = *size;
        if (*size != recording._imageSize) return other_size(frame->depthFile, *size, recording._imageSize);
        recording._frames.push_back(std::move(*frame));
    }
    return recording;
}

Outcome<RecordingWriter> RecordingWriter::create(const fs::path& folder, const CameraInParam& camera,
                                                 double depthStep) {
    const Outcome<Done> prepared = prepare_output_folder(folder);
    if (!prepared) return prepared.failure();
    const Outcome<std::map<int, FrameFiles>> present = list_frames(folder);
    if (!present) return present.failure();
    if (!present->empty()) {
        return Failure{"the folder " + folder.string() + " holds a recording already; name an empty folder"};
    }
    const Outcome<Done> written = write_whole_file(folder / intrinsicsName, intrinsics_text(camera));
    if (!written) return written.failure();
    std::error_code error;
    fs::remove(folder / depthStepName, error);
    if (depthStep != 1.0) {
        const Outcome<Done> stepWritten = write_whole_file(folder / depthStepName, depth_step_text(depthStep));
        if (!stepWritten) return stepWritten.failure();
    }
    return RecordingWriter(folder, depthStep);
}

Outcome<Done> RecordingWriter::write_frame(int number, const DepthImage& image,
                                           const std::optional<RigidMatrix>& cameraToWorld) {
    DepthImage stepped = image;
    stepped.step = _depthStep;
    const Outcome<Done> written = write_depth_png(_folder / frame_name(number, depthEnding), stepped);
    if (!written || !cameraToWorld) return written;
    return write_whole_file(_folder / frame_name(number, poseEnding), pose_text(*cameraToWorld));
}

}  // namespace VexelAlgorithm
