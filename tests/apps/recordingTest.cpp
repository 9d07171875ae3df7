// Recordings of depth frames and of stereo pairs: what is written reads back; every damage is named with its file.
#include <clocale>
#include <opencv2/imgcodecs.hpp>

#include "fuzz/pngChunks.h"
#include "recording/Recording.h"
#include "recording/StereoRecording.h"
#include "recording/files.h"
#include "recording/pointImageFromDepth.h"
#include "recording/poseText.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using namespace VexelTrial;
using VexelTest::turned;

const CameraInParam camera(58.5, 57.25, 31.5, 24.125);

DepthImage slanted_depth(int width, int height) {
    DepthImage image{width, height, {}};
    for (int i = 0; i < width * height; ++i)
        image.millimetres.push_back(static_cast<float>(i % 11 == 0 ? 0 : 700 + 3 * (i % width)));
    return image;
}

RigidMatrix pose_of(int number) {
    return {turned({0.01 * number, -0.005 * number, 0.25}), {1.5, -2.25, number + 0.1}};
}

void write_recording(const fs::path& folder, const std::vector<int>& numbers) {
    Outcome<RecordingWriter> writer = RecordingWriter::create(folder, camera);
    ASSERT_TRUE(writer) << writer.failure().reason;
    for (const int number : numbers) ASSERT_TRUE(writer->write_frame(number, slanted_depth(64, 48), pose_of(number)));
}

GreyPicture picture(int seed, int width = 64, int height = 48) {
    GreyPicture image{width, height, {}};
    for (int i = 0; i < width * height; ++i) image.pixels.push_back(static_cast<std::uint8_t>(seed + 7 * i % 251));
    return image;
}

const CalibratedCamera lens{80, 81, 31, 24, {-0.1, 0.05, 1e-4, -2e-4, 0.01}, {}};

void write_pairs(const fs::path& folder, const std::vector<int>& numbers) {
    Outcome<StereoRecordingWriter> writer = StereoRecordingWriter::create(folder, lens, lens, 0.01, "");
    ASSERT_TRUE(writer) << writer.failure().reason;
    for (const int number : numbers) {
        StereoFrame frame;
        frame.left = picture(number);
        frame.right = picture(number + 100);
        frame.leftToWorld = RigidMatrix(turned({0.1, 0, 0.01 * number}), {1.0, 2.0, 1.0 * number});
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

TEST(Recording, ReadsBackWhatWasWrittenInAnyLocale) {
    std::setlocale(LC_NUMERIC, "de_DE.UTF-8");  // where installed, printf and strtod then use a comma
    TemporaryFolder folder;
    write_recording(folder.path(), {1000000, 7, 3, 42});
    put_bytes(folder.path() / "frame-000003.color.png", "ignored");
    put_bytes(folder.path() / "frame-8.depth.png", "ignored");
    const Outcome<Recording> recording = Recording::open(folder.path(), PosePolicy::Required);
    std::setlocale(LC_NUMERIC, "C");
    ASSERT_TRUE(recording) << recording.failure().reason;

    EXPECT_EQ(recording->camera().get_fy(), 57.25);
    EXPECT_EQ(recording->camera().get_cy(), 24.125);
    const std::vector<int> expected = {3, 7, 42, 1000000};
    ASSERT_EQ(recording->frames().size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const RecordedFrame& frame = recording->frames()[i];
        EXPECT_EQ(frame.number, expected[i]);
        const RigidMatrix pose = pose_of(expected[i]);
        EXPECT_LT((frame.cameraToWorld->get_rotation() - pose.get_rotation()).norm(), 1e-12);
        EXPECT_LT((frame.cameraToWorld->get_translation() - pose.get_translation()).norm(), 1e-6);
        const Outcome<DepthImage> image = read_depth(frame);
        ASSERT_TRUE(image) << image.failure().reason;
        EXPECT_EQ(image->millimetres, slanted_depth(64, 48).millimetres);
    }
    fs::remove(folder.path() / "frame-000007.pose.txt");
    const Outcome<Recording> without = Recording::open(folder.path(), PosePolicy::Optional);
    ASSERT_TRUE(without) << without.failure().reason;
    EXPECT_TRUE(without->frames()[0].cameraToWorld && !without->frames()[1].cameraToWorld);
}

TEST(Recording, OrthonormalisesRotationsWithinTheTolerance) {
    const std::string rounded =
        "0.909 0.273 -0.314 -0.34\n-0.272 0.961 0.045 0.016\r\n\t+0.314 0.044 0.948 2.9e-1\n0 0 0 1";
    const Outcome<RigidMatrix> pose = parse_pose(rounded);
    ASSERT_TRUE(pose) << pose.failure().reason;
    const Matrix3d& rotation = pose->get_rotation();
    EXPECT_LT((rotation.transpose() * rotation - Matrix3d::Identity()).norm(), 1e-14);
    EXPECT_NEAR(rotation(0, 1), 0.273, 1e-3);
    EXPECT_NEAR(pose->get_translation().z(), 290.0, 1e-9);
}

TEST(StereoRecordings, ReadBackInEveryForm) {
    TemporaryFolder folder;
    const fs::path numbered = folder.path() / "numbered", loose = folder.path() / "loose";
    write_pairs(numbered, {12, 3});
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

using Harm = std::function<void(const fs::path&)>;

struct Damage {
    Harm inflict;
    const char* file;   // that the message names
    const char* cause;  // that the message gives
};

std::string png_of(const cv::Mat& picture) {
    std::vector<unsigned char> bytes;
    cv::imencode(".png", picture, bytes);
    return {bytes.begin(), bytes.end()};
}

Harm replace(const char* file, const std::string& bytes) {
    return [=](const fs::path& folder) { put_bytes(folder / file, bytes); };
}

Harm edit(const char* file, const std::function<void(std::string&)>& change) {
    return [=](const fs::path& folder) {
        std::string bytes = bytes_of(folder / file);
        change(bytes);
        put_bytes(folder / file, bytes);
    };
}

Harm drop(const char* file) {
    return [=](const fs::path& folder) { fs::remove(folder / file); };
}

void empty_folder(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) fs::remove(entry);
}

constexpr const char* depth = "frame-000002.depth.png";
constexpr const char* pose = "frame-000002.pose.txt";
constexpr const char* intrinsics = "camera-intrinsics.txt";
constexpr const char* depthStep = "depth-step.txt";

const std::string huge = "\x89PNG\r\n\x1a\n" +
                         std::string("\0\0\0\x0dIHDR\x7f\xff\xff\xff\x7f\xff\xff\xff\x10\0\0\0\0", 21) +
                         std::string("\0\0\0\0\0\0\0\0IEND\xae\x42\x60\x82", 16);

const Damage damages[] = {
    {[](const fs::path& folder) { fs::remove_all(folder); }, "", "there is no recording folder"},
    {[](const fs::path& folder) {
         fs::remove_all(folder);
         put_bytes(folder, "x");
     },
     "", "is not a folder"},
    {empty_folder, "", "holds no frames"},
    {drop(pose), depth, "has no pose"},
    {drop(depth), pose, "has no depth image"},
    {drop(intrinsics), intrinsics, "cannot be opened"},
    {[](const fs::path& folder) {
         fs::remove(folder / intrinsics);
         fs::create_directory(folder / intrinsics);
     },
     intrinsics, "is a folder"},
    {replace(intrinsics, "585 0 320\n0 585"), intrinsics, "only 5 of 9 numbers"},
    {replace(intrinsics, "585 1 320 0 585 240 0 0 1"), intrinsics, "not of the form"},
    {replace(intrinsics, "0 0 320 0 585 240 0 0 1"), intrinsics, "focal lengths"},
    {replace(intrinsics, "585 0 1e300 0 585 240 0 0 1"), intrinsics, "at most 1000000"},
    {replace(depthStep, "-0.1"), depthStep, "1e-6 to 1000 mm"},
    {replace(pose, "1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 1 5"), pose, "more than the expected 16"},
    {replace(pose, "1,0 0 0 0 0 1 0 0 0 0 1 0 0 0 0 1"), pose, "'1,0' is not a number"},
    {replace(pose, "\x1b[31m 0 0 0"), pose, "'?[31m' is not a number"},
    {replace(pose, std::string(1 << 17, ' ')), pose, "larger than"},
    {replace(pose, "1 0 0 nan 0 1 0 0 0 0 1 0 0 0 0 1"), pose, "not finite"},
    {replace(pose, "1 0 0 1e999 0 1 0 0 0 0 1 0 0 0 0 1"), pose, "is not a number"},
    {replace(pose, "1.01 0 0 0 0 1.01 0 0 0 0 1.01 0 0 0 0 1"), pose, "is scaled or sheared"},
    {replace(pose, "1 0 0 0 0 1 0 0 0 0 -1 0 0 0 0 1"), pose, "mirrors"},
    {replace(pose, "1 0 0 0 0 1 0 0 0 0 1 0 0 0 0.1 1"), pose, "last row is not 0 0 0 1"},
    {replace(pose, "1 0 0 1.1e5 0 1 0 0 0 0 1 0 0 0 0 1"), pose, "100 km"},
    {replace(depth, ""), depth, "is empty"},
    {replace(depth, "P5 64 48 65535 "), depth, "is not a PNG image"},
    {replace(depth, png_of(cv::Mat(48, 64, CV_8UC1, cv::Scalar(9)))), depth, "8 bits of grey"},
    {replace(depth, png_of(cv::Mat(48, 64, CV_16UC3, cv::Scalar::all(9)))), depth, "16 bits a colour"},
    {replace(depth, png_of(cv::Mat(24, 64, CV_16UC1, cv::Scalar(900)))), depth, "has 64 x 24 pixels"},
    {replace(depth, huge), depth, "absurd size"},
    {edit(depth, [](std::string& bytes) { bytes.resize(bytes.size() / 2); }), depth, "cut short"},
    {edit(depth, [](std::string& bytes) { bytes[60] ^= 4; }), depth, "check sum"},
};

void expect_named(const Damage& damage, const Harm& write,
                  const std::function<std::string(const fs::path&)>& fault_of) {
    SCOPED_TRACE(std::string(damage.file) + ": " + damage.cause);
    TemporaryFolder parent;
    const fs::path folder = parent.path() / "take1";
    write(folder);
    damage.inflict(folder);
    const std::string reason = fault_of(folder);
    for (const char* part : {"take1", damage.file, damage.cause})
        EXPECT_NE(reason.find(part), std::string::npos) << reason;
    EXPECT_EQ(reason.find('\n'), std::string::npos) << reason;
}

TEST(RecordingBadInput, EveryDamageOfDepthFramesIsNamed) {
    const auto write = [](const fs::path& folder) { write_recording(folder, {1, 2, 3}); };
    const auto fault_of = [](const fs::path& folder) -> std::string {
        const Outcome<Recording> recording = Recording::open(folder, PosePolicy::Required);
        if (!recording) return recording.failure().reason;
        const Outcome<DepthImage> image = read_depth_png(folder / depth, 1.0);
        return image ? "" : image.failure().reason;
    };
    for (const Damage& damage : damages) expect_named(damage, write, fault_of);
}

TEST(RecordingBadInput, EveryDamageOfPairsIsNamed) {
    const char *left = "frame-000002.left.png", *right = "frame-000002.right.png";
    const auto png = [](int width, int height) { return png_of(cv::Mat(height, width, CV_8UC1, cv::Scalar(9))); };
    const Damage pairDamages[] = {
        {[](const fs::path& folder) { fs::remove_all(folder); }, "", "there is no recording folder"},
        {empty_folder, "", "holds no stereo pairs"},
        {drop(right), right, "is missing"},
        {drop(left), left, "is missing"},
        {replace(right, png(64, 47)), right, "has 64 x 47 pixels where the left"},
        {[=](const fs::path& folder) {
             for (const char* file : {left, right}) put_bytes(folder / file, png(63, 48));
         },
         left, "has 63 x 48 pixels where the recording's first"},
        {replace(left, png_of(cv::Mat(48, 64, CV_16UC1, cv::Scalar(9)))), left,
         "is no camera image: it has 16 bits of grey, needed are 8 bits of grey"},
        {replace(pose, "1 0 0"), pose, "is not usable: only 3 of 16"},
    };
    const auto write = [](const fs::path& folder) { write_pairs(folder, {1, 2}); };
    const auto fault_of = [](const fs::path& folder) -> std::string {
        const Outcome<StereoRecording> recording = StereoRecording::open(folder);
        if (!recording) return recording.failure().reason;
        const Outcome<StereoImages> images = read_pair(recording->pairs().back(), recording->image_size());
        return images ? "" : images.failure().reason;
    };
    for (const Damage& damage : pairDamages) expect_named(damage, write, fault_of);
}

// The decoder would ask for 512 MiB before it reads the first pixel.
TEST(RecordingBadInput, AnImageTooLargeForItsFile) {
    const TemporaryFolder folder;
    const fs::path file = folder.path() / "depth.png";
    std::string bytes = png_of(cv::Mat(48, 64, CV_16UC1, cv::Scalar(900)));
    bytes.replace(16, 8, std::string("\0\0\x40\0\0\0\x40\0", 8));
    VexelFuzz::mend_check_sums(bytes);
    put_bytes(file, bytes);
    const Outcome<DepthImage> image = read_depth_png(file, 1.0);
    ASSERT_FALSE(image);
    EXPECT_NE(image.failure().reason.find("too small for its image"), std::string::npos) << image.failure().reason;
}

TEST(RecordingBadInput, WritersLeaveOldFilesAndNoRemains) {
    TemporaryFolder folder;
    const fs::path file = folder.path() / "report.txt";
    put_bytes(file, "old");
    fs::create_directory(folder.path() / "report.txt.part");  // in the way of the new file
    EXPECT_FALSE(write_whole_file(file, "new"));
    EXPECT_EQ(bytes_of(file), "old");
    EXPECT_FALSE(prepare_output_folder(file));
    EXPECT_FALSE(prepare_output_folder(file / "below"));
    EXPECT_FALSE(write_depth_png(folder.path() / "d.png", DepthImage{4, 4, {1, 2, 3}}));
    EXPECT_FALSE(fs::exists(folder.path() / "d.png"));
    EXPECT_TRUE(prepare_output_folder(folder.path() / "a" / "b"));
    EXPECT_TRUE(fs::is_empty(folder.path() / "a" / "b"));
}

/// Whole-millimetre depth of a plane n.p = d seen by the camera, with a nearer wall over the left `wallColumns`.
DepthImage plane_depth(const CameraInParam& view, const Vector3d& normal, double distance, int wallColumns,
                       double wall) {
    DepthImage image{160, 120, {}};
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            const Vector3d ray((x - view.get_cx()) / view.get_fx(), (y - view.get_cy()) / view.get_fy(), 1.0);
            const double z = x < wallColumns ? wall : distance / normal.dot(ray);
            image.millimetres.push_back(std::round(static_cast<float>(z)));
        }
    return image;
}

TEST(Recording, FineStepsAreKept) {
    TemporaryFolder folder;
    {
        Outcome<RecordingWriter> writer = RecordingWriter::create(folder.path(), camera, 0.02);
        ASSERT_TRUE(writer);
        ASSERT_TRUE(writer->write_frame(5, DepthImage{3, 2, {0.0F, 400.123F, 1310.68F, 1310.7F, 1e30F, -3.0F}}, {}));
    }
    const Outcome<Recording> recording = Recording::open(folder.path(), PosePolicy::Optional);
    ASSERT_TRUE(recording) << recording.failure().reason;
    EXPECT_EQ(recording->depth_step(), 0.02);
    const Outcome<DepthImage> image = read_depth(recording->frames().front());
    ASSERT_TRUE(image);
    const float expected[] = {0.0F, 400.12F, 1310.68F, 0.0F, 0.0F, 0.0F};
    for (std::size_t i = 0; i < 6; ++i) EXPECT_NEAR(image->millimetres[i], expected[i], 1e-3F) << i;
}

TEST(DepthFrame, HasPointsNormalsAndWeightsOfTheSurface) {
    const CameraInParam view(146.0, 146.0, 80.0, 60.0);
    const Vector3d normal = Vector3d(0.5, -0.2, 1.0).normalized();
    const PointImage frame = depth_frame_to_point_image(plane_depth(view, normal, 1500.0, 0, 0.0), view, {}, 2);
    ASSERT_TRUE(frame.is_enable_vNormal() && frame.is_enable_vWeight() && frame.is_enable_vFlag());
    EXPECT_GT(frame.count_vaildNum(), 160 * 120 * 95 / 100);
    double squares = 0.0;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (!frame.has_point(i)) continue;
        const Vector3d point = frame.get_vCoord(i).cast<double>();
        squares += std::pow(point.dot(normal) - 1500.0, 2.0);
        EXPECT_NEAR(point.dot(normal), 1500.0, 1.0) << "also at the image's border";
        EXPECT_LT(frame.get_vNrv(i).cast<double>().dot(normal), -std::cos(0.1));
        EXPECT_NEAR(frame.get_vWeight(i), 1000.0 / point.z(), 1e-5);
    }
    EXPECT_LT(std::sqrt(squares / frame.count_vaildNum()), 0.5) << "whole millimetres, smoothed";
}

TEST(DepthFrame, DropsEdgesSpecksAndPixelsOutOfRange) {
    const CameraInParam view(146.0, 146.0, 80.0, 60.0);
    DepthImage image = plane_depth(view, Vector3d::UnitZ(), 1500.0, 50, 900.0);
    for (int y = 100; y < 110; ++y) std::fill_n(&image.millimetres[y * 160 + 140], 10, 0.0F);
    for (int y = 20; y < 30; ++y) std::fill_n(&image.millimetres[y * 160 + 90], 10, 0.0F);
    image.millimetres[25 * 160 + 95] = 1500;  // a speck in a hole
    DepthFrameSettings settings;
    const PointImage frame = depth_frame_to_point_image(image, view, settings, 1);
    const auto has = [&](int x, int y) { return frame.has_point(frame.index_of(x, y)); };
    EXPECT_FALSE(has(48, 60) || has(49, 60) || has(50, 60) || has(51, 60)) << "two pixels to each side of the edge";
    EXPECT_NEAR(frame.get_point(47, 60).z(), 900.0f, 0.01f);
    EXPECT_NEAR(frame.get_point(52, 60).z(), 1500.0f, 0.01f);
    EXPECT_FALSE(has(145, 105)) << "65535 is no depth";
    EXPECT_FALSE(has(95, 25));

    settings.farthest = 1000.0f;
    EXPECT_FALSE(depth_frame_to_point_image(image, view, settings, 1).has_point(frame.index_of(60, 60)));
    EXPECT_EQ(depth_frame_to_point_image(DepthImage{3, 1, {0, 0, 0}}, view, settings, 2).count_vaildNum(), 0);
}

}  // namespace
