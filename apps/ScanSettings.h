// Everything that a scan of a recording can be told, and the built-in choices.
#pragma once

#include <string>
#include <vector>

#include "SpeckleRebCPU/RebParam.h"
#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/TextureParam.h"
#include "foundation/TrackParmeter.h"
#include "foundation/parameterCheck.h"
#include "recording/Recording.h"
#include "recording/pointImageFromDepth.h"

namespace VexelAlgorithm::Apps {

/// The second form of the session, which prepares texture-based tracking.
struct TextureSettings {
    bool isUsed = false;
    TextureParam param;
    RigidMatrix leftToTexture;  ///< takes left-camera coordinates to texture-camera coordinates, mm
};

/// What a session is told after it was made.
struct SessionSettings {
    /// Smallest eigenvalue of the ICP's normal matrix (weights squared, mm) of a stable registration.
    float icpStableThreadhold = 5.0F;
    /// Shares of correspondences kept, in the first and in the fine iterations.
    Vector2f icpKeepRatio{0.7F, 0.9F};
    /// Whether lost frames are looked for by their features.
    bool recovery = false;
};

/// A stereo scanner and how its pairs are reconstructed.
struct RigSettings {
    /// Nearest and farthest depth in rectified-left coordinates, mm; (0, 0) leaves the search range to
    /// `rebuild.findRange`, which is otherwise replaced, see searchRange.h.
    Vector2f depthRange = Vector2f::Zero();
    RebParam rebuild;
    /// Points beside depth edges are not scanned, see `PointImage::find_egde_point`; a margin of 0 keeps all. The
    /// defaults take away half of the points that are wrong by more than 0.5 mm and one of fifty that are right.
    int edgeMargin = 1;
    float edgeJump = 1.0F;
    int smallestPiece = 50;
};

struct ScanSettings {
    CommonParameter common;
    TrackParmeter track;
    FusionParameter fusion;
    SessionSettings session;
    TextureSettings texture;
    DepthFrameSettings frame;
    RigSettings rig;
};

/// "room", "object" and "desk".
std::vector<std::string> preset_names();
/// A room seen by a hand-held depth camera at one to four metres ("room"), an object of the size of a desk seen by a
/// depth camera at 400 mm ("object"), or such an object seen by a stereo speckle scanner with 1.3 megapixel cameras
/// ("desk"). Image size and camera are zero and the output path is empty, see `fill_in`.
ScanSettings preset_settings(const std::string& name);

/// Replaces an image size or a camera of zeros by the recording's, and an empty output path by the folder. Without a
/// colour camera the size of its image stays zero.
void fill_in(ScanSettings& settings, const Recording& recording, const std::string& folder);

/// What is wrong with the settings; fields are named with their section, "track.icpDis(1)". An empty list means
/// nothing. Zeros that `fill_in` replaces are no fault.
std::vector<ParameterFinding> check_settings(const ScanSettings& settings);

}  // namespace VexelAlgorithm::Apps
