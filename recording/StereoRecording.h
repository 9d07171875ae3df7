// A folder of raw stereo pairs with their calibration and, when they are virtual, the truth.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "foundation/RigidMatrix.h"
#include "recording/DepthImage.h"
#include "recording/GreyPicture.h"
#include "recording/Outcome.h"
#include "recording/calibrationText.h"

namespace VexelAlgorithm {

/// One pair of a recording, whose images are read when they are asked for.
struct RecordedPair {
    int number = 0;
    std::filesystem::path leftFile;
    std::filesystem::path rightFile;
    std::optional<RigidMatrix> leftToWorld;  ///< of the raw left camera, mm, where the recording knows it
};

struct StereoImages {
    GreyPicture left;
    GreyPicture right;
};
/// Both images, which must be of this size.
Outcome<StereoImages> read_pair(const RecordedPair& pair, ImageSize size);

/// Where a recording has its pairs, in one of three forms:
///
/// - `frame-NNNNNN.left.png` and `.right.png`, with `.pose.txt` (4 x 4, raw left camera to world, metres) or without;
/// - `left.png` and `right.png`: one pair, number 0;
/// - a folder a pair, each with `left.png` and `right.png`, numbered from 0 in the order of their names.
///
/// In the last two forms a `right.png` that is missing beside its `left.png` is looked for in the folder above, where
/// it serves several pairs. `calib_left.txt`, `calib_right.txt` and, if there is one, `settings.yml` lie in the
/// recording's folder or, beside a single pair, in the folder above. Other files are ignored.
/// Plain data: reading from several threads is safe.
class StereoRecording {
public:
    /// Lists the folder and looks at the first and last bytes of each image. A folder without pairs, a pair with only
    /// one image, images of different sizes and every file that is not what it should be are refused with one line
    /// naming file and cause.
    static Outcome<StereoRecording> open(const std::filesystem::path& folder);
    /// A single pair; the other files are looked for beside the left image or in the folder above.
    static Outcome<StereoRecording> of_pair(const std::filesystem::path& left, const std::filesystem::path& right);

    ImageSize image_size() const { return _imageSize; }
    /// In the order of their numbers; never empty.
    const std::vector<RecordedPair>& pairs() const { return _pairs; }
    /// Where the calibration of each camera is expected.
    const std::filesystem::path& left_calibration() const { return _leftCalibration; }
    const std::filesystem::path& right_calibration() const { return _rightCalibration; }
    const std::optional<std::filesystem::path>& settings_file() const { return _settingsFile; }

private:
    StereoRecording() = default;
    static Outcome<StereoRecording> of_pairs(std::vector<RecordedPair> pairs, const std::filesystem::path& folder);

    std::vector<RecordedPair> _pairs;
    ImageSize _imageSize;
    std::filesystem::path _leftCalibration;
    std::filesystem::path _rightCalibration;
    std::optional<std::filesystem::path> _settingsFile;
};

/// One pair, raw as the cameras delivered it. All but the images is the truth of virtual ones.
struct StereoFrame {
    GreyPicture left;
    GreyPicture right;
    std::optional<RigidMatrix> leftToWorld;  ///< of the raw left camera, mm
    DepthImage trueDepth;                    ///< z in raw left camera coordinates for each raw left pixel; may be empty
    GreyPicture visibility;                  ///< bits for each raw left pixel: 1 the left camera sees a surface, 2 the
                                             ///< projector lights it, 4 the right camera sees it; may be empty
};

/// Writes pair after pair. The folder holds `calib_left.txt`, `calib_right.txt` and for every pair
/// `frame-NNNNNN.left.png` and `.right.png`; the truth as `.pose.txt` (4 x 4, raw left camera to world, metres),
/// `.truth.png` (16-bit grey, multiples of the millimetres in `depth-step.txt`, 0 for none) and `.visibility.png`.
class StereoRecordingWriter {
public:
    /// Makes the folder and writes the calibration; what `notes` says goes into `about.txt`. A folder that holds frames
    /// already is refused.
    static Outcome<StereoRecordingWriter> create(const std::filesystem::path& folder, const CalibratedCamera& left,
                                                 const CalibratedCamera& right, double depthStep,
                                                 const std::string& notes);

    Outcome<Done> write_frame(int number, const StereoFrame& frame);

private:
    StereoRecordingWriter(std::filesystem::path folder, double depthStep)
        : _folder(std::move(folder)), _depthStep(depthStep) {}

    std::filesystem::path _folder;
    double _depthStep;
};

}  // namespace VexelAlgorithm
