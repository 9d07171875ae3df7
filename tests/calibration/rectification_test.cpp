// Rectification against projected points, the remap against its definition.
#include <opencv2/core/core_c.h>

#include <Eigen/Core>
#include <cstdlib>
#include <opencv2/calib3d.hpp>
#include <opencv2/core/cuda.hpp>
#include <opencv2/core/eigen.hpp>
#include <opencv2/imgproc.hpp>

#include "readCaliData/CaliParReadIn.h"
#include "tests/calibration/stereoRig.h"
#include "tests/common.h"

namespace VexelAlgorithm::Rebuild {
namespace {

using namespace VexelTest;

constexpr std::size_t PIXELS = std::size_t{RIG_WIDTH} * RIG_HEIGHT;
constexpr std::uint8_t UNTOUCHED = 77;
const std::string NOT_INITIALISED = "remap_image_LR fail because the calibration is not initialised\n";

CaliParReadIn loaded(const Rig& rig, const Vector2i& size = RIG_SIZE) {
    return {rig.left.vector(), rig.right.vector(), {}, size, {0, 0}};
}

std::vector<std::uint8_t> noise_image(std::size_t pixels, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> image(pixels);
    for (std::uint8_t& pixel : image) pixel = static_cast<std::uint8_t>(random());
    return image;
}

/// Brown's model and K, by OpenCV's projection of one point; the skew added, which it does not know.
Vector2d raw_pixel(const Camera& camera, const Vector3d& point_C) {
    std::vector<cv::Point2d> pixels;
    cv::projectPoints(std::vector<cv::Point3d>{{point_C.x(), point_C.y(), point_C.z()}}, cv::Vec3d(), cv::Vec3d(),
                      cv::Matx33d(camera.fx, 0, camera.cx, 0, camera.fy, camera.cy, 0, 0, 1),
                      cv::Mat(5, 1, CV_64FC1, const_cast<double*>(camera.k)), pixels);
    const double y = (pixels[0].y - camera.cy) / camera.fy;
    return {pixels[0].x + camera.alpha * camera.fx * y, pixels[0].y};
}

Vector2d map_at(const float* map, int x, int y) {
    const std::size_t i = static_cast<std::size_t>(y) * RIG_WIDTH + static_cast<std::size_t>(x);
    return {map[2 * i], map[2 * i + 1]};
}

TEST(Rectification, MapsLeadToWhereTheCamerasSeeThePoint) {
    for (const double alpha : {0.0, 0.02}) {
        Rig rig;
        rig.left.alpha = rig.right.alpha = alpha;
        const CaliParReadIn calibration = loaded(rig);
        ASSERT_TRUE(calibration.is_ini_success());
        EXPECT_FALSE(calibration.has_color_camera());
        const CameraInParam camera = calibration.get_rectified_camera();
        const auto P2 = calibration.get_right_projection();
        for (const double depth : {150.0, 600.0}) {
            for (int y = 5; y < RIG_HEIGHT; y += 33) {
                for (int x = 5; x < RIG_WIDTH; x += 47) {
                    Vector3d point_rect;
                    camera.depth_to_point(depth, Vector2d(x, y), point_rect);
                    const Vector3d point_L = calibration.get_rectified_to_raw() * point_rect;
                    EXPECT_LT((map_at(calibration.get_left_map(), x, y) - raw_pixel(rig.left, point_L)).norm(), 2e-3);

                    const Vector3d projected = P2 * point_rect.homogeneous();
                    EXPECT_NEAR(projected.y() / projected.z(), y, 1e-4) << "rows do not match";
                    const Vector3d ray_rect(-(P2(0, 2) - x) / P2(0, 0), (y - P2(1, 2)) / P2(1, 1), 1.0);
                    const Vector3d ray_R = calibration.get_R2().transpose() * ray_rect;
                    EXPECT_LT((map_at(calibration.get_right_map(), x, y) - raw_pixel(rig.right, ray_R)).norm(), 2e-3);
                }
            }
        }
        // A point seen by both raw cameras lies where the right projection says.
        const Vector3d point_L(12, -7, 210);
        const Vector3d point_R = rig.left_to_right() * point_L;
        const Vector3d right = P2 * (calibration.get_R1() * point_L).homogeneous();
        const Vector3d direct = P2.leftCols<3>() * (calibration.get_R2() * point_R);
        EXPECT_LT((right.hnormalized() - direct.hnormalized()).norm(), 1e-3);
    }
}

TEST(Rectification, ColourCamera) {
    const Rig rig;
    Camera color = rig.right;
    color.worldToCamera = RigidMatrix(turned({-0.1, 0.05, 0.4}), {30, -20, 15});
    CaliParReadIn calibration(rig.left.vector(), rig.right.vector(), color.vector(), RIG_SIZE, {64, 48});
    ASSERT_TRUE(calibration.has_color_camera());
    const Vector3d world(10, 20, 300);
    const Vector3d point_rect = calibration.get_R1() * (rig.left.worldToCamera * world);
    EXPECT_LT((calibration.get_rectified_to_color() * point_rect - color.worldToCamera * world).norm(), 1e-3);

    const std::string noColor =
        "can not read color camera ,because colorCCF.size() != 22\ncolor camera par read fail\n";
    const std::string text = printed([&] {
        calibration = CaliParReadIn(rig.left.vector(), rig.right.vector(), {1, 2}, RIG_SIZE, {64, 48});
    });
    EXPECT_EQ(text.find("fxRect : "), 0U) << text;
    EXPECT_NE(text.find("\ncxRect : "), std::string::npos) << text;
    EXPECT_EQ(text.substr(text.size() - noColor.size()), noColor);
    EXPECT_TRUE(calibration.is_ini_success());
}

TEST(Rectification, MapTypesHoldTheSameCoordinates) {
    const Rig rig;
    CaliParReadIn calibration = loaded(rig);
    cv::Mat K, D(5, 1, CV_64FC1, const_cast<double*>(rig.left.k)), R1, P1, x, y, xy, none, fixed, fraction;
    cv::eigen2cv(rig.left.K(), K);
    cv::eigen2cv(calibration.get_R1(), R1);
    cv::eigen2cv(Matrix3d(calibration.get_left_projection().leftCols<3>()), P1);
    const auto make = [&](const cv::Mat& camera, int width, int type, cv::Mat& one, cv::Mat& other) {
        return calibration.get_rectify_map_run(camera, D, R1, P1, {width, RIG_HEIGHT}, type, one, other);
    };
    ASSERT_TRUE(make(K, RIG_WIDTH, CV_32FC1, x, y) && make(K, RIG_WIDTH, CV_32FC2, xy, none) &&
                make(K, RIG_WIDTH, CV_16SC2, fixed, fraction));
    EXPECT_EQ(fraction.type(), CV_16UC1);
    const Vector2d pixel = map_at(calibration.get_left_map(), 100, 50);
    EXPECT_NEAR(x.at<float>(50, 100), pixel.x(), 1e-4);
    EXPECT_EQ(xy.at<cv::Vec2f>(50, 100)[1], y.at<float>(50, 100));
    EXPECT_NEAR(fixed.at<cv::Vec2s>(50, 100)[0], pixel.x(), 1.0);
    EXPECT_FALSE(make(cv::Mat(2, 2, CV_64FC1), RIG_WIDTH, CV_32FC1, x, y) || make(K, -1, CV_32FC1, x, y) ||
                 make(K, RIG_WIDTH, CV_8UC1, x, y));
    EXPECT_FALSE(calibration.get_rectify_map(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
}

float value_by_definition(const std::vector<std::uint8_t>& raw, int width, int height, float x, float y) {
    const int ix = static_cast<int>(x), iy = static_cast<int>(y);
    if (!(2 < ix && ix < width - 2 && 2 < iy && iy < height - 2)) return 0.0F;
    const auto at = [&](int column, int row) {
        return static_cast<float>(raw[static_cast<std::size_t>(row * width + column)]);
    };
    const float fx = x - static_cast<float>(ix), fy = y - static_cast<float>(iy);
    const float top = at(ix, iy) + (at(ix + 1, iy) - at(ix, iy)) * fx;
    const float bottom = at(ix, iy + 1) + (at(ix + 1, iy + 1) - at(ix, iy + 1)) * fx;
    return top + (bottom - top) * fy;
}

TEST(Remap, EqualsItsDefinitionAndKeepsItsMargin) {
    Rig rig;
    Rig parallel;  // without distortion the map is close to the identity and meets the margin at every side
    for (Camera* camera : {&parallel.left, &parallel.right}) *camera = {500, 500, 12, 9, 0, {}, RigidMatrix()};
    parallel.right.worldToCamera = RigidMatrix(Matrix3d::Identity(), {-30, 0, 0});
    const std::pair<Rig, Vector2i> cases[] = {
        {rig, RIG_SIZE}, {parallel, {25, 19}}, {parallel, {64, 6}}, {parallel, {5, 40}}, {parallel, {1, 1}}};
    for (const auto& [someRig, size] : cases) {
        const CaliParReadIn calibration = loaded(someRig, size);
        ASSERT_TRUE(calibration.is_ini_success()) << size.transpose();
        const auto count = static_cast<std::size_t>(size.x() * size.y());
        const std::vector<std::uint8_t> raw[] = {noise_image(count, 1), noise_image(count, 2)};
        std::vector<std::uint8_t> bytes[] = {std::vector<std::uint8_t>(count, UNTOUCHED),
                                             std::vector<std::uint8_t>(count, UNTOUCHED)};
        std::vector<float> floats[] = {std::vector<float>(count, -1.0F), std::vector<float>(count, -1.0F)};
        ASSERT_TRUE(calibration.remap_image_LR(raw[0].data(), raw[1].data(), bytes[0].data(), bytes[1].data()));
        ASSERT_TRUE(calibration.remap_image_LR(raw[0].data(), raw[1].data(), floats[0].data(), floats[1].data()));
        const float* maps[] = {calibration.get_left_map(), calibration.get_right_map()};
        for (std::size_t camera = 0; camera < 2; ++camera)
            for (std::size_t i = 0; i < count; ++i) {
                const float* xy = maps[camera] + 2 * i;
                const float expected = value_by_definition(raw[camera], size.x(), size.y(), xy[0], xy[1]);
                ASSERT_EQ(floats[camera][i], expected) << size.transpose() << " pixel " << i;
                ASSERT_EQ(bytes[camera][i], static_cast<std::uint8_t>(expected)) << size.transpose() << " pixel " << i;
            }
    }
}

IplImage header_of(std::vector<std::uint8_t>& pixels, int width = RIG_WIDTH, int height = RIG_HEIGHT) {
    return cvIplImage(cv::Mat(height, width, CV_8UC1, pixels.data()));
}

TEST(Remap, OpenCvFormAgreesAwayFromTheMargin) {
    const CaliParReadIn calibration = loaded(Rig());
    std::vector<std::uint8_t> raw = noise_image(PIXELS, 3), left(PIXELS), right(PIXELS), own(PIXELS), ownRight(PIXELS);
    IplImage rawHeader = header_of(raw), leftHeader = header_of(left), rightHeader = header_of(right);
    ASSERT_TRUE(calibration.rectify_image(&rawHeader, &rawHeader, &leftHeader, &rightHeader));
    ASSERT_TRUE(calibration.remap_image_LR(raw.data(), raw.data(), own.data(), ownRight.data()));
    std::size_t compared = 0;
    for (std::size_t i = 0; i < PIXELS; ++i) {
        if (own[i] == 0) continue;
        ++compared;
        ASSERT_NEAR(own[i], left[i], 8) << i;  // OpenCV interpolates at 1/32 pixel
    }
    EXPECT_GT(compared, PIXELS / 2);

    IplImage narrow = header_of(left, RIG_WIDTH - 1);
    const auto expect_failure = [](const std::function<bool()>& call, const std::string& line) {
        EXPECT_EQ(outcome(call), std::pair(false, line));
    };
    expect_failure([&] { return calibration.rectify_image(&rawHeader, nullptr, &leftHeader, &narrow); },
                   "rectify_image fail because an image is missing or has another size or type\n");
    expect_failure([&] { return CaliParReadIn().rectify_image(&rawHeader, &rawHeader, &leftHeader, &rightHeader); },
                   "rectify_image fail because the calibration is not initialised\n");
    cv::cuda::GpuMat deviceL, deviceR;
    expect_failure([&] { return calibration.gpu_rectify_image(&rawHeader, &rawHeader, deviceL, deviceR); },
                   "please upload Gpu Memery first\n");
}

TEST(Remap, RefusesNullPointersAndWritesNothing) {
    const CaliParReadIn calibration = loaded(Rig()), empty;
    const std::vector<std::uint8_t> raw = noise_image(PIXELS, 4);
    std::vector<std::uint8_t> out(PIXELS, UNTOUCHED);
    for (int missing = 0; missing < 5; ++missing) {
        const auto in = [&](int k) { return missing == k ? nullptr : raw.data(); };
        const auto result = [&](int k) { return missing == k ? nullptr : out.data(); };
        EXPECT_EQ(
            outcome(
                [&] { return (missing < 4 ? calibration : empty).remap_image_LR(in(0), in(1), result(2), result(3)); }),
            std::pair(false, missing < 4 ? "!pImgL || !pImgR || !pRemapImgL || !pRemapImgR \n" : NOT_INITIALISED));
    }
    EXPECT_EQ(out, std::vector<std::uint8_t>(PIXELS, UNTOUCHED));
}

TEST(CaliParReadIn, CopiesAreDeepAndAReadThatFailsHalfWayChangesNothing) {
    CaliParReadIn original = loaded(Rig());
    const auto projection = original.get_left_projection();
    Rig other;
    other.left.fx *= 1.5;
    EXPECT_FALSE(original.Read_Camera_Para(other.left.vector(), {}));
    EXPECT_TRUE(original.rectify());
    EXPECT_EQ(original.get_left_projection(), projection);

    const CaliParReadIn copy(original);
    CaliParReadIn assigned;
    assigned = original;
    const Vector2d expected = map_at(original.get_left_map(), 100, 100);
    original.ini("nowhere", "nowhere", RIG_SIZE);
    EXPECT_FALSE(original.is_ini_success());
    EXPECT_EQ(original.get_left_map(), nullptr);
    for (const CaliParReadIn* kept : {&copy, &std::as_const(assigned)}) {
        EXPECT_TRUE(kept->is_ini_success());
        EXPECT_EQ(map_at(kept->get_left_map(), 100, 100), expected);
    }
}

TEST(CaliParReadIn, RefusesWhatCannotBeRectified) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const auto pose = [](double turn, const Vector3d& place) {
        return [=](Rig& r) { r.set_pose(RigidMatrix(turned({0, turn, 0}), place)); };
    };
    const std::pair<std::function<void(Rig&)>, std::string> cases[] = {
        {[&](Rig& r) { r.right.k[2] = nan; }, "a value is not finite"},
        {[](Rig& r) { r.left.worldToCamera.get_translation().x() = 1e300; }, "a value is not finite"},
        {[](Rig& r) { r.left.fx = 0; }, "a focal length is not positive"},
        {[](Rig& r) { r.right.fy = -400; }, "a focal length is not positive"},
        {[](Rig& r) { r.right.worldToCamera.set_rotation(Matrix3d::Zero()); }, "a rotation matrix is none"},
        {[](Rig& r) { r.right.worldToCamera.set_rotation(-Matrix3d::Identity()); }, "a rotation matrix is none"},
        {[&](Rig& r) {
             r.left.worldToCamera.set_identity(), pose(0.2, {0, 0, 0})(r);
         },
         "the baseline is zero"},
        {pose(3.0, {-80, 0, 0}), "the cameras look away from each other"},
        {pose(0, {0.1, 0, 80}), "the cameras look along the line that joins them"},
    };
    const std::vector<std::uint8_t> raw = noise_image(PIXELS, 5);
    std::vector<std::uint8_t> out(PIXELS);
    for (const auto& [damage, reason] : cases) {
        Rig rig;
        damage(rig);
        const auto [calibration, line] = outcome([&] { return loaded(rig); });
        EXPECT_EQ(line, "rectify fail because " + reason + "\n");
        EXPECT_FALSE(calibration.is_ini_success()) << reason;
        EXPECT_EQ(
            outcome([&, &c = calibration] { return c.remap_image_LR(raw.data(), raw.data(), out.data(), out.data()); }),
            std::pair(false, NOT_INITIALISED));
    }
    // Huge but finite numbers may or may not leave something to rectify, but nothing is read outside the images.
    std::mt19937 random(9);
    for (int i = 0; i < 30; ++i) {
        Rig rig;
        std::vector<float> left = rig.left.vector();
        left[random() % 13] *= std::pow(10.0F, static_cast<float>(random() % 36));
        const CaliParReadIn calibration(left, rig.right.vector(), left, RIG_SIZE, {16, 16});
        EXPECT_EQ(calibration.remap_image_LR(raw.data(), raw.data(), out.data(), out.data()),
                  calibration.is_ini_success());
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Rebuild
