#include "recording/StereoRecording.h"

#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <system_error>
#include <utility>

#include "foundation/diagnostics.h"
#include "recording/files.h"
#include "recording/poseText.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;

/// A name that begins like a frame's.
std::optional<std::string> first_frame_file(const fs::path& folder) {
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.rfind("frame-", 0) == 0) return name;
    }
    return std::nullopt;
}

/// Writes files until one cannot be written.
class FileSeries {
public:
    template <class Write>
    FileSeries& then(const Write& write) {
        if (!_result) return *this;
        _result = write();
        return *this;
    }
    const Outcome<Done>& result() const { return _result; }

private:
    Outcome<Done> _result = Done{};
};

}  // namespace

Outcome<Done> write_grey_png(const fs::path& path, const GreyPicture& picture) {
    const std::size_t count =
        static_cast<std::size_t>(std::max(picture.width, 0)) * static_cast<std::size_t>(std::max(picture.height, 0));
    if (count == 0 || picture.pixels.size() != count)
        return Failure{path.string() + " not written: the image has no pixels"};
    std::vector<unsigned char> encoded;
    try {
        const cv::Mat image(picture.height, picture.width, CV_8UC1, const_cast<std::uint8_t*>(picture.pixels.data()));
        cv::imencode(".png", image, encoded, {cv::IMWRITE_PNG_COMPRESSION, 1});
    } catch (const std::exception& error) {
        return Failure{path.string() + " not written: " + error.what()};
    }
    return write_whole_file(path, {reinterpret_cast<const char*>(encoded.data()), encoded.size()});
}

Outcome<StereoRecordingWriter> StereoRecordingWriter::create(const fs::path& folder, const CalibratedCamera& left,
                                                             const CalibratedCamera& right, double depthStep,
                                                             const std::string& notes) {
    const Outcome<Done> prepared = prepare_output_folder(folder);
    if (!prepared) return prepared.failure();
    if (first_frame_file(folder))
        return Failure{"the folder " + folder.string() + " holds a recording already; name an empty folder"};
    FileSeries files;
    files.then([&] { return write_whole_file(folder / "calib_left.txt", calibration_text(left)); })
        .then([&] { return write_whole_file(folder / "calib_right.txt", calibration_text(right)); })
        .then([&] { return write_whole_file(folder / "depth-step.txt", depth_step_text(depthStep)); })
        .then([&] { return write_whole_file(folder / "about.txt", notes); });
    if (!files.result()) return files.result().failure();
    return StereoRecordingWriter(folder, depthStep);
}

Outcome<Done> StereoRecordingWriter::write_frame(int number, const StereoFrame& frame) {
    const auto file = [&](const char* ending) { return _folder / (format_text("frame-%06d", number) + ending); };
    FileSeries files;
    files.then([&] { return write_grey_png(file(".left.png"), frame.left); }).then([&] {
        return write_grey_png(file(".right.png"), frame.right);
    });
    if (frame.leftToWorld)
        files.then([&] { return write_whole_file(file(".pose.txt"), pose_text(*frame.leftToWorld)); });
    if (!frame.trueDepth.millimetres.empty())
        files.then([&] {
            DepthImage stepped = frame.trueDepth;
            stepped.step = _depthStep;
            return write_depth_png(file(".truth.png"), stepped);
        });
    if (!frame.visibility.pixels.empty())
        files.then([&] { return write_grey_png(file(".visibility.png"), frame.visibility); });
    return files.result();
}

}  // namespace VexelAlgorithm
