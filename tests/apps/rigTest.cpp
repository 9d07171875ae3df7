// Calibrations of single cameras and what a rig makes of two, against projected points; every fault has its words.
#include "apps/Rig.h"
#include "apps/calibrated.h"
#include "apps/searchRange.h"
#include "recording/calibrationText.h"
#include "simulation/StereoRig.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Apps;
using namespace VexelTrial;

CalibratedCamera camera(const Vector3d& place, double yaw) {
    return {400, 400, 160, 120, {}, RigidMatrix(VexelTest::turned({0.01, yaw, -0.02}), place).inverse()};
}
const CalibratedCamera leftCamera = camera({-30, 0, 5}, 0.12);
const CalibratedCamera rightCamera = camera({31, 1, 4}, -0.13);

TEST(CameraFiles, AreReadOrNamedWithWhatIsWrong) {
    CalibratedCamera lens = leftCamera;
    lens.fy = 81;
    lens.distortion = {-0.1, 0.05, 1e-4, -2e-4, 0.01};
    const std::string whole = calibration_text(lens);
    const auto without = [&](const char* label) {
        const std::size_t at = whole.find(label);
        return whole.substr(0, at) + whole.substr(whole.find('\n', at) + 1);
    };
    std::string reordered = without("Rotation Matrix:"), comma = whole;
    const std::size_t rotation = whole.find("Rotation Matrix:");
    reordered.insert(reordered.find("Translation vector:"),
                     whole.substr(rotation, whole.find('\n', rotation) + 1 - rotation));
    comma.replace(comma.find("-0.1"), 4, "-0,1");
    const std::pair<std::string, const char*> cases[] = {
        {"", "'Focal Length:' is missing"},
        {whole.substr(0, whole.size() / 2), "is missing, or the file is cut short"},
        {without("Standard Error:"), "'Standard Error:' is missing"},
        {reordered, "'Rotation Matrix:' stands before 'Translation vector:'"},
        {comma, "decimal commas"},
        {without("                            [0 0 0 0 0]"), "lines of uncertainties"},
        {std::string(1 << 17, ' '), "larger than"},
    };
    TemporaryFolder folder;
    const fs::path file = folder.path() / "calib_left.txt";
    for (const auto& [text, reason] : cases) {
        SCOPED_TRACE(reason);
        put_bytes(file, text);
        const Outcome<std::vector<float>> read = read_camera_file(file);
        ASSERT_FALSE(read);
        EXPECT_NE(read.failure().reason.find(reason), std::string::npos) << read.failure().reason;
        EXPECT_NE(read.failure().reason.find("calib_left.txt"), std::string::npos);
    }
    EXPECT_FALSE(read_camera_file(folder.path() / "none.txt"));
    put_bytes(file, whole);
    const Outcome<std::vector<float>> read = read_camera_file(file);
    ASSERT_TRUE(read) << read.failure().reason;
    ASSERT_EQ(read->size(), 22u);
    EXPECT_EQ(*read, camera_values(lens));
    EXPECT_TRUE((*read)[1] == 81.0F && (*read)[6] == 0.05F);
    EXPECT_EQ((*read)[10], static_cast<float>(lens.worldToCamera.get_translation().x()));
    EXPECT_EQ((*read)[14], static_cast<float>(lens.worldToCamera.get_rotation()(0, 1))) << "row by row";
}

/// Settings with both cameras and these depths, for images of 320 x 240.
ScanSettings settings_with(const CalibratedCamera& left, const CalibratedCamera& right, const Vector2f& depths) {
    ScanSettings settings = preset_settings("desk");
    settings.rig.rebuild.leftCalib = camera_values(left);
    settings.rig.rebuild.rightCalib = camera_values(right);
    settings.rig.depthRange = depths;
    return settings;
}

TEST(Rigs, SearchRangeHoldsThePartnersOfItsDepthsAndNotMuchMore) {
    ScanSettings settings = settings_with(leftCamera, rightCamera, {200, 260});
    const Outcome<Rig> rig = make_rig(settings, {}, {320, 240});
    ASSERT_TRUE(rig) << rig.failure().reason;
    EXPECT_EQ(settings.common.sample, rig->param.sampleRatio);
    EXPECT_EQ(settings.common.imageSize, Vector2i(320, 240));
    EXPECT_EQ(settings.common.campar.get_cx(), rig->calibration.get_rectified_camera().get_cx());
    EXPECT_EQ(rig->param.imageRange, Vector4i(0, 320, 0, 240));
    // The truth without any formula of the rig: points in space, projected by the rectified matrices.
    double low = 1e9, high = -1e9;
    for (const double depth : {200.0, 260.0}) {
        const Eigen::Vector4d point(10, -5, depth, 1);
        const Vector3d left = rig->calibration.get_left_projection() * point;
        const Vector3d right = rig->calibration.get_right_projection() * point;
        EXPECT_NEAR(left.y() / left.z(), right.y() / right.z(), 1e-3);
        low = std::min(low, right.x() / right.z() - left.x() / left.z());
        high = std::max(high, right.x() / right.z() - left.x() / left.z());
    }
    const int margin = marginSamples * rig->param.sampleRatio;
    EXPECT_NEAR(rig->param.findRange(0), low - margin, 1.01);
    EXPECT_NEAR(rig->param.findRange(1), high + margin + 1, 1.01);

    // Depths along the raw axis spread when the camera is turned, and hold what they held.
    const Vector2d rectified = rectified_depths(rig->calibration, 200, 260);
    EXPECT_TRUE(rectified(0) > 150 && rectified(1) < 330);
    EXPECT_TRUE(rectified(0) < 200 * std::cos(0.12) && rectified(1) > 260 * std::cos(0.12));
}

TEST(Rigs, CamerasOfTheVirtualOneSeeWhatItsCalibrationSays) {
    const Simulation::StereoRig cameras = Simulation::make_stereo_rig(320, 240);
    ScanSettings settings = settings_with(calibrated(cameras.left), calibrated(cameras.right), {300, 500});
    const Outcome<Rig> rig = make_rig(settings, {}, {320, 240});
    ASSERT_TRUE(rig) << rig.failure().reason;
    const Rebuild::CaliParReadIn& calibration = rig->calibration;
    const Matrix3d toRaw = (calibration.get_left_projection().leftCols<3>() * calibration.get_R1()).inverse();
    for (int y = 0; y < 240; y += 5)
        for (int x = 0; x < 320; x += 5) {
            const Vector3d ray = toRaw * Vector3d(x, y, 1);
            const Vector2d raw = cameras.left.project(ray);
            const float* mapped = calibration.get_left_map() + 2 * (y * 320 + x);
            ASSERT_LT((raw - Vector2d(mapped[0], mapped[1])).norm(), 1e-3);
            ASSERT_LT((cameras.left.direction_of(raw) - ray.head<2>() / ray.z()).norm(), 1e-10);
        }
}

TEST(Rigs, ThatCannotBeAreRefusedInWords) {
    CalibratedCamera blind = leftCamera, sheared = leftCamera;
    blind.fx = 0;
    sheared.worldToCamera = RigidMatrix(2.0 * Matrix3d::Identity(), Vector3d::Zero());
    const std::tuple<CalibratedCamera, CalibratedCamera, Vector2f, const char*> cases[] = {
        {leftCamera, leftCamera, {200, 260}, "the baseline is zero"},
        {leftCamera, camera({30, 0, 0}, 3.0), {200, 260}, "look away from each other"},
        {leftCamera, camera({-30, 80, 5}, 0.1), {200, 260}, "above or below"},
        {leftCamera, camera({-28, 0, 90}, 0.1), {200, 260}, "behind the other"},
        {blind, rightCamera, {200, 260}, "left camera has a focal length that is not positive"},
        {sheared, rightCamera, {200, 260}, "left camera has a rotation matrix that is none"},
        {leftCamera, rightCamera, {2, 3}, "no point between 2 and 3 mm is seen by both"},
    };
    for (const auto& [left, right, depths, reason] : cases) {
        SCOPED_TRACE(reason);
        ScanSettings settings = settings_with(left, right, depths);
        const Outcome<Rig> rig = make_rig(settings, {}, {320, 240});
        ASSERT_FALSE(rig);
        EXPECT_NE(rig.failure().reason.find(reason), std::string::npos) << rig.failure().reason;
    }
}

}  // namespace
