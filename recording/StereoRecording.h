// A folder of raw stereo pairs with their calibration and, when they are virtual, the truth.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "foundation/RigidMatrix.h"
#include "recording/DepthImage.h"
#include "recording/Outcome.h"
#include "recording/calibrationText.h"

namespace VexelAlgorithm {

/// 8-bit grey, row by row.
struct GreyPicture {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;
};

/// Writes an 8-bit grey PNG, fast rather than small; the file appears only when it is complete.
Outcome<Done> write_grey_png(const std::filesystem::path& path, const GreyPicture& picture);

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
