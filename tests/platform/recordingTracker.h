// A texture tracker that records what it is fed.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/textureTracking.h"

namespace vexel_sfm {

/// What trackers are asked for, and how they answer.
struct Record {
    TextureTrackerSettings settings;
    std::vector<std::string> calls;
    bool succeeds = true;
    bool throws = false;
    bool makesNone = false;
};
inline Record record;

class RecordingTracker : public TextureTracker {
public:
    ~RecordingTracker() override { record.calls.emplace_back("release"); }
    bool reset() override { return note("reset"); }
    bool get_features(const TextureImage& image, std::vector<VexelAlgorithm::Vector2f>& features) override {
        features.assign(static_cast<std::size_t>(image.width), VexelAlgorithm::Vector2f::Zero());
        return note("features");
    }
    bool first_frame(const VexelAlgorithm::PointImage& frame, const TextureImage& image) override {
        return note("first " + std::to_string(frame.get_vn()) + " " + std::to_string(image.pixels[image.stride]));
    }
    bool add_frame(const VexelAlgorithm::PointImage&, const TextureImage&, VexelAlgorithm::RigidMatrix& pose) override {
        return move(pose, "add");
    }
    bool feature_stitch(VexelAlgorithm::RigidMatrix& pose) override { return move(pose, "stitch"); }
    bool renew_current_frame(const VexelAlgorithm::RigidMatrix& pose) override {
        return note("renew " + std::to_string(static_cast<int>(pose.get_translation().x())));
    }
    bool from_cache(int frame) override { return note("cache " + std::to_string(frame)); }
    bool reconnect(const VexelAlgorithm::PointImage&, const TextureImage&, VexelAlgorithm::RigidMatrix& pose) override {
        return move(pose, "reconnect");
    }
    bool delete_points(const std::vector<VexelAlgorithm::Vector3f>& points, float radius) override {
        return note("delete " + std::to_string(points.size()) + " " + std::to_string(static_cast<int>(radius)));
    }

private:
    static bool note(const std::string& call) {
        record.calls.push_back(call);
        if (record.throws) throw std::runtime_error("lost");
        return record.succeeds;
    }
    static bool move(VexelAlgorithm::RigidMatrix& pose, const std::string& call) {
        pose.get_translation().x() += 1.0;
        return note(call);
    }
};

inline std::unique_ptr<TextureTracker> make_recording(const TextureTrackerSettings& settings) {
    if (record.throws) throw std::runtime_error("no memory");
    record.settings = settings;
    return record.makesNone ? nullptr : std::make_unique<RecordingTracker>();
}

}  // namespace vexel_sfm
