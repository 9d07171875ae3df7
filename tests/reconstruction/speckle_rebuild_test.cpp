// The reconstruction behind its handle: surfaces that are known, settings and images that cannot be used.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <numeric>
#include <random>
#include <set>
#include <sstream>

#include "SpeckleRebCPU/speckleRebuild.h"
#include "tests/apps/TemporaryFolder.h"

namespace VexelAlgorithm {
namespace {

using namespace VexelTest;

constexpr int WIDTH = 320, HEIGHT = 200;
constexpr double FOCAL = 500.0, CX = 159.5, CY = 99.5, BASELINE = 60.0;

/// Two equal cameras side by side without distortion: rectification leaves them as they are.
RebParam parallel_rig(int sample = 2) {
    RebParam param;
    param.imgSize = {WIDTH, HEIGHT};
    param.sampleRatio = sample;
    param.findRange = {-100, -60};
    param.imageRange = {0, WIDTH, 0, HEIGHT};
    param.pixMatchWin = {9, 9};
    param.subPixMatchWin = {13, 13};
    param.leftCalib = {FOCAL, FOCAL, CX, CY, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
    param.rightCalib = param.leftCalib;
    param.rightCalib[10] = -BASELINE;
    return param;
}

/// Speckle on the surface, as a function of its point: blobs of about 1.5 mm.
double speckle(double x, double y) {
    static const auto waves = [] {
        std::mt19937 random(3);
        std::uniform_real_distribution<double> frequency(-3.0, 3.0), phase(0.0, 6.283);
        std::array<std::array<double, 3>, 60> list{};
        for (auto& wave : list) wave = {frequency(random), frequency(random), phase(random)};
        return list;
    }();
    double sum = 0;
    for (const auto& wave : waves) sum += std::sin(wave[0] * x + wave[1] * y + wave[2]);
    return 110.0 + 14.0 * sum;
}

using Depth = std::function<double(const Vector3d& origin, const Vector3d& ray)>;

Depth plane(double distance, double slope) {
    return [=](const Vector3d& o, const Vector3d& r) {
        return (distance - o.z() + slope * o.x()) / (r.z() - slope * r.x());
    };
}

Depth ball(double distance, double radius) {
    return [=](const Vector3d& o, const Vector3d& r) {
        const Vector3d centre(0, 0, distance + radius);
        const double a = r.squaredNorm(), b = r.dot(centre - o), c = (centre - o).squaredNorm() - radius * radius;
        return b * b > a * c ? (b - std::sqrt(b * b - a * c)) / a : std::nan("");
    };
}

std::vector<unsigned char> view(const Depth& depth, double cameraX, unsigned seed) {
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, 1.5);
    std::vector<unsigned char> image;
    const Vector3d origin(cameraX, 0, 0);
    for (int y = 0; y < HEIGHT; ++y)
        for (int x = 0; x < WIDTH; ++x) {
            double sum = 0;
            for (int k = 0; k < 4; ++k) {  // a pixel has an extent
                const Vector3d ray((x - 0.25 + 0.5 * (k % 2) - CX) / FOCAL, (y - 0.25 + 0.5 * (k / 2) - CY) / FOCAL,
                                   1.0);
                const double t = depth(origin, ray);
                const Vector3d point = origin + t * ray;
                sum += std::isnan(t) ? 20.0 : speckle(point.x(), point.y());
            }
            image.push_back(static_cast<unsigned char>(std::clamp(sum / 4 + noise(random), 0.0, 255.0)));
        }
    return image;
}

struct Handle {
    explicit Handle(const RebParam& param) {
        testing::internal::CaptureStdout();
        value = speckle_rebuild_cpu_ini(param);
        printed = testing::internal::GetCapturedStdout();
    }
    ~Handle() { EXPECT_TRUE(value == nullptr || speckle_rebuild_cpu_release(value) == RET_SUCCESS); }
    void* value;
    std::string printed;
};

PointImage empty_frame(int sample) {
    PointImage frame;
    frame.ini(WIDTH / sample, HEIGHT / sample);
    return frame;
}

template <class Action>
std::string printed(const Action& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

struct Judgement {
    double filled, parallaxRms, wrong, normalRms;  // share, pixels, share beyond half a pixel, degrees
};

/// Against the surface, over the slots that both cameras see with a whole window.
Judgement judge(const PointImage& frame, const Depth& depth, int sample) {
    const CameraInParam camera(FOCAL / sample, FOCAL / sample, CX / sample, CY / sample);
    double seen = 0, filled = 0, squares = 0, wrong = 0, normals = 0;
    for (int y = 16 / sample; y < (HEIGHT - 16) / sample; ++y)
        for (int x = 120 / sample; x < (WIDTH - 16) / sample; ++x) {
            const auto at = [&](double u, double v) -> Vector3d {
                const Vector3d ray((u * sample - CX) / FOCAL, (v * sample - CY) / FOCAL, 1.0);
                return depth(Vector3d::Zero(), ray) * ray;
            };
            const double margin = 10.0 / sample;
            const Vector3d truth = at(x, y);
            if (!(at(x - margin, y) + at(x + margin, y) + at(x, y - margin) + at(x, y + margin)).allFinite()) continue;
            ++seen;
            const Vector3f& point = frame.get_point(x, y);
            if (point.isZero()) continue;
            ++filled;
            Vector2f pixel;
            camera.point_to_image(point, pixel);
            EXPECT_NEAR(pixel.x(), x, 1e-3);
            EXPECT_NEAR(pixel.y(), y, 1e-3);
            const double error = FOCAL * BASELINE * (1.0 / point.z() - 1.0 / truth.z());
            wrong += std::abs(error) > 0.5;
            squares += error * error;
            const Vector3d normal =
                (at(x, y + 0.5) - at(x, y - 0.5)).cross(at(x + 0.5, y) - at(x - 0.5, y)).normalized();
            const double cosine = std::clamp(std::abs(normal.dot(frame.get_normal(x, y).cast<double>())), 0.0, 1.0);
            EXPECT_LT(frame.get_normal(x, y).dot(point), 0.0F) << "normals face the camera";
            normals += std::pow(std::acos(cosine) * 57.2958, 2);
        }
    return {filled / seen, std::sqrt(squares / filled), wrong / filled, std::sqrt(normals / filled)};
}

TEST(SpeckleRebuild, KnownSurfaces) {
    struct {
        const char* name;
        Depth depth;
        int sample;
        double filled, parallax, normal;
    } const cases[] = {{"plane", plane(370, 0.0), 2, 0.99, 0.035, 2.0},
                       {"slanted plane", plane(370, 0.4), 2, 0.99, 0.035, 2.0},
                       {"full resolution", plane(370, -0.3), 1, 0.99, 0.035, 2.0},
                       {"ball", ball(350, 60), 2, 0.92, 0.05, 2.0}};
    for (const auto& c : cases) {
        const Handle handle(parallel_rig(c.sample));
        ASSERT_NE(handle.value, nullptr) << handle.printed;
        PointImage frame = empty_frame(c.sample);
        int timeMs = -1;
        ASSERT_EQ(run_speckle_rebuild_cpu(handle.value, view(c.depth, 0, 1).data(), view(c.depth, BASELINE, 2).data(),
                                          frame, timeMs),
                  RET_SUCCESS);
        const Judgement result = judge(frame, c.depth, c.sample);
        EXPECT_GT(result.filled, c.filled) << c.name;
        EXPECT_LT(result.parallaxRms, c.parallax) << c.name;
        EXPECT_LT(result.wrong, 0.001) << c.name;
        EXPECT_LT(result.normalRms, c.normal) << c.name;
        EXPECT_GE(timeMs, 0);
        EXPECT_TRUE(frame.is_legal());
    }
}

TEST(SpeckleRebuild, BothHalvesMakeTheWhole) {
    const std::vector<unsigned char> left = view(plane(370, 0.2), 0, 1), right = view(plane(370, 0.2), BASELINE, 2);
    const Handle whole(parallel_rig()), halves(parallel_rig());
    PointImage one = empty_frame(2), other = empty_frame(2);
    int timeMs = 0;
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(run_speckle_rebuild_subPix_cpu(halves.value, left.data(), right.data(), other, timeMs),
                            RET_STATE_ERROR);
              }),
              "run_speckle_rebuild_subPix_cpu fail because the pixel stage has not run\n");
    ASSERT_EQ(run_speckle_rebuild_cpu(whole.value, left.data(), right.data(), one, timeMs), RET_SUCCESS);
    ASSERT_EQ(run_speckle_rebuild_pixMatch_cpu(halves.value, left.data(), right.data(), timeMs), RET_SUCCESS);
    ASSERT_EQ(run_speckle_rebuild_subPix_cpu(halves.value, left.data(), right.data(), other, timeMs), RET_SUCCESS);
    EXPECT_GT(one.count_vaildNum(), 1000);
    for (std::size_t i = 0; i < one.get_vn(); ++i) {
        ASSERT_EQ(one.get_vCoord(i), other.get_vCoord(i));
        ASSERT_EQ(one.get_vNrv(i), other.get_vNrv(i));
    }
}

TEST(SpeckleRebuild, ImagesWithoutTextureGiveAnEmptyFrame) {
    const Handle handle(parallel_rig());
    for (const int grey : {0, 128, 255}) {
        const std::vector<unsigned char> flat(WIDTH * HEIGHT, static_cast<unsigned char>(grey));
        PointImage frame = empty_frame(2);
        frame.set_point(3, 3, Vector3f(1, 2, 3));
        int timeMs = -1;
        EXPECT_EQ(run_speckle_rebuild_cpu(handle.value, flat.data(), flat.data(), frame, timeMs), RET_SUCCESS);
        EXPECT_EQ(frame.count_vaildNum(), 0) << grey;
        EXPECT_TRUE(frame.is_enable_vNormal());
    }
    std::vector<unsigned char> left(WIDTH * HEIGHT), right(WIDTH * HEIGHT);  // noise that does not match
    std::mt19937 random(1);
    for (auto* image : {&left, &right})
        for (unsigned char& pixel : *image) pixel = static_cast<unsigned char>(random());
    PointImage frame = empty_frame(2);
    int timeMs = -1;
    EXPECT_EQ(run_speckle_rebuild_cpu(handle.value, left.data(), right.data(), frame, timeMs), RET_SUCCESS);
    EXPECT_LT(frame.count_vaildNum(), 80);
}

TEST(SpeckleRebuild, WrongInputIsRefused) {
    const Handle handle(parallel_rig());
    const std::vector<unsigned char> image(WIDTH * HEIGHT, 100);
    int timeMs = -7;
    const std::string wrong =
        "!pImageL || !pImageR || resultData.get_image_height() != _heightSample || resultData.get_image_width() != "
        "_widthSample \n";
    PointImage raw = empty_frame(1), sampled = empty_frame(2);
    const std::string rawText = wrong +
                                "resultData.get_image_height() = 200\nresultData.get_image_width() = "
                                "320\n_heightSample = 100\n_widthSample = 160\n";
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(run_speckle_rebuild_cpu(handle.value, image.data(), image.data(), raw, timeMs),
                            RET_INPUT_ERROR);
              }),
              rawText);
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(run_speckle_rebuild_subPix_cpu(handle.value, image.data(), image.data(), raw, timeMs),
                            RET_INPUT_ERROR);
              }),
              rawText);
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(run_speckle_rebuild_cpu(handle.value, nullptr, image.data(), sampled, timeMs),
                            RET_INPUT_ERROR);
              }).find(wrong),
              0U);
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(run_speckle_rebuild_pixMatch_cpu(handle.value, image.data(), nullptr, timeMs),
                            RET_INPUT_ERROR);
              }),
              "!pImgL || !pImgR || !pRemapImgL || !pRemapImgR \n");
    EXPECT_EQ(timeMs, -7);

    const std::function<RetVal()> calls[] = {
        [&] { return run_speckle_rebuild_cpu(nullptr, image.data(), image.data(), sampled, timeMs); },
        [&] { return run_speckle_rebuild_pixMatch_cpu(nullptr, image.data(), image.data(), timeMs); },
        [&] { return run_speckle_rebuild_subPix_cpu(nullptr, image.data(), image.data(), sampled, timeMs); },
        [&] { return speckle_rebuild_cpu_release(nullptr); }};
    const char* names[] = {"run_speckle_rebuild_cpu", "run_speckle_rebuild_pixMatch_cpu",
                           "run_speckle_rebuild_subPix_cpu", "speckle_rebuild_release"};
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(printed([&] { EXPECT_EQ(calls[i](), RET_INPUT_ERROR); }),
                  std::string("hSpecReb = NULL in ") + names[i] + " function !!! \n");
    EXPECT_EQ(printed([] { EXPECT_EQ(should_we_debug(nullptr, true, true, 0, true), RET_INI_ERROR); }),
              "fail because pAlgorithmTemp == NULL \n");
    EXPECT_EQ(printed([] { should_we_debug_seq(nullptr, true, true, 0, true); }),
              "can not run function should_we_debug_seq, because pRebuild == NULL\n");
    EXPECT_EQ(printed([] { is_debug_seq(nullptr, true, 0); }),
              "can not run function show_debug_file, because hSpecReb == NULL \n");
}

using Change = std::function<void(RebParam&)>;

template <class Value, class Given>
Change set(Value RebParam::*member, const Given& value) {
    return [=](RebParam& param) { param.*member = Value(value); };
}

Change right_camera(std::size_t index, float value) {
    return [=](RebParam& param) { param.rightCalib[index] = value; };
}

TEST(SpeckleRebuild, SettingsThatCannotBeUsedGiveNoHandle) {
    using P = RebParam;
    using V = Vector2i;
    const Change damages[] = {
        set(&P::imgSize, V(0, 0)),
        set(&P::imgSize, V(INT32_MAX, INT32_MAX)),
        set(&P::sampleRatio, 0),
        set(&P::sampleRatio, 17),
        set(&P::gradientTh, V(-1, 3)),
        set(&P::pixMatchWin, V(8, 9)),
        set(&P::pixMatchWin, V(9, 0)),
        set(&P::pixMatchWin, V(1001, 1001)),
        set(&P::subPixMatchWin, V(-15, 15)),
        set(&P::findRange, V(10, 10)),
        set(&P::findRange, V(50, -50)),
        set(&P::findRange, V(WIDTH, WIDTH + 40)),
        set(&P::findRange, V(INT32_MIN, -WIDTH)),
        set(&P::imageRange, Vector4i(100, 50, 0, HEIGHT)),
        set(&P::imageRange, Vector4i(0, WIDTH, HEIGHT, HEIGHT + 9)),
        set(&P::leftCalib, std::vector<float>()),
        right_camera(0, std::nanf("")),
        right_camera(10, 0.0F),
        [](P& p) { p.rightCalib[13] = p.rightCalib[21] = -1; },       // the right camera looks backwards
        [](P& p) { std::swap(p.rightCalib[10], p.rightCalib[11]); },  // one above the other
    };
    int number = 0;
    for (const auto& damage : damages) {
        RebParam param = parallel_rig();
        damage(param);
        const Handle handle(param);
        EXPECT_EQ(handle.value, nullptr) << number;
        EXPECT_NE(handle.printed.find("SpeckleRebCpu ini fail because "), std::string::npos) << number;
        EXPECT_EQ(handle.printed.find("SpeckleRebCpu ini done"), std::string::npos) << number++;
    }
    const Handle good(parallel_rig());
    EXPECT_NE(good.printed.find("color camera par read fail\n"), std::string::npos);
    EXPECT_NE(good.printed.find("findRange:      -100\t-60\n"), std::string::npos);
    EXPECT_NE(good.printed.find("_baseLineD = 60\n"), std::string::npos);
    EXPECT_EQ(good.printed.substr(good.printed.size() - 23), "SpeckleRebCpu ini done\n");
}

TEST(SpeckleRebuild, ExtremeButLegalSettingsReadNothingOutside) {
    const std::vector<unsigned char> left = view(plane(370, 0.2), 0, 1), right = view(plane(370, 0.2), BASELINE, 2);
    using P = RebParam;
    using V = Vector2i;
    const Change none = [](P&) {};
    const std::pair<Change, Change> extremes[] = {
        {set(&P::pixMatchWin, V(3, 3)), set(&P::subPixMatchWin, V(3, 3))},
        {set(&P::pixMatchWin, V(63, 63)), set(&P::subPixMatchWin, V(63, 63))},
        {set(&P::sampleRatio, 16), set(&P::pixMatchWin, V(3, 3))},
        {set(&P::sampleRatio, 3), set(&P::gradientTh, V(255, INT32_MAX))},
        {set(&P::findRange, V(INT32_MIN, INT32_MAX)), none},
        {set(&P::findRange, V(-1, 0)), none},
        {set(&P::imageRange, Vector4i(INT32_MIN, INT32_MAX, INT32_MIN, INT32_MAX)), none},
        {set(&P::imageRange, Vector4i(WIDTH - 1, WIDTH, 0, HEIGHT)), none},
        {set(&P::gradientTh, V(0, INT32_MIN)), none},
    };
    for (const auto& [one, other] : extremes) {
        RebParam param = parallel_rig();
        one(param);
        other(param);
        const Handle handle(param);
        ASSERT_NE(handle.value, nullptr) << handle.printed;
        PointImage frame = empty_frame(param.sampleRatio);
        int timeMs = 0;
        EXPECT_EQ(run_speckle_rebuild_cpu(handle.value, left.data(), right.data(), frame, timeMs), RET_SUCCESS);
    }
}

/// Names of the files in a folder; the two of a pair of bitmaps as one.
std::set<std::string> dumps_in(const std::filesystem::path& folder) {
    std::set<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        std::string name = file.path().filename().string();
        for (const char* side : {"_L_", "_R_"})
            if (const std::size_t at = name.find(side); at != std::string::npos) name.replace(at, 3, "_");
        names.insert(name);
    }
    return names;
}

TEST(SpeckleRebuild, DumpsOnlyWhenAskedToAndUnderTheirNames) {
    const std::string whole =
        "bmp_origin_image|bmp_remap_image|bmp_pyramid_image|bmp_valid_mask|asc_pix_match_zncc|asc_remove_noise_points|"
        "asc_fill_neigh_invalid_points|asc_save_invaild_points|parallax_range_convert_to_depth_range|"
        "asc_pre_subpixel_match_points|_objDepthRange.depth_gaussian_smooth|asc_points_normal|"
        "subpix_iter_points_normal|remove_nosie|after remove_nosie_with_parallax_consistency|"
        "after right_to_left_to_vertify_match|after remove_nosie_with_cell|after remove_isolated_island|measure point|"
        "after smooth normal|result_points|result_image";
    const std::string pixelStage =
        "pixMatch_bmp_origin_image|pixMatch_bmp_remap_image|pixMatch_bmp_pyramid_image|pixMatch_bmp_valid_mask|"
        "pixMatch_pix_match_zncc|pixMatch_remove_noise_points|pixMatch_fill_neigh_invalid_points|"
        "pixMatch_match_result_to_save_invaild|pixMatch_parallax_range_convert_to_depth_range";
    const std::string subPixelStage =
        "subPix_origin_image|subPix_remap_image|subPix_pyramid_image|subPix_valid_mask|subPix_points_normal|"
        "subPix_iter_points_normal|subPix_pre_subpixel_match_points";
    const auto files = [](const std::string& stages, const std::string& prefix, int frame) {
        std::set<std::string> names;
        std::istringstream list(stages);
        for (std::string stage; std::getline(list, stage, '|');) {
            const bool isImage = stage.find("image") != std::string::npos || stage.find("mask") != std::string::npos;
            names.insert(prefix + stage + '_' + std::to_string(frame) + (isImage ? ".bmp" : ".asc"));
        }
        return names;
    };
    const std::vector<unsigned char> left = view(plane(370, 0.2), 0, 1), right = view(plane(370, 0.2), BASELINE, 2);
    for (const std::string prefix : {"", "/", "/first "}) {
        const TemporaryFolder folder;
        RebParam param = parallel_rig();
        param.debugPath = folder.path().string() + prefix;
        const std::string begin = prefix.empty() ? "" : prefix.substr(1);
        const Handle handle(param);
        PointImage frame = empty_frame(2);
        int timeMs = 0;
        const auto run = [&] {
            return run_speckle_rebuild_cpu(handle.value, left.data(), right.data(), frame, timeMs);
        };
        EXPECT_EQ(run(), RET_SUCCESS);
        is_debug_seq(handle.value, true, 2);
        EXPECT_EQ(run(), RET_SUCCESS);
        EXPECT_EQ(dumps_in(folder.path()), std::set<std::string>());
        EXPECT_EQ(run(), RET_SUCCESS);  // frame 2
        std::set<std::string> expected = files(whole, begin, 2);
        EXPECT_EQ(dumps_in(folder.path()), expected);
        EXPECT_EQ(bytes_of(folder.path() / (begin + "bmp_remap_image_L_2.bmp")).size(),
                  14U + 40U + 1024U + WIDTH * HEIGHT);
        EXPECT_EQ(run(), RET_SUCCESS);
        is_debug_seq(handle.value, true, -1);
        EXPECT_EQ(run_speckle_rebuild_pixMatch_cpu(handle.value, left.data(), right.data(), timeMs), RET_SUCCESS);
        EXPECT_EQ(run_speckle_rebuild_subPix_cpu(handle.value, left.data(), right.data(), frame, timeMs), RET_SUCCESS);
        expected.merge(files(pixelStage, begin, 4));
        expected.merge(files(subPixelStage, begin, 5));
        EXPECT_EQ(dumps_in(folder.path()), expected);
    }
    RebParam param = parallel_rig();
    param.debugPath = (TemporaryFolder().path() / "missing" / "").string();
    param.isDebug2OutPut = true;
    const Handle nowhere(param);
    int timeMs = 0;
    EXPECT_NE(printed([&] {
                  EXPECT_EQ(run_speckle_rebuild_pixMatch_cpu(nowhere.value, left.data(), right.data(), timeMs),
                            RET_SUCCESS);
              }).find("file open failed! \n"),
              std::string::npos);
}

}  // namespace
}  // namespace VexelAlgorithm
