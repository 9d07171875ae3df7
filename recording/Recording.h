// A folder of depth frames with known or unknown poses.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "foundation/CameraInParam.h"
#include "foundation/RigidMatrix.h"
#include "recording/DepthImage.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// One frame of a recording: its number in the file name, its depth image and, when known, its pose from
/// camera to world coordinates (mm).
struct RecordedFrame {
    int number = 0;
    std::filesystem::path depthFile;
    double depthStep = 1.0;  ///< mm between neighbouring values of the depth image
    std::optional<RigidMatrix> cameraToWorld;
};

Outcome<DepthImage> read_depth(const RecordedFrame& frame);

enum class PosePolicy {
    Required,  ///< every frame has a pose
    Optional,  ///< frames may have none; a pose file that is there must be right
};

/// A recording as a folder holds it: `camera-intrinsics.txt` (3 x 3, pixels) and for every frame
/// `frame-NNNNNN.depth.png` (16-bit grey, 0 and 65535 = no value) and `frame-NNNNNN.pose.txt` (4 x 4
/// camera-to-world, metres). Depths are in millimetres, or in multiples of the number of millimetres that stands in
/// `depth-step.txt`. Numbers need not start at 0 nor follow each other; other files are ignored.
/// Plain data: reading from several threads is safe.
class Recording {
public:
    /// Lists the folder and reads everything but the pixels: intrinsics, poses, and size and end of each
    /// image. A folder without frames, a frame with only one of its files, images of different sizes, and
    /// every file that is not what it should be are refused with one line naming file and cause.
    static Outcome<Recording> open(const std::filesystem::path& folder, PosePolicy policy);

    const std::filesystem::path& folder() const { return _folder; }
    const CameraInParam& camera() const { return _camera; }
    ImageSize image_size() const { return _imageSize; }
    /// mm between neighbouring values of the depth images.
    double depth_step() const { return _frames.front().depthStep; }
    /// In the order of their numbers; never empty.
    const std::vector<RecordedFrame>& frames() const { return _frames; }

private:
    Recording() = default;

    std::filesystem::path _folder;
    CameraInParam _camera;
    ImageSize _imageSize;
    std::vector<RecordedFrame> _frames;
};

/// Writes a recording frame by frame; each file appears only when it is complete.
class RecordingWriter {
public:
    /// Makes the folder and writes the intrinsics. A folder that holds frames already is refused, because
    /// frames of two recordings would mix. With a step other than one millimetre depths are written as multiples of
    /// it, whatever the images say.
    static Outcome<RecordingWriter> create(const std::filesystem::path& folder, const CameraInParam& camera,
                                           double depthStep = 1.0);

    /// The pose takes camera to world coordinates (mm); without one only the image is written.
    Outcome<Done> write_frame(int number, const DepthImage& image, const std::optional<RigidMatrix>& cameraToWorld);

private:
    RecordingWriter(std::filesystem::path folder, double depthStep)
        : _folder(std::move(folder)), _depthStep(depthStep) {}

    std::filesystem::path _folder;
    double _depthStep;
};

}  // namespace VexelAlgorithm
