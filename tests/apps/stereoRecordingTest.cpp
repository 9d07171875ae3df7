// Recordings of stereo pairs, and what a rig makes of its calibration: every form reads back, every damage is named.
#include <gtest/gtest.h>

#include <functional>
#include <opencv2/imgcodecs.hpp>

#include "TemporaryFolder.h"
#include "apps/Rig.h"
#include "apps/searchRange.h"
#include "recording/StereoRecording.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Apps;
using VexelTest::bytes_of;
using VexelTest::put_bytes;
using VexelTest::TemporaryFolder;

GreyPicture picture(int seed, int width = 64, int height = 48) {
    GreyPicture image{width, height, {}};
    for (int i = 0; i < width * height; ++i) image.pixels.push_back(static_cast<std::uint8_t>(seed + 7 * i % 251));
    return image;
}

Matrix3d turned(double x, double y, double z) {
    Matrix3d rotation;
    rodrigures(Vector3d(x, y, z), rotation);
    return rotation;
}

CalibratedCamera camera(const Vector3d& place, double yaw) {
    CalibratedCamera result{80, 81, 31, 24, {-0.1, 0.05, 1e-4, -2e-4, 0.01}, {}};
    result.worldToCamera = RigidMatrix(turned(0.01, yaw, -0.02), place).inverse();
    return result;
}
const CalibratedCamera leftCamera = camera({-30, 0, 5}, 0.12);
const CalibratedCamera rightCamera = camera({31, 1, 4}, -0.13);

void write_recording(const fs::path& folder, const std::vector<int>& numbers) {
    Outcome<StereoRecordingWriter> writer = StereoRecordingWriter::create(folder, leftCamera, rightCamera, 0.01, "");
    ASSERT_TRUE(writer) << writer.failure().reason;
    for (const int number : numbers) {
        StereoFrame frame;
        frame.left = picture(number);
        frame.right = picture(number + 100);
        frame.leftToWorld = RigidMatrix(turned(0.1, 0, 0.01 * number), {1.0, 2.0, 1.0 * number});
        ASSERT_TRUE(writer->write_frame(number, frame));
    }
}

/// The same pair in the forms without frame numbers.
void write_loose_pair(const fs::path& folder, const fs::path& rightFolder, int seed) {
    fs::create_directories(folder);
    ASSERT_TRUE(write_grey_png(folder / "left.png", picture(seed)));
    ASSERT_TRUE(write_grey_png(rightFolder / "right.png", picture(seed + 100)));
}

void expect_pair(const RecordedPair& pair, ImageSize size, int leftSeed, int rightSeed) {
    const Outcome<StereoImages> images = read_pair(pair, size);
    ASSERT_TRUE(images) << images.failure().reason;
    EXPECT_EQ(images->left.pixels, picture(leftSeed).pixels);
    EXPECT_EQ(images->right.pixels, picture(rightSeed).pixels);
}

TEST(StereoRecordings, ReadBackInEveryForm) {
    TemporaryFolder folder;
    const fs::path numbered = folder.path() / "numbered", loose = folder.path() / "loose";
    write_recording(numbered, {12, 3});
    fs::remove(numbered / "frame-000012.pose.txt");
    put_bytes(numbered / "settings.yml", "");
    const Outcome<StereoRecording> frames = StereoRecording::open(numbered);
    ASSERT_TRUE(frames) << frames.failure().reason;
    ASSERT_EQ(frames->pairs().size(), 2u);
    EXPECT_EQ(frames->pairs()[0].number, 3);
    EXPECT_NEAR(frames->pairs()[0].leftToWorld->get_translation().z(), 3.0, 1e-9);
    EXPECT_FALSE(frames->pairs()[1].leftToWorld);
    EXPECT_EQ(frames->left_calibration(), numbered / "calib_left.txt");
    EXPECT_EQ(*frames->settings_file(), numbered / "settings.yml");
    expect_pair(frames->pairs()[1], frames->image_size(), 12, 112);

    // A folder a pair, one of them with the right image of all; the calibration above.
    write_loose_pair(loose / "b", loose, 5);
    write_loose_pair(loose / "a", loose / "a", 9);
    fs::copy(numbered / "calib_left.txt", loose / "calib_left.txt");
    const Outcome<StereoRecording> folders = StereoRecording::open(loose);
    ASSERT_TRUE(folders) << folders.failure().reason;
    ASSERT_EQ(folders->pairs().size(), 2u);
    expect_pair(folders->pairs()[0], folders->image_size(), 9, 109);
    expect_pair(folders->pairs()[1], folders->image_size(), 5, 105);
    for (const fs::path& one : {loose / "b", fs::path((loose / "b").string() + "/"), loose / "a" / ".." / "b"}) {
        const Outcome<StereoRecording> single = StereoRecording::open(one);
        ASSERT_TRUE(single) << single.failure().reason;
        expect_pair(single->pairs().front(), single->image_size(), 5, 105);
        EXPECT_TRUE(fs::equivalent(single->left_calibration(), loose / "calib_left.txt"));
        EXPECT_FALSE(single->settings_file());
    }
    const Outcome<StereoRecording> named = StereoRecording::of_pair(loose / "b" / "left.png", loose / "right.png");
    ASSERT_TRUE(named);
    EXPECT_TRUE(fs::equivalent(named->left_calibration(), loose / "calib_left.txt"));
}

TEST(StereoRecordings, EveryDamageIsNamedWithItsFile) {
    const auto put_picture = [](const char* name, int width, int height) {
        return [=](const fs::path& folder) { ASSERT_TRUE(write_grey_png(folder / name, picture(1, width, height))); };
    };
    const struct {
        std::function<void(const fs::path&)> inflict;
        const char* reason;
    } damages[] = {
        {[](const fs::path& folder) { fs::remove_all(folder); }, "there is no recording folder"},
        {[](const fs::path& folder) {
             for (const auto& entry : fs::directory_iterator(folder)) fs::remove(entry);
         },
         "holds no stereo pairs"},
        {[](const fs::path& folder) { fs::remove(folder / "frame-000002.right.png"); },
         "frame-000002.right.png is missing"},
        {[](const fs::path& folder) { fs::remove(folder / "frame-000002.left.png"); },
         "frame-000002.left.png is missing"},
        {put_picture("frame-000002.right.png", 64, 47), "frame-000002.right.png has 64 x 47 pixels where the left"},
        {[&](const fs::path& folder) {
             put_picture("frame-000002.left.png", 63, 48)(folder);
             put_picture("frame-000002.right.png", 63, 48)(folder);
         },
         "frame-000002.left.png has 63 x 48 pixels where the recording's first"},
        {[](const fs::path& folder) { put_bytes(folder / "frame-000002.left.png", "P5 64 48 255"); },
         "frame-000002.left.png is not a PNG image"},
        {[](const fs::path& folder) {
             const std::string bytes = bytes_of(folder / "frame-000002.left.png");
             put_bytes(folder / "frame-000002.left.png", bytes.substr(0, bytes.size() / 2));
         },
         "frame-000002.left.png is cut short"},
        {[](const fs::path& folder) {
             cv::imwrite((folder / "frame-000002.left.png").string(), cv::Mat(48, 64, CV_16UC1, cv::Scalar(9)));
         },
         "is no camera image: it has 16 bits of grey, needed are 8 bits of grey"},
        {[](const fs::path& folder) { put_bytes(folder / "frame-000002.pose.txt", "1 0 0"); },
         "frame-000002.pose.txt is not usable: only 3 of 16"},
        {[](const fs::path& folder) {  // found only when the pair is read
             std::string bytes = bytes_of(folder / "frame-000002.right.png");
             bytes[bytes.size() / 2] ^= 4;
             put_bytes(folder / "frame-000002.right.png", bytes);
         },
         "frame-000002.right.png is damaged"},
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(damage.reason);
        TemporaryFolder parent;
        const fs::path folder = parent.path() / "take1";
        write_recording(folder, {1, 2});
        damage.inflict(folder);
        const Outcome<StereoRecording> recording = StereoRecording::open(folder);
        std::string reason = recording ? "" : recording.failure().reason;
        if (recording) {
            const Outcome<StereoImages> images = read_pair(recording->pairs().back(), recording->image_size());
            ASSERT_FALSE(images);
            reason = images.failure().reason;
        }
        EXPECT_NE(reason.find(damage.reason), std::string::npos) << reason;
        EXPECT_NE(reason.find("take1"), std::string::npos) << reason;
    }
}

TEST(CameraFiles, AreReadOrNamedWithWhatIsWrong) {
    const std::string whole = calibration_text(leftCamera);
    const auto without = [&](const char* label) {
        const std::size_t at = whole.find(label);
        return whole.substr(0, at) + whole.substr(whole.find('\n', at) + 1);
    };
    std::string reordered = without("Rotation Matrix:"), comma = whole;
    const std::size_t rotation = whole.find("Rotation Matrix:");
    reordered.insert(reordered.find("Translation vector:"),
                     whole.substr(rotation, whole.find('\n', rotation) + 1 - rotation));
    comma.replace(comma.find("-0.1"), 4, "-0,1");
    const struct {
        std::string text;
        const char* reason;
    } cases[] = {
        {"", "'Focal Length:' is missing"},
        {whole.substr(0, whole.size() / 2), "is missing, or the file is cut short"},
        {without("Distortion:"), "'Distortion:' is missing"},
        {without("Standard Error:"), "'Standard Error:' is missing"},
        {reordered, "'Rotation Matrix:' stands before 'Translation vector:'"},
        {comma, "decimal commas"},
        {without("                            [0 0 0 0 0]"), "lines of uncertainties"},
        {std::string(1 << 17, ' '), "larger than"},
    };
    TemporaryFolder folder;
    const fs::path file = folder.path() / "calib_left.txt";
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.reason);
        put_bytes(file, bad.text);
        const Outcome<std::vector<float>> read = read_camera_file(file);
        ASSERT_FALSE(read);
        EXPECT_NE(read.failure().reason.find(bad.reason), std::string::npos) << read.failure().reason;
        EXPECT_NE(read.failure().reason.find("calib_left.txt"), std::string::npos);
    }
    EXPECT_FALSE(read_camera_file(folder.path() / "none.txt"));
    put_bytes(file, whole);
    const Outcome<std::vector<float>> read = read_camera_file(file);
    ASSERT_TRUE(read) << read.failure().reason;
    ASSERT_EQ(read->size(), 22u);
    EXPECT_EQ((*read)[1], 81.0F);
    EXPECT_EQ((*read)[4], 0.0F);
    EXPECT_EQ((*read)[6], 0.05F);
    EXPECT_EQ((*read)[21], static_cast<float>(leftCamera.worldToCamera.get_rotation()(2, 2)));
}

std::vector<float> values_of(const CalibratedCamera& camera) {
    TemporaryFolder folder;
    put_bytes(folder.path() / "c.txt", calibration_text(camera));
    return *read_camera_file(folder.path() / "c.txt");
}

/// Settings with both cameras and these depths, 320 x 240.
ScanSettings settings_with(const CalibratedCamera& left, const CalibratedCamera& right, const Vector2f& depths) {
    ScanSettings settings = preset_settings("desk");
    settings.rig.rebuild.leftCalib = values_of(left);
    settings.rig.rebuild.rightCalib = values_of(right);
    settings.rig.depthRange = depths;
    return settings;
}

CalibratedCamera wide(CalibratedCamera camera) {
    camera.fx = camera.fy = 400;
    camera.cx = 160;
    camera.cy = 120;
    camera.distortion = {};
    return camera;
}

TEST(Rigs, SearchRangeHoldsThePartnersOfItsDepthsAndNotMuchMore) {
    ScanSettings settings = settings_with(wide(leftCamera), wide(rightCamera), {200, 260});
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
    EXPECT_LT(rectified(0), 200 * std::cos(0.12));
    EXPECT_GT(rectified(1), 260 * std::cos(0.12));
    EXPECT_GT(rectified(0), 150);
    EXPECT_LT(rectified(1), 330);
}

TEST(Rigs, ThatCannotBeAreRefusedInWords) {
    const auto moved = [](const Vector3d& place, double yaw) { return wide(camera(place, yaw)); };
    CalibratedCamera blind = wide(leftCamera), sheared = wide(leftCamera);
    blind.fx = 0;
    sheared.worldToCamera = RigidMatrix(2.0 * Matrix3d::Identity(), Vector3d::Zero());
    const struct {
        CalibratedCamera left, right;
        Vector2f depths;
        const char* reason;
    } cases[] = {
        {wide(leftCamera), wide(leftCamera), {200, 260}, "the baseline is zero"},
        {wide(leftCamera), moved({30, 0, 0}, 3.0), {200, 260}, "look away from each other"},
        {wide(leftCamera), moved({-30, 80, 5}, 0.1), {200, 260}, "above or below"},
        {wide(leftCamera), moved({-28, 0, 90}, 0.1), {200, 260}, "behind the other"},
        {blind, wide(rightCamera), {200, 260}, "left camera has a focal length that is not positive"},
        {sheared, wide(rightCamera), {200, 260}, "left camera has a rotation matrix that is none"},
        {wide(leftCamera), wide(rightCamera), {2, 3}, "no point between 2 and 3 mm is seen by both"},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.reason);
        ScanSettings settings = settings_with(bad.left, bad.right, bad.depths);
        const Outcome<Rig> rig = make_rig(settings, {}, {320, 240});
        ASSERT_FALSE(rig);
        EXPECT_NE(rig.failure().reason.find(bad.reason), std::string::npos) << rig.failure().reason;
    }
    ScanSettings settings = settings_with(wide(leftCamera), wide(rightCamera), {200, 260});
    settings.rig.rebuild.imgSize = {640, 480};
    const Outcome<Rig> rig = make_rig(settings, {}, {320, 240});
    ASSERT_FALSE(rig);
    EXPECT_NE(rig.failure().reason.find("rig.imgSize is 640 x 480"), std::string::npos);
}

}  // namespace
