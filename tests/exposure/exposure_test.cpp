// The choice of exposure: its stages against plain twins and images that can be counted by hand, and arguments that it
// cannot use.
#include "exposure/autoExposure.h"
#include "exposure/greyFile.h"
#include "exposure/patternMask.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace VexelAlgorithm::autoExposureFoot {
namespace {

using namespace VexelTest;
using namespace VexelTrial;

constexpr int kMost = std::numeric_limits<int>::max(), kLeast = std::numeric_limits<int>::min();
const Vector2i kSize(96, 80);
const Vector4i kWhole(1, 0, 1, 0);

using Pixels = std::vector<unsigned char>;

/// Squares of 8 pixels of two levels, which is a change from each reduced pixel to every second one.
Pixels chequered(int dark, int bright, const std::function<bool(int x, int y)>& isInside, int outside) {
    Pixels image;
    for (int y = 0; y < kSize.y(); ++y)
        for (int x = 0; x < kSize.x(); ++x) {
            const int level = (x / 8 + y / 8) % 2 == 0 ? dark : bright;
            image.push_back(static_cast<unsigned char>(isInside(x, y) ? level : outside));
        }
    return image;
}
Pixels pattern(int dark, int bright) {
    const auto everywhere = [](int, int) { return true; };
    return chequered(dark, bright, everywhere, 0);
}
Pixels even(int level) {
    return pattern(level, level);
}

ByteImage noise(int width, int height, unsigned seed, int levels) {
    ByteImage image;
    image.assign(width, height);
    std::mt19937 random(seed);
    for (auto& pixel : image.pixels) pixel = static_cast<std::uint8_t>(random() % static_cast<unsigned>(levels));
    return image;
}

TEST(ExposureStages, SmoothingIsTheGaussianOfTheInterior) {
    const ByteImage image = noise(37, 22, 1, 256);
    ByteImage smoothed, sampled;
    smooth(image.pixels.data(), 37, 22, gaussian_kernel(), 2, smoothed);
    for (int y = 0; y < 22; ++y)
        for (int x = 0; x < 37; ++x) {
            double sum = 0;
            for (int i = -1; i <= 1 && x % 36 != 0 && y % 21 != 0; ++i)
                for (int j = -1; j <= 1; ++j)
                    sum += std::exp(-(i * i + j * j) / 1.28) * 0.2486796 / 0.913 * image.row(y + i)[x + j];
            const double expected = x % 36 != 0 && y % 21 != 0 ? std::floor(sum) : image.row(y)[x];
            ASSERT_NEAR(smoothed.row(y)[x], expected, std::abs(sum - std::round(sum)) < 1e-3 ? 1 : 0) << x << ' ' << y;
        }
    sample_smoothed(image.pixels.data(), 37, 22, gaussian_kernel(), 4, 1, sampled);
    ASSERT_EQ(sampled.width, 9);
    ASSERT_EQ(sampled.height, 5);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 9; ++x) EXPECT_EQ(sampled.row(y)[x], smoothed.row(4 * y)[4 * x]);
}

bool plain_has_pattern(const ByteImage& image, int x, int y, const PatternLimits& limits) {
    int level[9], sum = 0, differences = 0;
    for (int i = 0; i < 9; ++i) {
        level[i] =
            image.row(std::clamp(y + i / 3 - 1, 0, image.height - 1))[std::clamp(x + i % 3 - 1, 0, image.width - 1)];
        sum += level[i];
    }
    for (int i = 0; i < 9; ++i)
        for (int j = 0; j < i; ++j)
            if (std::abs(i / 3 - j / 3) <= 1 && std::abs(i % 3 - j % 3) <= 1)
                differences += std::abs(level[i] - level[j]);
    return differences > limits.contrast && sum <= 9 * (255 - limits.headroom);
}

TEST(ExposureStages, TheMaskIsThatOfThePlainSums) {
    for (const auto& [width, height] : {std::pair(40, 33), {1, 9}, {9, 1}, {1, 1}, {2, 2}})
        for (const int levels : {3, 6, 40}) {
            ByteImage image = noise(width, height, 7, levels), mask;
            if (levels == 40)
                for (auto& pixel : image.pixels) pixel = static_cast<std::uint8_t>(pixel + 196);  // 196 to 235
            mask_pattern(image, {}, 2, mask);
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    ASSERT_EQ(mask.row(y)[x] != 0, plain_has_pattern(image, x, y, {})) << width << ' ' << x << ' ' << y;
        }
}

TEST(ExposureStages, ClustersOfEightNeighboursBelowTheLeastNumberGo) {
    const std::string picture =  // K is kept, d is dropped
        "KK....dd....d"
        "..K..d..d...d"
        "..K..d..d..dd"
        "KK..........."
        "K.....KKK...d"
        ".....K...K.d."
        "ddd..K...K..d"
        "ddd...KKK..dd";
    ByteImage mask, kept;
    mask.assign(13, 8);
    for (std::size_t i = 0; i < picture.size(); ++i) mask.pixels[i] = picture[i] != '.' ? 1 : 0;
    keep_clusters(mask, 6.5, kept);
    for (std::size_t i = 0; i < picture.size(); ++i)
        EXPECT_EQ(kept.pixels[i] != 0, picture[i] == 'K') << i % 13 << ' ' << i / 13;
}

TEST(ExposureStages, BestOfFive) {
    using Images = std::vector<std::pair<float, float>>;  // P2, quality
    const std::tuple<const char*, Images, int> cases[] = {
        {"no image", {}, 0},
        {"all dark", {{0, -5}, {0, -4}, {0, -3}}, 0},
        {"quality decides", {{0.5F, -5}, {0.4F, -4}, {0.6F, -6}}, 1},
        {"sixth share is out", {{0.1F, -3}, {0.2F, -4}, {0.3F, -5}, {0.4F, -6}, {0.5F, -7}, {0.6F, -8}}, 1},
        {"equal share comes later", {{0.3F, -9}, {0.3F, -8}, {0.3F, -8}, {0.3F, -8}, {0.3F, -8}, {0.3F, -1}}, 1},
        {"empty places are image 0", {{0, -4}, {0.5F, -5}}, 0},
        {"larger share of equal quality", {{0.3F, -4}, {0.5F, -4}}, 1},
        {"no number and negative never enter", {{0.2F, -6}, {kNaN, -3}, {-0.5F, -3}, {0.1F, -5}}, 3},
        {"quality that is no number", {{0.2F, kNaN}, {0.1F, -4}}, 0},
    };
    for (const auto& [name, images, best] : cases) {
        std::vector<ExposureRecord> records;
        for (const auto& [share, quality] : images) records.push_back({{0, 0, share, 0}, quality});
        EXPECT_EQ(best_of_five(records), best) << name;
    }
    const ExposureStatistics reference{100, 200, 0.5F, 0.25F};
    EXPECT_FLOAT_EQ(quality_factor(reference, reference), -3.0F);
    EXPECT_FLOAT_EQ(quality_factor({178, 100, 0.9F, 0.625F}, reference),
                    static_cast<float>(-std::exp(78.0 / 156) - std::exp(100.0 / 200) - std::exp(0.375 / 0.75)));
}

TEST(Exposure, RegionsFollowTheirRule) {
    const std::pair<Vector4i, Vector4i> cases[] = {
        {{20, 60, 30, 50}, {20, 60, 30, 50}},
        {{0, 86, 0, 80}, {10, 86, 10, 70}},
        {{0, 96, 0, 80}, {10, 10, 10, 70}},
        {{50, 87, 20, 60}, {50, 10, 20, 60}},
        {{60, 20, 30, 50}, {10, 86, 10, 70}},
        {{20, 60, 50, 30}, {10, 86, 10, 70}},
        {{kLeast, kMost, kLeast, kMost}, {10, 10, 10, 70}},
        {{kMost, kMost, kMost, kMost}, {kMost, 10, kMost, 70}},
        {{kLeast, kLeast, kLeast, kLeast}, {10, kLeast, 10, kLeast}},
    };
    const Pixels image = pattern(20, 180);
    for (const auto& [given, used] : cases) {
        autoExposureC calculator(nullptr, kSize, given, "");
        EXPECT_EQ(calculator.get_region(), used) << given.transpose();
        EXPECT_EQ(calculator.exposure_parameter_calculation(image.data()), RET_SUCCESS);
        const bool hasArea = used(0) < used(1) && used(2) < used(3);
        EXPECT_EQ(calculator.get_statistics().P2 > 0, hasArea) << given.transpose();
    }
}

TEST(Exposure, StatisticsOfImagesThatCanBeCounted) {
    // The region is 2 to 20 and 2 to 16 of the reduced image, 19 x 15 pixels: (86 / 4 - 10 / 4) (70 / 4 - 10 / 4).
    const auto left = [](int x, int) { return x < 48; };
    const auto square = [](int x, int y) { return x > 40 && x < 48 && y > 40 && y < 48; };
    const Pixels half = chequered(20, 180, left, 220), speck = chequered(20, 180, square, 20);
    const std::tuple<const char*, Pixels, ExposureStatistics> cases[] = {
        {"black", even(0), {420, 0, 0, 0}},
        {"grey", even(160), {420, 0, 0, 0}},
        {"white", even(255), {1470, 0, 0, 1}},
        {"all pattern", pattern(20, 180), {70, 100, 1, 0}},
        {"weak pattern", pattern(20, 22), {420, 0, 0, 0}},
        {"pattern that is cut off", pattern(190, 255), {1470, 0, 0, 1}},
        {"a speck", speck, {420, 0, 0, 0}},
        // Reduced columns 2 to 11 show the pattern, 12 and 13 its end, which smoothing puts into 12: 12 columns of 19.
        {"half", half, {70 * (1 + 20 * 7 / 19.0F), (10 * 100 + 188 + 220) / 12.0F, 12 / 19.0F, 1}},
    };
    autoExposureC calculator(nullptr, kSize, kWhole, "");
    for (const auto& [name, image, expected] : cases) {
        ASSERT_EQ(calculator.exposure_parameter_calculation(image.data()), RET_SUCCESS);
        const ExposureStatistics s = calculator.get_statistics();
        EXPECT_NEAR(s.P0, expected.P0, 1e-3 * expected.P0) << name;
        EXPECT_NEAR(s.P1, expected.P1, 4.0) << name;  // of the smoothing, and of squares that the region cuts
        EXPECT_NEAR(s.P2, expected.P2, 0.1 / (19 * 15)) << name;
        EXPECT_NEAR(s.P3, expected.P3, 1e-6) << name;
    }
    const autoExposureC like(half.data(), kSize, kWhole, "");
    EXPECT_NEAR(like.get_reference().P2, 12 / 19.0, 1e-6);
}

std::vector<char*> as_char(const std::vector<unsigned char*>& images) {
    std::vector<char*> result;
    for (unsigned char* image : images) result.push_back(reinterpret_cast<char*>(image));
    return result;
}

TEST(Exposure, SeriesAndTheirFailures) {
    Pixels black = even(0), dim = pattern(5, 40), good = pattern(20, 200), bright = pattern(120, 255);
    unsigned char *const b = black.data(), *const d = dim.data(), *const g = good.data();
    Vector2i size = kSize;
    void* handle = autoexposure_ini(nullptr, size, kWhole, "");
    ASSERT_NE(handle, nullptr);
    int best = 7;
    EXPECT_EQ(line_count(printed([&] { EXPECT_EQ(bestexposureindex(handle, best), RET_STATE_ERROR); })), 1);
    EXPECT_EQ(best, 7);
    const std::tuple<std::vector<unsigned char*>, RetVal, int, int> cases[] = {
        // images, code, best, lines
        {{b, d, g, bright.data()}, RET_SUCCESS, 2, 0},
        {{g, b}, RET_SUCCESS, 0, 0},
        {{b, b}, RET_SUCCESS, 0, 0},
        {{nullptr, b, nullptr, d}, RET_SUCCESS, 3, 2},
        {{nullptr, b}, RET_SUCCESS, 0, 1},  // neither has a pattern: the
                                            // image of the empty places
        {{nullptr, nullptr}, RET_INPUT_ERROR, -1, 2},
        {{}, RET_INPUT_ERROR, -1, 0},
        {{d, g}, RET_SUCCESS, 1, 0},
    };
    for (const auto& [images, code, expected, lines] : cases) {
        const std::function<RetVal()> calls[] = {
            [&, &series = images] { return exposureparameter_claculation(handle, series, best); },
            [&, &series = images] { return exposureparameter_claculation(handle, as_char(series), best); },
            [&] { return bestexposureindex(handle, best); },
            [&, &series = images] {
                return autoexposure(as_char(series), best, size, {0, 96, 0, 80}, nullptr, false, true, "");
            }};
        for (std::size_t k = 0; k < 4; ++k) {
            if (k != 2) best = 7;
            const auto [result, text] = outcome(calls[k]);
            EXPECT_EQ(result, code);
            EXPECT_EQ(best, expected);
            EXPECT_TRUE(k > 0 || line_count(text) == lines) << text;
        }
    }
    const std::vector<char*> two = as_char({d, g});
    EXPECT_EQ(autoexposure(two, best, size, {0, 96, 0, 80}, nullptr, false, false, ""), RET_SUCCESS);
    EXPECT_EQ(best, 0) << "nothing is left of this region";
    EXPECT_EQ(autoexposure(two, best, size, {0, 80, 0, 80}, two[0], false, false, ""), RET_SUCCESS);
    EXPECT_EQ(best, 0) << "the reference is met";

    autoExposureC one(nullptr, kSize, kWhole, "");
    for (const Pixels* image : {&dim, &good}) {
        one.exposure_parameter_calculation(image->data());
        one.image_qfactor_calculation();
    }
    autoExposureC copy = one;
    one.image_qfactor_calculation();
    EXPECT_EQ(one.get_records().size(), 3U);
    EXPECT_EQ(copy.get_records().size(), 2U);
    EXPECT_EQ(copy.best_exposure_index(), 1);
    copy = autoExposureC();
    EXPECT_EQ(copy.best_exposure_index(), 0);
    EXPECT_EQ(autoexposure_release(handle), RET_SUCCESS);
    EXPECT_EQ(handle, nullptr);
}

TEST(ExposureInput, NullHandlesAndSizes) {
    int best = 7;
    void* none = nullptr;
    const std::function<RetVal()> calls[] = {
        [&] { return exposureparameter_claculation(nullptr, std::vector<unsigned char*>(), best); },
        [&] { return exposureparameter_claculation(nullptr, std::vector<char*>(), best); },
        [&] { return bestexposureindex(nullptr, best); },
        [&] { return autoexposure_debug_mode(nullptr, true); },
        [&] { return autoexposure_release(none); },
    };
    for (const auto& call : calls)
        EXPECT_EQ(printed([&] { EXPECT_EQ(call(), RET_INI_ERROR); }), "fail because pTemp == NULL \n");
    EXPECT_EQ(best, 7);
    Pixels image = even(90);
    for (Vector2i size : {Vector2i(0, 80), Vector2i(96, -1), Vector2i(kLeast, kMost), Vector2i(32768, 10)}) {
        EXPECT_EQ(line_count(printed([&] { EXPECT_EQ(autoexposure_ini(image.data(), size, kWhole, ""), nullptr); })),
                  2);
        printed([&] {
            EXPECT_EQ(autoexposure({nullptr}, best, size, kWhole, nullptr, false, false, ""), RET_INPUT_ERROR);
        });
        EXPECT_EQ(best, -1);
    }
    for (Vector2i size : {Vector2i(1, 1), Vector2i(3, 2560), Vector2i(2560, 3), Vector2i(15, 15)}) {
        std::vector<char*> images{reinterpret_cast<char*>(image.data())};
        EXPECT_EQ(autoexposure(images, best, size, kWhole, nullptr, false, false, ""), RET_SUCCESS);
        EXPECT_EQ(best, 0);
    }
}

TEST(ExposureInput, FilesAndDebugImages) {
    const TemporaryFolder folder;
    const auto path = [&](const char* name) { return (folder.path() / name).string(); };
    const auto save = [&](const char* name, const Pixels& pixels, int width) {
        ByteImage image;
        image.assign(width, static_cast<int>(pixels.size()) / width);
        image.pixels = pixels;
        EXPECT_TRUE(write_jpeg(path(name), image));
    };
    save("black.jpg", even(0), 96);
    save("good.jpg", pattern(20, 200), 96);
    save("turned.jpg", pattern(20, 200), 80);
    // A PNG that claims 32767 x 32767 pixels in 33 bytes.
    const unsigned char claim[] = {0x89, 'P',  'N',  'G', 13, 10,   26,   10, 0, 0, 0, 13, 'I',  'H',  'D',  'R', 0,
                                   0,    0x7F, 0xFF, 0,   0,  0x7F, 0xFF, 8,  0, 0, 0, 0,  0x70, 0xAC, 0xD6, 0x32};
    std::ofstream(path("claim.png"), std::ios::binary).write(reinterpret_cast<const char*>(claim), sizeof claim);
    int best = 7;
    EXPECT_EQ(line_count(printed([&] {
                  const autoExposureC reader(std::vector<std::string>{
                      path("none.png"), path("claim.png"), path("black.jpg"), path("turned.jpg"), path("good.jpg")});
                  best = reader.best_exposure_index();
              })),
              3);
    EXPECT_EQ(best, 4);

    autoExposureC calculator(nullptr, kSize, kWhole, folder.path().string());
    calculator.debug_mode(true);
    Pixels good = pattern(20, 200);
    const std::string lines = printed([&] {
        calculator.exposure_parameter_calculation(std::vector<unsigned char*>{good.data(), good.data()});
        EXPECT_EQ(calculator.best_exposure_index(), 0);
    });
    EXPECT_EQ(line_count(lines), 7) << lines;
    EXPECT_NE(lines.find("\xc6\xd8\xb9\xe2\xd7\xee\xba\xc3\xb5\xc4\xcd\xbc\xc6\xac\xca\xc7:0\n"), std::string::npos);
    for (const char* stage : {"Mask calculation", "Clustering", "Parameters Calculation"})
        EXPECT_NE(lines.find(stage), std::string::npos);
    ByteImage mask;
    ASSERT_TRUE(read_grey_file(path("maskImg1.jpg"), mask));
    EXPECT_EQ(mask.width, 24);
    EXPECT_GT(mask.row(10)[10], 250);
}

}  // namespace
}  // namespace VexelAlgorithm::autoExposureFoot
