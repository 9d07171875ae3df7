// Texture-based tracking: the place where a tracking library plugs in.
//
// The library contains no texture tracker. An application that has one wraps it in a `TextureTracker` and registers a
// factory; sessions that are made with a `TextureParam` afterwards create one of it, feed it, reset and release it.
// Without a factory `tbt_create` returns null and a session goes on without.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"
#include "foundation/TextureParam.h"
#include "foundation/export.h"
#include "foundation/types.h"

namespace vexel_sfm {

/// What a texture tracker is made from. The fields carry the values of `TextureParam`, in its order and with its
/// meaning.
struct TextureTrackerSettings {
    std::array<std::int32_t, 4> trackerSettings{};
    std::array<double, 4> camera{};  ///< fx, fy, cx, cy of the texture camera, pixels
    std::int32_t featureCount = 1000;
    std::array<std::uint8_t, 4> trackerFlags{};
    std::array<std::uint8_t, 3> matchFlags{};
    std::uint64_t trackerToken = 0;
    VexelAlgorithm::RigidMatrix leftToTexture;  ///< left (depth) camera coordinates to those of the texture camera
};

/// The settings that a session hands over: the record's values, camera widened to double, and the rigid motion beside
/// it.
VEXEL_API TextureTrackerSettings texture_tracker_settings(const VexelAlgorithm::TextureParam& record,
                                                          const VexelAlgorithm::RigidMatrix& leftToTexture) noexcept;

/// An 8-bit grey image of the texture camera, owned by the caller: pixel (x, y) is `pixels[y * stride + x]`.
struct TextureImage {
    const std::uint8_t* pixels = nullptr;
    int width = 0;
    int height = 0;
    std::size_t stride = 0;  ///< bytes from row to row, at least the width
};

/// One tracker. Point images are in left camera coordinates (stored pose: identity) and belong to the same instant as
/// the image; poses take left camera coordinates to model coordinates. Frames are numbered from 0 in the order in which
/// they were given since the start or the last reset. Inputs are valid during the call only. A call that fails returns
/// false and leaves its outputs alone. What is thrown is caught, printed and counts as failure. Calls on one tracker
/// never overlap.
class VEXEL_API TextureTracker {
public:
    virtual ~TextureTracker();

    /// Forgets all frames and features; the settings stay.
    virtual bool reset() = 0;
    /// Features (pixels) of an image that is not kept.
    virtual bool get_features(const TextureImage& image, std::vector<VexelAlgorithm::Vector2f>& features) = 0;
    /// Starts a map whose origin is this frame's pose, the identity.
    virtual bool first_frame(const VexelAlgorithm::PointImage& frame, const TextureImage& image) = 0;
    /// Tracks the next frame against the map: `pose` comes in as the expected pose and goes out as the found one.
    virtual bool add_frame(const VexelAlgorithm::PointImage& frame, const TextureImage& image,
                           VexelAlgorithm::RigidMatrix& pose) = 0;
    /// Pose of the last frame found from feature matches alone, with no expectation.
    virtual bool feature_stitch(VexelAlgorithm::RigidMatrix& pose) = 0;
    /// Replaces the pose of the last frame by a better one.
    virtual bool renew_current_frame(const VexelAlgorithm::RigidMatrix& pose) = 0;
    /// Makes an earlier frame the current one again; later frames are forgotten.
    virtual bool from_cache(int frame) = 0;
    /// Finds a frame in the whole map after tracking was lost.
    virtual bool reconnect(const VexelAlgorithm::PointImage& frame, const TextureImage& image,
                           VexelAlgorithm::RigidMatrix& pose) = 0;
    /// Forgets the map points that lie within `radius` (mm) of one of the points (model coordinates, mm).
    virtual bool delete_points(const std::vector<VexelAlgorithm::Vector3f>& points, float radius) = 0;
};

/// Makes a tracker; null when it cannot.
using TextureTrackerFactory = std::unique_ptr<TextureTracker> (*)(const TextureTrackerSettings& settings);

/// Sets the factory of the process, null for none, and returns the one before. Trackers that exist are not touched, so
/// the code behind them has to stay loaded until they are released. Safe from any thread.
VEXEL_API TextureTrackerFactory register_texture_tracker(TextureTrackerFactory factory) noexcept;

// The functions through which a session reaches its tracker. `tracker` is what `tbt_create` returned. With a null
// tracker, or an image whose pixels are missing, whose size is below 1 or whose stride is below its width, they print
// one line and return false.

/// Null without a factory, silently; null with a line when the factory gives none or throws.
VEXEL_API void* tbt_create(const TextureTrackerSettings& settings) noexcept;
VEXEL_API bool tbt_reset(void* tracker) noexcept;
/// Destroys the tracker and nulls the caller's variable.
VEXEL_API bool tbt_release(void*& tracker) noexcept;
VEXEL_API bool tbt_getFeatures(void* tracker, const TextureImage& image,
                               std::vector<VexelAlgorithm::Vector2f>& features) noexcept;
VEXEL_API bool tbt_firstFrame(void* tracker, const VexelAlgorithm::PointImage& frame,
                              const TextureImage& image) noexcept;
VEXEL_API bool tbt_addFrame(void* tracker, const VexelAlgorithm::PointImage& frame, const TextureImage& image,
                            VexelAlgorithm::RigidMatrix& pose) noexcept;
VEXEL_API bool tbt_featureStitch(void* tracker, VexelAlgorithm::RigidMatrix& pose) noexcept;
VEXEL_API bool tbt_renewCurrentFrame(void* tracker, const VexelAlgorithm::RigidMatrix& pose) noexcept;
VEXEL_API bool tbt_fromCaChe(void* tracker, int frame) noexcept;
VEXEL_API bool tbt_reconnect(void* tracker, const VexelAlgorithm::PointImage& frame, const TextureImage& image,
                             VexelAlgorithm::RigidMatrix& pose) noexcept;
VEXEL_API bool tbt_deletePoints(void* tracker, const std::vector<VexelAlgorithm::Vector3f>& points,
                                float radius) noexcept;

}  // namespace vexel_sfm
