#include "recording/StereoRecording.h"

#include <algorithm>
#include <map>
#include <system_error>
#include <utility>

#include "foundation/diagnostics.h"
#include "recording/files.h"
#include "recording/frameNames.h"
#include "recording/poseText.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view leftEnding = ".left.png";
constexpr std::string_view rightEnding = ".right.png";
constexpr std::string_view poseEnding = ".pose.txt";
constexpr const char* leftName = "left.png";
constexpr const char* rightName = "right.png";

bool is_there(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

/// Beside the folder's own files or, where only that exists, above them.
fs::path here_or_above(const fs::path& folder, const char* name) {
    std::error_code error;
    const fs::path here = fs::absolute(folder / ".", error).lexically_normal();
    const fs::path above = here.parent_path().parent_path() / name;
    return is_there(folder / name) || !is_there(above) ? folder / name : above;
}

struct PairFiles {
    bool hasLeft = false;
    bool hasRight = false;
    bool hasPose = false;
};

struct FolderContent {
    std::map<int, PairFiles> frames;
    std::vector<fs::path> pairFolders;  ///< that hold a left image, in the order of their names
};

Outcome<FolderContent> list_folder(const fs::path& folder) {
    std::error_code error;
    if (!fs::exists(folder, error)) return Failure{"there is no recording folder " + folder.string()};
    if (!fs::is_directory(folder, error)) return Failure{folder.string() + " is not a folder; name a recording folder"};
    FolderContent content;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (const auto left = frame_number(name, leftEnding)) content.frames[*left].hasLeft = true;
        if (const auto right = frame_number(name, rightEnding)) content.frames[*right].hasRight = true;
        if (const auto pose = frame_number(name, poseEnding)) content.frames[*pose].hasPose = true;
        if (is_there(entry->path() / leftName)) content.pairFolders.push_back(entry->path());
    }
    if (error) return Failure{"the folder " + folder.string() + " cannot be listed (" + error.message() + ")"};
    std::sort(content.pairFolders.begin(), content.pairFolders.end());
    return content;
}

Outcome<RecordedPair> numbered_pair(const fs::path& folder, int number, const PairFiles& files) {
    RecordedPair pair{number, folder / frame_name(number, leftEnding), folder / frame_name(number, rightEnding), {}};
    if (!files.hasLeft || !files.hasRight) {
        const std::string missing = (files.hasLeft ? pair.rightFile : pair.leftFile).string();
        return Failure{missing + " is missing; complete the pair or remove its other files"};
    }
    if (files.hasPose) {
        const Outcome<RigidMatrix> pose = read_text_as(folder / frame_name(number, poseEnding), parse_pose);
        if (!pose) return pose.failure();
        pair.leftToWorld = *pose;
    }
    return pair;
}

Outcome<std::vector<RecordedPair>> pairs_of(const fs::path& folder) {
    const Outcome<FolderContent> content = list_folder(folder);
    if (!content) return content.failure();
    std::vector<RecordedPair> pairs;
    for (const auto& [number, files] : content->frames) {
        const Outcome<RecordedPair> pair = numbered_pair(folder, number, files);
        if (!pair) return pair.failure();
        pairs.push_back(*pair);
    }
    if (!pairs.empty()) return pairs;
    if (is_there(folder / leftName)) {
        pairs.push_back({0, folder / leftName, here_or_above(folder, rightName), {}});
        return pairs;
    }
    for (const fs::path& pairFolder : content->pairFolders) {
        pairs.push_back(
            {static_cast<int>(pairs.size()), pairFolder / leftName, here_or_above(pairFolder, rightName), {}});
    }
    if (!pairs.empty()) return pairs;
    return Failure{"the folder " + folder.string() +
                   " holds no stereo pairs; a recording has files like frame-000000.left.png and "
                   "frame-000000.right.png, or left.png and right.png"};
}

/// The size of both images.
Outcome<ImageSize> size_of(const RecordedPair& pair) {
    const Outcome<ImageSize> left = inspect_grey_picture(pair.leftFile);
    if (!left) return left;
    const Outcome<ImageSize> right = inspect_grey_picture(pair.rightFile);
    if (!right || *left == *right) return right;
    return Failure{format_text("%s has %d x %d pixels where the left image has %d x %d",
                               pair.rightFile.string().c_str(), right->width, right->height, left->width,
                               left->height)};
}

Failure other_size(const fs::path& file, ImageSize size, ImageSize expected) {
    return {format_text("%s has %d x %d pixels where the recording's first pair has %d x %d", file.string().c_str(),
                        size.width, size.height, expected.width, expected.height)};
}

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

Outcome<StereoImages> read_pair(const RecordedPair& pair, ImageSize size) {
    StereoImages images;
    for (const auto& [file, image] :
         {std::pair(&pair.leftFile, &images.left), std::pair(&pair.rightFile, &images.right)}) {
        Outcome<GreyPicture> picture = read_grey_picture(*file);
        if (!picture) return picture.failure();
        const ImageSize found{picture->width, picture->height};
        if (found != size) return other_size(*file, found, size);
        *image = std::move(*picture);
    }
    return images;
}

Outcome<StereoRecording> StereoRecording::open(const fs::path& folder) {
    Outcome<std::vector<RecordedPair>> pairs = pairs_of(folder);
    if (!pairs) return pairs.failure();
    return of_pairs(std::move(*pairs), folder);
}

Outcome<StereoRecording> StereoRecording::of_pair(const fs::path& left, const fs::path& right) {
    return of_pairs({{0, left, right, {}}}, left.parent_path());
}

Outcome<StereoRecording> StereoRecording::of_pairs(std::vector<RecordedPair> pairs, const fs::path& folder) {
    StereoRecording recording;
    for (const RecordedPair& pair : pairs) {
        const Outcome<ImageSize> size = size_of(pair);
        if (!size) return size.failure();
        if (&pair == &pairs.front()) recording._imageSize = *size;
        if (*size != recording._imageSize) return other_size(pair.leftFile, *size, recording._imageSize);
    }
    const bool isSinglePair = pairs.size() == 1;
    const auto place_of = [&](const char* name) { return isSinglePair ? here_or_above(folder, name) : folder / name; };
    recording._pairs = std::move(pairs);
    recording._leftCalibration = place_of("calib_left.txt");
    recording._rightCalibration = place_of("calib_right.txt");
    if (is_there(place_of("settings.yml"))) recording._settingsFile = place_of("settings.yml");
    return recording;
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
