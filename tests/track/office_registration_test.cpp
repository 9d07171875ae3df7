// Consecutive frames of a real recording, registered to each other.
#include <cstdlib>
#include <filesystem>

#include "recording/Recording.h"
#include "recording/pointImageFromDepth.h"
#include "recording/selectFrames.h"
#include "recording/trajectoryEvaluation.h"
#include "tests/common.h"
#include "track/IcpBaseOnCam.h"

namespace {

using namespace VexelAlgorithm;

// The given poses themselves are good to some 1.5 mm a step.
TEST(OfficeRegistration, ConsecutiveFramesAgreeWithTheGivenPoses) {
    const char* folder = std::getenv("VEXEL_RECORDINGS");
    if (folder == nullptr) GTEST_SKIP() << "VEXEL_RECORDINGS is not set";
    const auto recording = Recording::open(std::filesystem::path(folder) / "office_depth", PosePolicy::Required);
    ASSERT_TRUE(recording) << recording.failure().reason;
    const std::vector<RecordedFrame> frames = select_frames(recording->frames(), 0, 121, 1);
    const auto read = [&](const RecordedFrame& recorded) {
        const Outcome<DepthImage> depth = read_depth_png(recorded.depthFile, 1.0);
        EXPECT_TRUE(depth) << recorded.depthFile;
        if (!depth) return PointImage();
        return depth_frame_to_point_image(*depth, recording->camera(), {}, 2);
    };

    Track::IcpBaseOnCam icp(20, 6, {20, 100}, 10.0F, {0.1F, 0.1F}, "", {0.7F, 0.9F}, 2);
    std::vector<double> errors;
    for (std::size_t i = 0; i + 1 < frames.size(); i += 4) {
        const PointImage fixed = read(frames[i]), moving = read(frames[i + 1]);
        RigidMatrix movingToFixed;
        ASSERT_EQ(icp.realTimeIcp(fixed, moving, movingToFixed, {}, 0, false), RET_SUCCESS) << i;
        EXPECT_TRUE(icp.get_isStable_icp());
        const RigidMatrix given = frames[i].cameraToWorld->inverse() * *frames[i + 1].cameraToWorld;
        errors.push_back(rms_point_distance(point_moments(moving), movingToFixed, given));
    }
    std::sort(errors.begin(), errors.end());
    RecordProperty("median_um", static_cast<int>(1000.0 * errors[errors.size() / 2]));
    EXPECT_LT(errors[errors.size() / 2], 1.6);
    EXPECT_LT(errors.back(), 10.0);
}

}  // namespace
