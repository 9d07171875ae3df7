// What reaches a registered texture tracker, and what its failures leave.
#include "tests/common.h"
#include "tests/platform/RecordingTracker.h"

namespace vexel_sfm {
namespace {

using namespace VexelAlgorithm;
using namespace VexelTest;

class TextureTracking : public testing::Test {
protected:
    void SetUp() override {
        textureRecord = {};
        frame.ini(3, 2);
    }
    void TearDown() override { register_texture_tracker(nullptr); }

    using Calls = std::vector<std::pair<std::string, std::function<bool()>>>;
    Calls calls_with_image() {
        return {{"tbt_getFeatures", [&] { return tbt_getFeatures(tracker, image, features); }},
                {"tbt_firstFrame", [&] { return tbt_firstFrame(tracker, frame, image); }},
                {"tbt_addFrame", [&] { return tbt_addFrame(tracker, frame, image, pose); }},
                {"tbt_reconnect", [&] { return tbt_reconnect(tracker, frame, image, pose); }}};
    }
    Calls all_calls() {
        Calls calls = calls_with_image();
        calls.insert(calls.end(),
                     {{"tbt_featureStitch", [&] { return tbt_featureStitch(tracker, pose); }},
                      {"tbt_renewCurrentFrame", [&] { return tbt_renewCurrentFrame(tracker, pose); }},
                      {"tbt_fromCaChe", [&] { return tbt_fromCaChe(tracker, 5); }},
                      {"tbt_deletePoints", [&] { return tbt_deletePoints(tracker, {Vector3f::Zero()}, 2.0f); }},
                      {"tbt_reset", [&] { return tbt_reset(tracker); }}});
        return calls;
    }

    const std::uint8_t pixels[10] = {0, 0, 0, 0, 0, 77};
    TextureImage image{pixels, 4, 2, 5};
    PointImage frame;
    RigidMatrix pose;
    std::vector<Vector2f> features;
    void* tracker = nullptr;
};

TEST_F(TextureTracking, FedSettingsFramesAndPoses) {
    TextureParam param;
    param.trackerSettings = {1, -2, 3, 4};
    param.camera = {0.1f, 5.0f, 6.0f, 7.0f};
    param.featureCount = 250;
    param.trackerFlags = {1, 0, 1, 1};
    param.matchFlags = {0, 1, 1};
    param.trackerToken = 0xFEDCBA9876543210u;

    register_texture_tracker(make_recording);
    tracker = tbt_create(texture_tracker_settings(param, {Matrix3d::Identity(), {9, 8, 7}}));
    ASSERT_NE(tracker, nullptr);
    const TextureTrackerSettings& settings = textureRecord.settings;
    EXPECT_EQ(settings.trackerSettings, param.trackerSettings);
    EXPECT_TRUE(std::equal(settings.camera.begin(), settings.camera.end(), param.camera.begin()));
    EXPECT_EQ(settings.featureCount, 250);
    EXPECT_EQ(settings.trackerFlags, param.trackerFlags);
    EXPECT_EQ(settings.matchFlags, param.matchFlags);
    EXPECT_EQ(settings.trackerToken, param.trackerToken);
    EXPECT_EQ(settings.leftToTexture.get_translation(), Vector3d(9, 8, 7));

    for (const auto& [name, call] : all_calls()) EXPECT_TRUE(call()) << name;
    EXPECT_EQ(pose.get_translation().x(), 3.0);
    EXPECT_EQ(features.size(), 4u);
    EXPECT_TRUE(tbt_release(tracker));
    EXPECT_EQ(tracker, nullptr);
    EXPECT_EQ(textureRecord.calls, (std::vector<std::string>{"features", "first 6 77", "add", "reconnect", "stitch",
                                                             "renew 3", "cache 5", "delete 1 2", "reset", "release"}));
}

TEST_F(TextureTracking, FailuresPrintAndChangeNothing) {
    const auto expect_failure = [](const std::function<bool()>& call, const std::string& lines) {
        EXPECT_EQ(printed([&] { EXPECT_FALSE(call()); }), lines);
    };
    const auto create = [&] { return (tracker = tbt_create({})) != nullptr; };
    expect_failure(create, "");  // no library is no failure
    register_texture_tracker(make_recording);
    textureRecord.makesNone = true;
    expect_failure(create, "tbt_create failed: the registered library made no texture tracker\n");
    textureRecord.throws = true;
    expect_failure(create, "tbt_create failed: no memory\n");

    Calls nullCalls = all_calls();
    nullCalls.emplace_back("tbt_release", [&] { return tbt_release(tracker); });
    for (const auto& [name, call] : nullCalls)
        expect_failure(call, "can not run function " + name + " because the texture tracker = NULL\n");

    textureRecord = {};
    ASSERT_TRUE(create());
    textureRecord.throws = true;
    for (const auto& [name, call] : all_calls()) expect_failure(call, name + " failed: lost\n");
    textureRecord.throws = textureRecord.succeeds = false;
    for (const auto& [name, call] : all_calls()) expect_failure(call, "");
    EXPECT_EQ(pose.get_translation().x(), 0.0);
    EXPECT_TRUE(features.empty());

    const std::size_t calls = textureRecord.calls.size();
    for (const TextureImage& bad : {TextureImage{}, TextureImage{nullptr, 4, 2, 5}, TextureImage{pixels, 0, 2, 5},
                                    TextureImage{pixels, 4, -2, 5}, TextureImage{pixels, 4, 2, 3}}) {
        image = bad;
        for (const auto& [name, call] : calls_with_image())
            expect_failure(call, name + " failed: the texture image has no pixels\n");
    }
    EXPECT_EQ(textureRecord.calls.size(), calls);
    EXPECT_TRUE(tbt_release(tracker));
}

}  // namespace
}  // namespace vexel_sfm
