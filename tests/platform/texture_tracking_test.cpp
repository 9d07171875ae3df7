// A texture tracker that records what it is fed.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>

#include "platform/textureTracking.h"

namespace vexel_sfm {
namespace {

using VexelAlgorithm::Matrix3d;
using VexelAlgorithm::PointImage;
using VexelAlgorithm::RigidMatrix;
using VexelAlgorithm::Vector2f;
using VexelAlgorithm::Vector3d;
using VexelAlgorithm::Vector3f;

struct Record {
    TextureTrackerSettings settings;
    std::vector<std::string> calls;
    bool succeeds = true;
    bool throws = false;
    bool makesNone = false;
} record;

class RecordingTracker : public TextureTracker {
public:
    ~RecordingTracker() override { record.calls.emplace_back("release"); }
    bool reset() override { return note("reset"); }
    bool get_features(const TextureImage& image, std::vector<Vector2f>& features) override {
        features.assign(static_cast<std::size_t>(image.width), Vector2f::Zero());
        return note("features");
    }
    bool first_frame(const PointImage& frame, const TextureImage& image) override {
        return note("first " + std::to_string(frame.get_vn()) + " " + std::to_string(image.pixels[image.stride]));
    }
    bool add_frame(const PointImage&, const TextureImage&, RigidMatrix& pose) override { return move(pose, "add"); }
    bool feature_stitch(RigidMatrix& pose) override { return move(pose, "stitch"); }
    bool renew_current_frame(const RigidMatrix& pose) override {
        return note("renew " + std::to_string(static_cast<int>(pose.get_translation().x())));
    }
    bool from_cache(int frame) override { return note("cache " + std::to_string(frame)); }
    bool reconnect(const PointImage&, const TextureImage&, RigidMatrix& pose) override {
        return move(pose, "reconnect");
    }
    bool delete_points(const std::vector<Vector3f>& points, float radius) override {
        return note("delete " + std::to_string(points.size()) + " " + std::to_string(static_cast<int>(radius)));
    }

private:
    static bool note(const std::string& call) {
        record.calls.push_back(call);
        if (record.throws) throw std::runtime_error("lost");
        return record.succeeds;
    }
    static bool move(RigidMatrix& pose, const std::string& call) {
        pose.get_translation().x() += 1.0;
        return note(call);
    }
};

std::unique_ptr<TextureTracker> make_recording(const TextureTrackerSettings& settings) {
    if (record.throws) throw std::runtime_error("no memory");
    record.settings = settings;
    return record.makesNone ? nullptr : std::make_unique<RecordingTracker>();
}

class TextureTracking : public testing::Test {
protected:
    void SetUp() override {
        record = {};
        frame.ini(3, 2);
    }
    void TearDown() override { register_texture_tracker(nullptr); }

    std::vector<std::pair<std::string, std::function<bool()>>> all_calls() {
        return {{"tbt_reset", [&] { return tbt_reset(tracker); }},
                {"tbt_getFeatures", [&] { return tbt_getFeatures(tracker, image, features); }},
                {"tbt_firstFrame", [&] { return tbt_firstFrame(tracker, frame, image); }},
                {"tbt_addFrame", [&] { return tbt_addFrame(tracker, frame, image, pose); }},
                {"tbt_featureStitch", [&] { return tbt_featureStitch(tracker, pose); }},
                {"tbt_renewCurrentFrame", [&] { return tbt_renewCurrentFrame(tracker, pose); }},
                {"tbt_fromCaChe", [&] { return tbt_fromCaChe(tracker, 5); }},
                {"tbt_reconnect", [&] { return tbt_reconnect(tracker, frame, image, pose); }},
                {"tbt_deletePoints", [&] { return tbt_deletePoints(tracker, {Vector3f::Zero()}, 2.0f); }}};
    }

    const std::uint8_t pixels[10] = {0, 0, 0, 0, 0, 77};
    TextureImage image{pixels, 4, 2, 5};
    PointImage frame;
    RigidMatrix pose;
    std::vector<Vector2f> features;
    void* tracker = nullptr;
};

TEST_F(TextureTracking, FedSettingsFramesAndPoses) {
    VexelAlgorithm::TextureParam param;
    param.trackerSettings = {1, -2, 3, 4};
    param.camera = {0.1f, 5.0f, 6.0f, 7.0f};
    param.featureCount = 250;
    param.trackerFlags = {1, 0, 1, 1};
    param.matchFlags = {0, 1, 1};
    param.trackerToken = 0xFEDCBA9876543210u;

    register_texture_tracker(make_recording);
    tracker = tbt_create(texture_tracker_settings(param, {Matrix3d::Identity(), {9, 8, 7}}));
    ASSERT_NE(tracker, nullptr);
    EXPECT_EQ(record.settings.trackerSettings, param.trackerSettings);
    EXPECT_EQ(record.settings.camera[0], static_cast<double>(0.1f));
    EXPECT_EQ(record.settings.camera[3], 7.0);
    EXPECT_EQ(record.settings.featureCount, 250);
    EXPECT_EQ(record.settings.trackerFlags, param.trackerFlags);
    EXPECT_EQ(record.settings.matchFlags, param.matchFlags);
    EXPECT_EQ(record.settings.trackerToken, param.trackerToken);
    EXPECT_EQ(record.settings.leftToTexture.get_translation(), Vector3d(9, 8, 7));

    for (const auto& [name, call] : all_calls()) EXPECT_TRUE(call()) << name;
    EXPECT_EQ(pose.get_translation().x(), 3.0);
    EXPECT_EQ(features.size(), 4u);
    EXPECT_TRUE(tbt_release(tracker));
    EXPECT_EQ(tracker, nullptr);
    EXPECT_EQ(record.calls, (std::vector<std::string>{"reset", "features", "first 6 77", "add", "stitch", "renew 2",
                                                      "cache 5", "reconnect", "delete 1 2", "release"}));
}

TEST_F(TextureTracking, FailuresPrintAndChangeNothing) {
    const auto printed_by = [](const std::function<bool()>& call) {
        testing::internal::CaptureStdout();
        EXPECT_FALSE(call());
        return testing::internal::GetCapturedStdout();
    };
    const auto create = [&] { return (tracker = tbt_create({})) != nullptr; };
    EXPECT_EQ(printed_by(create), "") << "no library is no failure";
    register_texture_tracker(make_recording);
    record.makesNone = true;
    EXPECT_EQ(printed_by(create), "tbt_create failed: the registered library made no texture tracker\n");
    record.throws = true;
    EXPECT_EQ(printed_by(create), "tbt_create failed: no memory\n");

    for (const auto& [name, call] : all_calls())
        EXPECT_EQ(printed_by(call), "can not run function " + name + " because the texture tracker = NULL\n");
    EXPECT_EQ(printed_by([&] { return tbt_release(tracker); }),
              "can not run function tbt_release because the texture tracker = NULL\n");

    record = {};
    ASSERT_TRUE(create());
    record.throws = true;
    for (const auto& [name, call] : all_calls()) EXPECT_EQ(printed_by(call), name + " failed: lost\n");
    record.throws = record.succeeds = false;
    for (const auto& [name, call] : all_calls()) EXPECT_EQ(printed_by(call), "") << name;
    EXPECT_EQ(pose.get_translation().x(), 0.0);
    EXPECT_TRUE(features.empty());

    record.succeeds = true;
    const std::size_t calls = record.calls.size();
    for (const TextureImage& bad : {TextureImage{}, TextureImage{nullptr, 4, 2, 5}, TextureImage{pixels, 0, 2, 5},
                                    TextureImage{pixels, 4, -2, 5}, TextureImage{pixels, 4, 2, 3}}) {
        image = bad;
        const auto seesImage =
            std::set<std::string>{"tbt_getFeatures", "tbt_firstFrame", "tbt_addFrame", "tbt_reconnect"};
        for (const auto& [name, call] : all_calls()) {
            if (seesImage.count(name) == 0) continue;
            EXPECT_EQ(printed_by(call), name + " failed: the texture image has no pixels\n");
        }
    }
    EXPECT_EQ(record.calls.size(), calls);
    EXPECT_TRUE(tbt_release(tracker));
}

}  // namespace
}  // namespace vexel_sfm
