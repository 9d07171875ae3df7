// The reconstruction behind its handle: both halves of a run, settings and images that cannot be used, dumps.
#include "SpeckleRebCPU/speckleRebuild.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace VexelAlgorithm {
namespace {

using namespace VexelTest;
using namespace VexelTrial;

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

struct Pair {
    std::vector<unsigned char> left, right;
};

/// Of an even surface across the view: speckle, and the same 80 pixels to the left.
Pair speckle_pair() {
    constexpr int SHIFT = 80, BLOB = 3;
    std::mt19937 random(3);
    std::vector<int> grains((WIDTH + SHIFT + BLOB) * (HEIGHT + BLOB));
    for (int& grain : grains) grain = static_cast<int>(random() % 256);
    const auto grey = [&](int x, int y) {
        int sum = 0;
        for (int k = 0; k < BLOB * BLOB; ++k) sum += grains[(y + k / BLOB) * (WIDTH + SHIFT + BLOB) + x + k % BLOB];
        return static_cast<unsigned char>(sum / (BLOB * BLOB));
    };
    Pair pair;
    for (int y = 0; y < HEIGHT; ++y)
        for (int x = 0; x < WIDTH; ++x) {
            pair.left.push_back(grey(x, y));
            pair.right.push_back(grey(x + SHIFT, y));
        }
    return pair;
}

struct Handle {
    explicit Handle(const RebParam& param) : lines(printed([&] { value = speckle_rebuild_cpu_ini(param); })) {}
    ~Handle() { EXPECT_TRUE(value == nullptr || speckle_rebuild_cpu_release(value) == RET_SUCCESS); }
    void* value = nullptr;
    std::string lines;
};

PointImage empty_frame(int sample) {
    PointImage frame;
    frame.ini(WIDTH / sample, HEIGHT / sample);
    return frame;
}

TEST(SpeckleRebuild, BothHalvesMakeTheWhole) {
    const Pair views = speckle_pair();
    const unsigned char *left = views.left.data(), *right = views.right.data();
    const Handle whole(parallel_rig()), halves(parallel_rig());
    PointImage one = empty_frame(2), other = empty_frame(2);
    int timeMs = -1;
    EXPECT_EQ(outcome([&] { return run_speckle_rebuild_subPix_cpu(halves.value, left, right, other, timeMs); }),
              std::pair(RET_STATE_ERROR,
                        std::string("run_speckle_rebuild_subPix_cpu fail because the pixel stage has not run\n")));
    ASSERT_EQ(run_speckle_rebuild_cpu(whole.value, left, right, one, timeMs), RET_SUCCESS);
    EXPECT_GE(timeMs, 0);
    EXPECT_TRUE(one.is_legal());
    ASSERT_EQ(run_speckle_rebuild_pixMatch_cpu(halves.value, left, right, timeMs), RET_SUCCESS);
    ASSERT_EQ(run_speckle_rebuild_subPix_cpu(halves.value, left, right, other, timeMs), RET_SUCCESS);
    EXPECT_GT(one.count_vaildNum(), 9000);
    EXPECT_EQ(one.get_vCoords(), other.get_vCoords());
    EXPECT_EQ(one.get_vNrvs(), other.get_vNrvs());
}

TEST(SpeckleRebuild, ImagesThatDoNotMatchGiveAnEmptyFrame) {
    const Handle handle(parallel_rig());
    std::mt19937 random(1);
    for (const int grey : {0, 255, -1}) {  // even images, then noise
        std::vector<unsigned char> left(WIDTH * HEIGHT), right(WIDTH * HEIGHT);
        for (auto* image : {&left, &right})
            for (unsigned char& pixel : *image)
                pixel = static_cast<unsigned char>(grey < 0 ? random() : unsigned(grey));
        PointImage frame = empty_frame(2);
        frame.set_point(3, 3, Vector3f(1, 2, 3));
        int timeMs = -1;
        EXPECT_EQ(run_speckle_rebuild_cpu(handle.value, left.data(), right.data(), frame, timeMs), RET_SUCCESS);
        EXPECT_LE(frame.count_vaildNum(), grey < 0 ? 80 : 0) << grey;
        EXPECT_TRUE(frame.is_enable_vNormal());
    }
}

TEST(SpeckleRebuild, WrongInputIsRefused) {
    const Handle handle(parallel_rig());
    const std::vector<unsigned char> pixels(WIDTH * HEIGHT, 100);
    const unsigned char* image = pixels.data();
    int timeMs = -7;
    PointImage raw = empty_frame(1), sampled = empty_frame(2);
    const auto sizes = [](const std::string& size) {
        return "!pImageL || !pImageR || resultData.get_image_height() != _heightSample || resultData.get_image_width() "
               "!= _widthSample \n" +
               size + "_heightSample = 100\n_widthSample = 160\n";
    };
    const std::string rawSize = "resultData.get_image_height() = 200\nresultData.get_image_width() = 320\n";
    const std::string sampledSize = "resultData.get_image_height() = 100\nresultData.get_image_width() = 160\n";
    const auto null = [](const char* name) { return std::string("hSpecReb = NULL in ") + name + " function !!! \n"; };
    const struct {
        std::function<RetVal()> call;
        std::string lines;
        RetVal result = RET_INPUT_ERROR;
    } cases[] = {
        {[&] { return run_speckle_rebuild_cpu(handle.value, image, image, raw, timeMs); }, sizes(rawSize)},
        {[&] { return run_speckle_rebuild_subPix_cpu(handle.value, image, image, raw, timeMs); }, sizes(rawSize)},
        {[&] { return run_speckle_rebuild_cpu(handle.value, nullptr, image, sampled, timeMs); }, sizes(sampledSize)},
        {[&] { return run_speckle_rebuild_pixMatch_cpu(handle.value, image, nullptr, timeMs); },
         "!pImgL || !pImgR || !pRemapImgL || !pRemapImgR \n"},
        {[&] { return run_speckle_rebuild_cpu(nullptr, image, image, sampled, timeMs); },
         null("run_speckle_rebuild_cpu")},
        {[&] { return run_speckle_rebuild_pixMatch_cpu(nullptr, image, image, timeMs); },
         null("run_speckle_rebuild_pixMatch_cpu")},
        {[&] { return run_speckle_rebuild_subPix_cpu(nullptr, image, image, sampled, timeMs); },
         null("run_speckle_rebuild_subPix_cpu")},
        {[&] { return speckle_rebuild_cpu_release(nullptr); }, null("speckle_rebuild_release")},
        {[&] { return should_we_debug(nullptr, true, true, 0, true); }, "fail because pAlgorithmTemp == NULL \n",
         RET_INI_ERROR},
        {[&] { return should_we_debug_seq(nullptr, true, true, 0, true), RET_INPUT_ERROR; },
         "can not run function should_we_debug_seq, because pRebuild == NULL\n"},
        {[&] { return is_debug_seq(nullptr, true, 0), RET_INPUT_ERROR; },
         "can not run function show_debug_file, because hSpecReb == NULL \n"},
    };
    for (const auto& c : cases) EXPECT_EQ(outcome(c.call), std::pair(c.result, c.lines));
    EXPECT_EQ(timeMs, -7);
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
    const std::pair<const char*, std::vector<Change>> faults[] = {
        {"imgSize is not usable", {set(&P::imgSize, V(0, 0)), set(&P::imgSize, V(INT32_MAX, INT32_MAX))}},
        {"sampleRatio is not in [1, 16]", {set(&P::sampleRatio, 0), set(&P::sampleRatio, 17)}},
        {"the window of gradientTh is not in [0, 255]", {set(&P::gradientTh, V(-1, 3))}},
        {"pixMatchWin is not odd, not in [3, 63] or larger than the sampled image",
         {set(&P::pixMatchWin, V(8, 9)), set(&P::pixMatchWin, V(9, 0)), set(&P::pixMatchWin, V(1001, 1001))}},
        {"subPixMatchWin is not odd, not in [3, 63] or larger than the image", {set(&P::subPixMatchWin, V(-15, 15))}},
        {"findRange is empty or inverted", {set(&P::findRange, V(10, 10)), set(&P::findRange, V(50, -50))}},
        {"findRange lies outside the image",
         {set(&P::findRange, V(WIDTH, WIDTH + 40)), set(&P::findRange, V(INT32_MIN, -WIDTH))}},
        {"imageRange is empty, inverted or outside the image",
         {set(&P::imageRange, Vector4i(100, 50, 0, HEIGHT)),
          set(&P::imageRange, Vector4i(0, WIDTH, HEIGHT, HEIGHT + 9))}},
        {"the calibration can not be used",
         {set(&P::leftCalib, std::vector<float>()), right_camera(0, std::nanf("")), right_camera(10, 0.0F)}},
        {"the cameras do not stand side by side",
         {[](P& p) { std::swap(p.rightCalib[10], p.rightCalib[11]); }}},  // but one above the other
    };
    for (const auto& [reason, changes] : faults)
        for (const Change& change : changes) {
            RebParam param = parallel_rig();
            change(param);
            const Handle handle(param);
            EXPECT_EQ(handle.value, nullptr) << reason;
            const std::string line = std::string("SpeckleRebCpu ini fail because ") + reason + '\n';
            EXPECT_EQ(handle.lines.substr(handle.lines.find("SpeckleRebCpu ini")), line);
        }
    const Handle good(parallel_rig());
    EXPECT_NE(good.lines.find("color camera par read fail\n"), std::string::npos);
    EXPECT_NE(good.lines.find("findRange:      -100\t-60\n"), std::string::npos);
    EXPECT_NE(good.lines.find("_baseLineD = 60\n"), std::string::npos);
    EXPECT_EQ(good.lines.substr(good.lines.size() - 23), "SpeckleRebCpu ini done\n");
}

TEST(SpeckleRebuild, ExtremeButLegalSettingsReadNothingOutside) {
    const Pair views = speckle_pair();
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
        ASSERT_NE(handle.value, nullptr) << handle.lines;
        PointImage frame = empty_frame(param.sampleRatio);
        int timeMs = 0;
        EXPECT_EQ(run_speckle_rebuild_cpu(handle.value, views.left.data(), views.right.data(), frame, timeMs),
                  RET_SUCCESS);
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
    const Pair views = speckle_pair();
    const unsigned char *left = views.left.data(), *right = views.right.data();
    for (const std::string prefix : {"", "/", "/first "}) {
        const TemporaryFolder folder;
        RebParam param = parallel_rig();
        param.debugPath = folder.path().string() + prefix;
        const std::string begin = prefix.empty() ? "" : prefix.substr(1);
        const Handle handle(param);
        PointImage frame = empty_frame(2);
        int timeMs = 0;
        const auto run = [&] { return run_speckle_rebuild_cpu(handle.value, left, right, frame, timeMs); };
        EXPECT_EQ(run(), RET_SUCCESS);
        is_debug_seq(handle.value, true, 2);
        EXPECT_EQ(run(), RET_SUCCESS);
        EXPECT_EQ(dumps_in(folder.path()), std::set<std::string>());
        const PointImage undumped = frame;
        EXPECT_EQ(run(), RET_SUCCESS);  // frame 2
        for (std::size_t i = 0; i < frame.get_vn(); ++i)
            ASSERT_TRUE(frame.get_vCoord(i) == undumped.get_vCoord(i) && frame.get_vNrv(i) == undumped.get_vNrv(i));
        std::set<std::string> expected = files(whole, begin, 2);
        EXPECT_EQ(dumps_in(folder.path()), expected);
        EXPECT_EQ(bytes_of(folder.path() / (begin + "bmp_remap_image_L_2.bmp")).size(),
                  14U + 40U + 1024U + WIDTH * HEIGHT);
        EXPECT_EQ(run(), RET_SUCCESS);
        is_debug_seq(handle.value, true, -1);
        EXPECT_EQ(run_speckle_rebuild_pixMatch_cpu(handle.value, left, right, timeMs), RET_SUCCESS);
        EXPECT_EQ(run_speckle_rebuild_subPix_cpu(handle.value, left, right, frame, timeMs), RET_SUCCESS);
        expected.merge(files(pixelStage, begin, 4));
        expected.merge(files(subPixelStage, begin, 5));
        EXPECT_EQ(dumps_in(folder.path()), expected);
    }
    RebParam param = parallel_rig();
    param.debugPath = (TemporaryFolder().path() / "missing" / "").string();
    param.isDebug2OutPut = true;
    const Handle nowhere(param);
    int timeMs = 0;
    const auto [result, lines] =
        outcome([&] { return run_speckle_rebuild_pixMatch_cpu(nowhere.value, left, right, timeMs); });
    EXPECT_EQ(result, RET_SUCCESS);
    EXPECT_NE(lines.find("file open failed! \n"), std::string::npos);
}

}  // namespace
}  // namespace VexelAlgorithm
