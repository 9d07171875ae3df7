// Hand-held scans of virtual scenes, with the truth about poses and surface.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/PointImage.h"
#include "simulation/NoiseModel.h"
#include "simulation/Shape.h"
#include "simulation/handTremor.h"

namespace VexelAlgorithm::Simulation {

/// A scan before it is rendered. Plain data; whoever needs a variant changes the fields. Lengths in mm.
struct Sequence {
    std::string name;
    ShapePtr scene;  ///< the truth about the surface, in world coordinates
    CameraInParam camera;
    int width = 0;
    int height = 0;
    double farLimit = 500.0;          ///< depth beyond which the scanner sees nothing
    std::vector<RigidMatrix> poses;   ///< camera to world
    std::vector<char> isBlack;        ///< for every pose: not 0 when something covers the camera
    std::optional<NoiseModel> noise;  ///< none for ideal depths
    double normalWindow = 2.4;        ///< half-width of the window of points from which normals are computed; 0 for
                                      ///< the surface's own normals

    int frame_count() const { return static_cast<int>(poses.size()); }
    /// What a tracker shall find that calls the first camera's coordinates the model's: camera to first camera.
    RigidMatrix pose_in_model(int frame) const {
        return poses.front().inverse() * poses[static_cast<std::size_t>(frame)];
    }
};

/// What the scanner measures in this frame, in camera coordinates: points with noise, the normals computed from these
/// points as a scanner must do it (`PointImage::update_VNrv`), weights and flags; empty when the frame is black. The
/// same for any number of threads.
PointImage frame_of(const Sequence& sequence, int frame, int threads = 2);
/// The same from a pose of the caller's; the number chooses the noise.
PointImage frame_from(const Sequence& sequence, const RigidMatrix& cameraToWorld, std::uint64_t number,
                      int threads = 2);

struct SequenceSettings {
    int frames = 0;  ///< 0 for the sequence's own number; the step from frame to frame grows when there are fewer
    /// Of the image. The camera always sees 256 mm x 205 mm at 400 mm with 640 x 512 pixels, and the same width with
    /// any other number of columns.
    int width = 640;
    int height = 512;
    std::uint64_t seed = 1;              ///< of noise and tremor
    double noiseSigma = 0.1;             ///< mm of depth, the same everywhere; 0 for ideal depths
    double tremor = 1.0;                 ///< factor on the tremor of the sequence; 0 for a path on rails
    ShapePtr scene;                      ///< instead of the sequence's own; null for that
    Vector3d centre = Vector3d::Zero();  ///< mm; what the camera looks at in a scene given here
};

/// A name, one sentence about it, and the frames it has when nothing else is asked for.
struct SequenceDescription {
    std::string name;
    std::string text;
    int frames = 0;
};
/// The built-in sequences. All but the bare plane see an object on a table from some 400 mm:
///
/// - `full_turn`: once around the owl, 3.6 degrees and 25 mm a frame with 100 frames, and a mild tremor
/// - `arc`: the same at 3.6 degrees a frame with any number of frames, the middle one in front of the owl
/// - `smooth`: a slow sweep about the blocks, 7 mm and 1 degree a frame
/// - `fast`: to and fro about the blocks with up to some 25 mm and 4 degrees a frame, and a strong tremor
/// - `jump`: the slow sweep; in the middle the scanner jumps by (20, -20, 0) mm, which is a corner of a grid of 5 x 5
///   positions with steps of 10 mm, and 2 degrees about the diagonal, and goes on from there
/// - `black_out`: the slow sweep; in the middle 10 frames are black while the hand stays where it is
/// - `past_plane`: from the blocks away over the bare table and back; in the middle third only the table is seen
/// - `bare_plane`: a slow sweep over the bare table, which leaves three degrees of freedom open
/// - `still`: a view of the blocks that stays, up to the tremor
///
/// Speeds are those with the own number of frames; `path_speed` gives them exactly.
std::vector<SequenceDescription> sequence_descriptions();
/// Unknown names and settings that no sequence can have give one line and nothing.
std::optional<Sequence> make_sequence(const std::string& name, const SequenceSettings& settings = {});

}  // namespace VexelAlgorithm::Simulation
