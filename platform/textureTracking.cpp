#include "platform/textureTracking.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <string_view>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"

namespace vexel_sfm {
namespace {

using VexelAlgorithm::ExportedFunction;
using VexelAlgorithm::guarded;
using VexelAlgorithm::on_handle;
using VexelAlgorithm::PointImage;
using VexelAlgorithm::print_line;
using VexelAlgorithm::RigidMatrix;
using VexelAlgorithm::Vector2f;
using VexelAlgorithm::Vector3f;

std::atomic<TextureTrackerFactory> registeredFactory{nullptr};

constexpr ExportedFunction texture_function(std::string_view name) {
    return {name, {"can not run function ", name, " because the texture tracker = NULL"}};
}

bool is_usable(std::string_view function, const TextureImage& image) {
    const bool usable = image.pixels != nullptr && image.width > 0 && image.height > 0 &&
                        image.stride >= static_cast<std::size_t>(image.width);
    if (!usable) print_line(std::string(function).append(" failed: the texture image has no pixels"));
    return usable;
}

template <class Body>
bool on_tracker(void* tracker, std::string_view function, Body&& body) noexcept {
    return on_handle<TextureTracker, bool>(tracker, texture_function(function), {false, false},
                                           std::forward<Body>(body));
}

template <class Body>
bool on_tracker(void* tracker, std::string_view function, const TextureImage& image, Body&& body) noexcept {
    return on_tracker(tracker, function,
                      [&](TextureTracker& target) { return is_usable(function, image) && body(target); });
}

/// Runs `find(pose)` on a copy, which reaches the caller on success only.
template <class Find>
bool found_pose(RigidMatrix& pose, Find&& find) {
    RigidMatrix found = pose;
    if (!find(found)) return false;
    pose = found;
    return true;
}

}  // namespace

TextureTracker::~TextureTracker() = default;

TextureTrackerSettings texture_tracker_settings(const VexelAlgorithm::TextureParam& record,
                                                const RigidMatrix& leftToTexture) noexcept {
    TextureTrackerSettings settings;
    settings.trackerSettings = record.trackerSettings;
    std::copy(record.camera.begin(), record.camera.end(), settings.camera.begin());
    settings.featureCount = record.featureCount;
    settings.trackerFlags = record.trackerFlags;
    settings.matchFlags = record.matchFlags;
    settings.trackerToken = record.trackerToken;
    settings.leftToTexture = leftToTexture;
    return settings;
}

TextureTrackerFactory register_texture_tracker(TextureTrackerFactory factory) noexcept {
    return registeredFactory.exchange(factory);
}

void* tbt_create(const TextureTrackerSettings& settings) noexcept {
    return guarded<void*>("tbt_create", nullptr, [&]() -> void* {
        const TextureTrackerFactory factory = registeredFactory.load();
        if (factory == nullptr) return nullptr;
        std::unique_ptr<TextureTracker> tracker = factory(settings);
        if (tracker == nullptr) print_line("tbt_create failed: the registered library made no texture tracker");
        return tracker.release();
    });
}

bool tbt_reset(void* tracker) noexcept {
    return on_tracker(tracker, "tbt_reset", [](TextureTracker& target) { return target.reset(); });
}

bool tbt_release(void*& tracker) noexcept {
    return on_tracker(tracker, "tbt_release", [&](TextureTracker& target) {
        tracker = nullptr;
        delete &target;
        return true;
    });
}

bool tbt_getFeatures(void* tracker, const TextureImage& image, std::vector<Vector2f>& features) noexcept {
    return on_tracker(tracker, "tbt_getFeatures", image, [&](TextureTracker& target) {
        std::vector<Vector2f> found;
        if (!target.get_features(image, found)) return false;
        features = std::move(found);
        return true;
    });
}

bool tbt_firstFrame(void* tracker, const PointImage& frame, const TextureImage& image) noexcept {
    return on_tracker(tracker, "tbt_firstFrame", image,
                      [&](TextureTracker& target) { return target.first_frame(frame, image); });
}

bool tbt_addFrame(void* tracker, const PointImage& frame, const TextureImage& image, RigidMatrix& pose) noexcept {
    return on_tracker(tracker, "tbt_addFrame", image, [&](TextureTracker& target) {
        return found_pose(pose, [&](RigidMatrix& found) { return target.add_frame(frame, image, found); });
    });
}

bool tbt_featureStitch(void* tracker, RigidMatrix& pose) noexcept {
    return on_tracker(tracker, "tbt_featureStitch", [&](TextureTracker& target) {
        return found_pose(pose, [&](RigidMatrix& found) { return target.feature_stitch(found); });
    });
}

bool tbt_renewCurrentFrame(void* tracker, const RigidMatrix& pose) noexcept {
    return on_tracker(tracker, "tbt_renewCurrentFrame",
                      [&](TextureTracker& target) { return target.renew_current_frame(pose); });
}

bool tbt_fromCaChe(void* tracker, int frame) noexcept {
    return on_tracker(tracker, "tbt_fromCaChe", [&](TextureTracker& target) { return target.from_cache(frame); });
}

bool tbt_reconnect(void* tracker, const PointImage& frame, const TextureImage& image, RigidMatrix& pose) noexcept {
    return on_tracker(tracker, "tbt_reconnect", image, [&](TextureTracker& target) {
        return found_pose(pose, [&](RigidMatrix& found) { return target.reconnect(frame, image, found); });
    });
}

bool tbt_deletePoints(void* tracker, const std::vector<Vector3f>& points, float radius) noexcept {
    return on_tracker(tracker, "tbt_deletePoints",
                      [&](TextureTracker& target) { return target.delete_points(points, radius); });
}

}  // namespace vexel_sfm
