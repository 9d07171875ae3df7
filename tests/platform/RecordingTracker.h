// A texture tracker that records what it is fed and does as it is told.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "platform/textureTracking.h"

namespace VexelTest {

struct TextureRecord {
    vexel_sfm::TextureTrackerSettings settings;
    std::vector<std::string> calls;
    bool succeeds = true, throws = false, makesNone = false;
};
inline TextureRecord textureRecord;

class RecordingTracker : public vexel_sfm::TextureTracker {
public:
    using Image = vexel_sfm::TextureImage;
    using PointImage = VexelAlgorithm::PointImage;
    using Pose = VexelAlgorithm::RigidMatrix;

    ~RecordingTracker() override { textureRecord.calls.emplace_back("release"); }
    bool reset() override { return note("reset"); }
    bool get_features(const Image& image, std::vector<VexelAlgorithm::Vector2f>& features) override {
        features.resize(static_cast<std::size_t>(image.width));
        return note("features");
    }
    bool first_frame(const PointImage& frame, const Image& image) override {
        return note("first " + std::to_string(frame.get_vn()) + " " + std::to_string(image.pixels[image.stride]));
    }
    bool add_frame(const PointImage&, const Image&, Pose& pose) override { return move(pose, "add"); }
    bool feature_stitch(Pose& pose) override { return move(pose, "stitch"); }
    bool renew_current_frame(const Pose& pose) override {
        return note("renew " + std::to_string(static_cast<int>(pose.get_translation().x())));
    }
    bool from_cache(int frame) override { return note("cache " + std::to_string(frame)); }
    bool reconnect(const PointImage&, const Image&, Pose& pose) override { return move(pose, "reconnect"); }
    bool delete_points(const std::vector<VexelAlgorithm::Vector3f>& points, float radius) override {
        return note("delete " + std::to_string(points.size()) + " " + std::to_string(static_cast<int>(radius)));
    }

private:
    static bool note(const std::string& call) {
        textureRecord.calls.push_back(call);
        if (textureRecord.throws) throw std::runtime_error("lost");
        return textureRecord.succeeds;
    }
    static bool move(Pose& pose, const std::string& call) {
        pose.get_translation().x() += 1.0;
        return note(call);
    }
};

inline std::unique_ptr<vexel_sfm::TextureTracker> make_recording(const vexel_sfm::TextureTrackerSettings& settings) {
    if (textureRecord.throws) throw std::runtime_error("no memory");
    textureRecord.settings = settings;
    return textureRecord.makesNone ? nullptr : std::make_unique<RecordingTracker>();
}

}  // namespace VexelTest
