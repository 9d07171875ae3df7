// Every matching stage against its plain twin, on small images of awkward sizes.
#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "SpeckleRebCPU/parallaxFilters.h"
#include "SpeckleRebCPU/pyramid.h"
#include "SpeckleRebCPU/verifyMatch.h"
#include "tests/reconstruction/plainStages.h"

namespace VexelAlgorithm {
namespace {

GreyImage noise_image(int width, int height, unsigned seed, int smoothing = 1) {
    std::mt19937 random(seed);
    Raster<int> raw(width + 8, height + 8);
    for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<int>(random() % 256);
    GreyImage image(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            int sum = 0;
            for (int dy = 0; dy < smoothing; ++dy)
                for (int dx = 0; dx < smoothing; ++dx) sum += raw.at(x + dx, y + dy);
            image.at(x, y) = static_cast<std::uint8_t>(sum / (smoothing * smoothing));
        }
    return image;
}

GreyImage shifted(const GreyImage& image, int by) {
    GreyImage result(image.width(), image.height());
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) result.at(x, y) = image.at(std::clamp(x - by, 0, image.width() - 1), y);
    return result;
}

Mask random_mask(int width, int height, unsigned seed, int percent) {
    std::mt19937 random(seed);
    Mask mask(width, height);
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = static_cast<int>(random() % 100) < percent ? 1 : 0;
    return mask;
}

TEST(MatchingStages, SampledImageIsTheSmoothedOne) {
    for (const int ratio : {1, 2, 3, 5}) {
        const GreyImage image = noise_image(61, 43, 1);
        GreyImage sampled;
        build_sampled_image(image, ratio, 3, sampled);
        ASSERT_EQ(sampled.width(), 61 / ratio);
        for (int y = 0; y < sampled.height(); ++y)
            for (int x = 0; x < sampled.width(); ++x)
                ASSERT_EQ(sampled.at(x, y), Plain::sampled_pixel(image, ratio, x, y)) << ratio << ": " << x << ' ' << y;
    }
}

TEST(MatchingStages, ValidMaskWithItsMirroredBounds) {
    GreyImage image = noise_image(90, 70, 2, 3);
    for (int y = 20; y < 45; ++y) std::fill_n(image.row(y) + 30, 30, std::uint8_t{100});
    struct {
        PixelRange range;
        int window, threshold, dilateX, dilateY;
    } const cases[] = {{{0, 90, 0, 70}, 5, 20, 3, 5},     {{50, 90, 2, 70}, 5, 20, 1, 1},
                       {{12, 60, 20, 41}, 9, 25, 7, 3},   {{0, 90, 0, 70}, 0, 10, 1, 1},
                       {{-5, 200, -5, 200}, 11, 0, 3, 3}, {{80, 85, 0, 70}, 5, 1, 3, 3},
                       {{46, 90, 0, 70}, 255, 1, 3, 3}};
    for (const auto& c : cases) {
        GreyImage gradient;
        Mask textured, mask;
        ASSERT_TRUE(compute_gradient(image, c.range, 2, gradient));
        ASSERT_TRUE(generate_valid_mask(gradient, c.range, c.window, static_cast<float>(c.threshold), 2, textured));
        ASSERT_TRUE(mask_dilate(textured, c.range, c.dilateX, c.dilateY, 2, mask));
        for (int y = 0; y < 70; ++y)
            for (int x = 0; x < 90; ++x)
                ASSERT_EQ(mask.at(x, y) != 0,
                          Plain::is_valid(image, c.range, c.window, c.threshold, c.dilateX, c.dilateY, x, y))
                    << "range from " << c.range.xBegin << ", pixel " << x << ' ' << y;
    }
    const PixelRange atLeastThree = mirrored_range(90, 70, {1, 90, 0, 70}, 3),
                     fifty = mirrored_range(90, 70, {50, 90, 2, 70}, 3);
    EXPECT_EQ(atLeastThree.xEnd, 87);
    EXPECT_EQ(fifty.xEnd, 40);
    GreyImage none;
    EXPECT_FALSE(compute_gradient(none, {0, 1, 0, 1}, 1, none));
}

struct MatchCase {
    const char* name;
    int width, height, windowWidth, windowHeight, begin, end, leftPercent, rightPercent;
    PixelRange range;
    int contrast = 100;  // percent; the brighter, the less
};

/// Bright, of little contrast, and even in a patch: where scores are hardest to compute, and candidates without one.
GreyImage paled(GreyImage image, int contrast) {
    for (std::size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<std::uint8_t>(255 - (255 - image[i]) * contrast / 100);
    if (contrast == 100) return image;
    for (int y = 5; y < image.height(); ++y) std::fill_n(image.row(y) + 25, 7, std::uint8_t{250});
    return image;
}

TEST(MatchingStages, RowSearchFindsWhatTheDefinitionFinds) {
    const MatchCase cases[] = {
        {"plain", 67, 40, 5, 7, -9, 12, 100, 100, {0, 67, 0, 40}},
        {"candidates left out", 67, 40, 5, 7, -9, 12, 80, 70, {0, 67, 0, 40}},
        {"range beyond the image", 67, 21, 3, 3, -200, 300, 100, 90, {0, 67, 0, 21}},
        {"range to one side", 67, 21, 11, 3, 14, 31, 100, 100, {0, 67, 0, 21}},
        {"range to the other", 67, 21, 11, 3, -31, -14, 100, 100, {0, 67, 0, 21}},
        {"part of the image", 67, 40, 5, 5, -9, 12, 100, 100, {20, 50, 13, 22}},
        {"window as large as the image", 15, 9, 15, 9, -3, 4, 100, 100, {0, 15, 0, 9}},
        {"four candidates", 67, 20, 5, 5, 2, 6, 100, 100, {0, 67, 0, 20}},
        {"pale", 67, 40, 5, 5, -9, 12, 100, 100, {0, 67, 0, 40}, 5},
        {"pale, large window", 99, 70, 41, 63, -30, 30, 100, 90, {0, 99, 0, 70}, 6},
    };
    for (const MatchCase& c : cases) {
        const GreyImage left = paled(noise_image(c.width, c.height, 3, 2), c.contrast), right = shifted(left, 4);
        const Mask leftMask = random_mask(c.width, c.height, 4, c.leftPercent),
                   rightMask = random_mask(c.width, c.height, 5, c.rightPercent);
        const PixelMatchTask task{left,           right,   leftMask, rightMask, c.windowWidth,
                                  c.windowHeight, c.begin, c.end,    c.range};
        Raster<float> position, score, other;
        ASSERT_TRUE(match_pixels(task, 1, position, score)) << c.name;
        ASSERT_TRUE(match_pixels(task, 4, other, score)) << c.name;
        int matches = 0;
        for (int y = 0; y < c.height; ++y) {
            for (int x = 0; x < c.width; ++x) {
                const bool isMatched = leftMask.at(x, y) != 0 && x >= std::max(c.range.xBegin, c.windowWidth / 2) &&
                                       x < std::min(c.range.xEnd, c.width - c.windowWidth / 2) &&
                                       y >= std::max(c.range.yBegin, c.windowHeight / 2) &&
                                       y < std::min(c.range.yEnd, c.height - c.windowHeight / 2);
                const Plain::Found expected =
                    isMatched ? Plain::search_row(Plain::candidates(task, x, y)) : Plain::Found();
                ASSERT_NEAR(position.at(x, y), expected.position, 2e-3) << c.name << ": " << x << ' ' << y;
                ASSERT_NEAR(score.at(x, y), expected.score, 1e-4) << c.name << ": " << x << ' ' << y;
                ASSERT_LE(score.at(x, y), 1.0F);
                ASSERT_EQ(position.at(x, y), other.at(x, y)) << "threads";
                matches += expected.position != NO_MATCH;
            }
        }
        EXPECT_TRUE(matches > 20 || c.height <= 9) << c.name;
    }
}

TEST(MatchingStages, BestAtTheEndsOfTheListIsNoMatch) {
    const GreyImage left = noise_image(60, 15, 6);
    const Mask all(60, 15, 1);
    const GreyImage right = shifted(left, 5);  // the truth, with a score of exactly 1, is candidate 5 - begin
    for (const auto& [begin, end, found] :
         {std::tuple(5, 12, false), {4, 12, false}, {3, 12, true}, {0, 6, false}, {0, 7, true}}) {
        Raster<float> position, score;
        ASSERT_TRUE(match_pixels({left, right, all, all, 5, 5, begin, end, {0, 60, 0, 15}}, 1, position, score));
        EXPECT_EQ(std::abs(position.at(30, 7) - 35.0F) < 0.5F, found) << begin << ' ' << end;
        EXPECT_TRUE(found ? score.at(30, 7) == 1.0F : position.at(30, 7) == NO_MATCH) << begin << ' ' << end;
    }
    GreyImage stripes(60, 15);  // every fourth candidate is the truth; the first of them counts
    for (int y = 0; y < 15; ++y)
        for (int x = 0; x < 60; ++x) stripes.at(x, y) = left.at(x % 4, y);
    const GreyImage flat(60, 15, 90);
    Raster<float> position, score;
    ASSERT_TRUE(match_pixels({stripes, stripes, all, all, 5, 5, -6, 9, {0, 60, 0, 15}}, 1, position, score));
    EXPECT_NEAR(position.at(30, 7), 26.0F, 0.5F);
    ASSERT_TRUE(match_pixels({flat, right, all, all, 5, 5, 0, 9, {0, 60, 0, 15}}, 1, position, score));
    EXPECT_EQ(position.at(30, 7), NO_MATCH);
    EXPECT_FALSE(match_pixels({left, right, all, all, 61, 5, 0, 9, {0, 60, 0, 15}}, 1, position, score));
    EXPECT_FALSE(match_pixels({left, right, all, all, 4, 5, 0, 9, {0, 60, 0, 15}}, 1, position, score));
}

ParallaxField slanted_field(int width, int height, int sample, double noise) {
    std::mt19937 random(8);
    std::normal_distribution<double> error(0.0, 1.0);
    ParallaxField field;
    field.assign(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (random() % 20 == 0) continue;
            field.parallax.at(x, y) =
                static_cast<float>(4.0 + 0.15 * x * sample - 0.05 * y * sample + noise * error(random));
            field.slopeX.at(x, y) = 0.15F;
            field.slopeY.at(x, y) = -0.05F;
        }
    return field;
}

int count_slots(const ParallaxField& field) {
    int count = 0;
    for (std::size_t i = 0; i < field.parallax.size(); ++i) count += has_parallax(field.parallax[i]);
    return count;
}

void expect_same_slots(const ParallaxField& found, const ParallaxField& expected, const std::string& what) {
    for (int y = 0; y < found.parallax.height(); ++y)
        for (int x = 0; x < found.parallax.width(); ++x)
            ASSERT_EQ(has_parallax(found.parallax.at(x, y)), has_parallax(expected.parallax.at(x, y)))
                << what << ": " << x << ' ' << y;
}

TEST(MatchingStages, SubPixelStepsAreThoseOfSingleWindows) {
    for (const int sample : {1, 2, 3}) {
        const GreyImage left = noise_image(95, 53, 9, 3), right = shifted(left, 6);
        const Mask cover = random_mask(95, 53, 10, 95);
        const ParallaxField field = slanted_field(95 / sample, 53 / sample, sample, 0.4);
        const SubPixelTask task{left, right, cover, sample, 11, 7};
        Raster<float> step, score, other;
        find_sub_pixel_steps(task, field, 1, step, score);
        find_sub_pixel_steps(task, field, 3, other, score);
        int compared = 0;
        for (int y = 0; y < step.height(); ++y) {
            for (int x = 0; x < step.width(); ++x) {
                const auto expected =
                    has_parallax(field.parallax.at(x, y)) ? Plain::sub_pixel_step(task, field, x, y) : std::nullopt;
                ASSERT_EQ(has_parallax(step.at(x, y)), expected.has_value()) << sample << ": " << x << ' ' << y;
                if (!expected) continue;
                ++compared;
                ASSERT_NEAR(step.at(x, y), expected->step, 0.02)
                    << sample << ": " << x << ' ' << y;  // of rounded grey values
                ASSERT_NEAR(score.at(x, y), expected->score, 0.005);
                ASSERT_EQ(step.at(x, y), other.at(x, y)) << "threads";
            }
        }
        EXPECT_GT(compared, step.width() * step.height() / 3);
    }
}

TEST(MatchingStages, GrowthGoesWhereTheDefinitionGoes) {
    // A slanted surface: the right image is the left one, stretched.
    constexpr int W = 90, H = 50;
    const GreyImage left = noise_image(W, H, 12, 3);
    GreyImage right(W, H);
    const auto parallax_at = [](double x, int y) { return 3.0 + 0.2 * (x - 45) + 0.05 * (y - 25); };
    for (int y = 0; y < H; ++y)
        for (int c = 0; c < W; ++c) {
            const double x = std::clamp((c - 3.0 + 9.0 - 0.05 * (y - 25)) / 1.2, 0.0, W - 1.001);
            const int column = static_cast<int>(x);
            const double t = x - column;
            right.at(c, y) = static_cast<std::uint8_t>((1 - t) * left.at(column, y) + t * left.at(column + 1, y) + 0.5);
        }
    const Mask mask = random_mask(W, H, 13, 97);
    Raster<float> seeds(W, H, NO_PARALLAX);
    for (int y = 20; y < 26; ++y)
        for (int x = 40; x < 47; ++x) seeds.at(x, y) = static_cast<float>(parallax_at(x, y));
    const GrowTask task{left, right, mask, 9, 7, -20.0F, 12.0F, 0.6F};
    Raster<float> plain = seeds;
    Plain::grow(task, plain);
    for (const int threads : {1, 3}) {
        Raster<float> grown = seeds, score(W, H);
        grow_matches(task, threads, grown, score);
        // Rounding may decide which of two steps is the better one or whether a score suffices, and neighbours go by
        // it.
        int matched = 0, different = 0;
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const bool isMatched = has_parallax(plain.at(x, y));
                different += has_parallax(grown.at(x, y)) != isMatched ||
                             (isMatched && std::abs(grown.at(x, y) - plain.at(x, y)) > 0.02);
                if (!has_parallax(grown.at(x, y))) continue;
                ++matched;
                ASSERT_NEAR(grown.at(x, y), parallax_at(x, y), 0.3) << x << ' ' << y;
            }
        EXPECT_LE(different, W * H / 100);
        EXPECT_GT(matched, W * H / 2);
    }
}

TEST(MatchingStages, FacetsAreThoseOfSingleFits) {
    for (const FacetFit& fit : {FacetFit{3, 1, 1.8F, 0.5F, 0.1F}, {2, 3, 1e9F, 0.8F, 0.0F}}) {
        ParallaxField field = slanted_field(53, 37, 2, 0.3);
        for (int y = 0; y < 37; ++y)
            for (int x = 30; x < 53; ++x) field.parallax.at(x, y) += 15.0F;  // a depth edge, which stays one
        const ParallaxField before = field;
        fit_facets(fit, 2, 2, field);
        for (int y = 0; y < 37; ++y)
            for (int x = 0; x < 53; ++x) {
                if (!has_parallax(before.parallax.at(x, y))) continue;
                const Vector3d kept(before.parallax.at(x, y), before.slopeX.at(x, y), before.slopeY.at(x, y));
                const Vector3d expected = Plain::facet(fit, 2, before, x, y).value_or(kept);
                const Vector3d found(field.parallax.at(x, y), field.slopeX.at(x, y), field.slopeY.at(x, y));
                ASSERT_LT((found - expected).cwiseAbs().maxCoeff(), 2e-3) << x << ' ' << y;
            }
    }
}

TEST(MatchingStages, SmallRegionsAreThoseOfAFlood) {
    for (const unsigned seed : {1U, 2U, 3U}) {
        std::mt19937 random(seed);
        Raster<float> parallax(61, 47, NO_PARALLAX);
        for (std::size_t i = 0; i < parallax.size(); ++i)
            if (random() % 3 != 0) parallax[i] = static_cast<float>(random() % 4);
        const ParallaxRegions expected = Plain::regions(1.0F, parallax);
        Raster<float> cleaned = parallax;
        remove_small_regions(9, 1.0F, cleaned);
        for (std::size_t i = 0; i < parallax.size(); ++i)
            ASSERT_EQ(has_parallax(cleaned[i]),
                      has_parallax(parallax[i]) && expected.sizes[static_cast<std::size_t>(expected.label[i])] >= 9)
                << i;
    }
}

/// A near square before a wall, each with its own parallax; the field knows the wall right up to the square's middle.
struct SquareScene {
    static constexpr int W = 160, H = 120, SAMPLE = 2, NEAR = 18, FAR = 6;
    GreyImage left{W, H}, right{W, H};
    Mask cover{W, H, 1};
    ParallaxField field;

    static bool is_near(int x, int y) { return x >= 60 && x < 110 && y >= 30 && y < 90; }
    SquareScene() {
        const GreyImage wall = noise_image(W + 40, H, 21, 4), square = noise_image(W + 40, H, 22, 4);
        for (int y = 0; y < H; ++y) {
            for (int x = 0; x < W; ++x) {
                left.at(x, y) = is_near(x, y) ? square.at(x, y) : wall.at(x, y);
                const int behind = std::clamp(x - FAR, 0, W - 1);
                right.at(x, y) = is_near(x - NEAR, y) ? square.at(x - NEAR, y) : wall.at(behind, y);
            }
        }
        field.assign(W / SAMPLE, H / SAMPLE);
        for (int y = 4; y < H / SAMPLE - 4; ++y)
            for (int x = 4; x < W / SAMPLE - 12; ++x)
                field.parallax.at(x, y) =
                    static_cast<float>(x * SAMPLE >= 66 && is_near(x * SAMPLE, y * SAMPLE) ? NEAR : FAR);
    }
    EdgeTask task() const { return {left, right, cover, cover, SAMPLE}; }
};

TEST(MatchingStages, EdgesSettleWhereTheImagesSay) {
    SquareScene scene;
    const ParallaxField before = scene.field;
    const EdgeSearch once{7, 1, 0.75F, -5.0F, 40.0F};
    settle_edges(scene.task(), once, 2, scene.field);
    // Every slot has the facet of what was around it that correlates best, by the plain score.
    int moved = 0;
    for (int y = 0; y < 60; ++y)
        for (int x = 0; x < 80; ++x) {
            const float now = scene.field.parallax.at(x, y), then = before.parallax.at(x, y);
            if (!has_parallax(now) || now == then) continue;
            ++moved;
            const auto score = Plain::window_score(scene.task(), 7, x, y, Vector3d(now, 0, 0));
            ASSERT_TRUE(score.has_value());
            for (const int other : {SquareScene::NEAR, SquareScene::FAR}) {
                if (static_cast<float>(other) == now) continue;
                const bool isOffered = has_parallax(then) && static_cast<float>(other) == then;
                const auto rival = Plain::window_score(scene.task(), 7, x, y, Vector3d(other, 0, 0));
                ASSERT_TRUE(!isOffered || *score + 1e-4 >= rival.value_or(0.0)) << x << ' ' << y;
            }
            ASSERT_TRUE(has_parallax(then) || *score >= 0.75 - 1e-4);
        }
    EXPECT_GT(moved, 50);
    settle_edges(scene.task(), {7, 2, 0.75F, -5.0F, 40.0F}, 1, scene.field);
    int right = 0, wrong = 0;
    for (int y = 20; y < 40; ++y)
        for (int x = 20; x < 54; ++x) {  // what lies beyond is hidden from the right camera
            const bool isNear = SquareScene::is_near(x * 2, y * 2);
            ++(scene.field.parallax.at(x, y) == static_cast<float>(isNear ? 18 : 6) ? right : wrong);
        }
    EXPECT_LT(wrong, right / 25);

    trim_edges(scene.task(), 2, 3.0F, 2, scene.field);
    for (int y = 20; y < 40; ++y) {
        EXPECT_FALSE(has_parallax(scene.field.parallax.at(29, y))) << y;
        EXPECT_FALSE(has_parallax(scene.field.parallax.at(30, y))) << y;
        EXPECT_TRUE(has_parallax(scene.field.parallax.at(24, y))) << y;
        EXPECT_TRUE(has_parallax(scene.field.parallax.at(36, y))) << y;
    }
}

TEST(MatchingStages, TrimmingIsThatOfTheDefinition) {
    GreyImage image = noise_image(100, 80, 31, 3);
    for (int y = 20; y < 50; ++y) std::fill_n(image.row(y) + 54, 20, std::uint8_t{90});  // even beside the gap
    for (const int sample : {1, 2}) {
        const Mask cover(100, 80, 1);
        Mask partly(100, 80, 1);
        for (int y = 20; y < 60; ++y) std::fill_n(partly.row(y) + 52, 14, std::uint8_t{0});
        ParallaxField field = slanted_field(100 / sample, 80 / sample, sample, 0.2);
        for (int y = 0; y < 40; ++y)
            for (int x = 0; x < 50; ++x) {
                // Behind the border, in a hole, in a cleft that is too narrow for a gap; other surfaces, far and near.
                if (x >= 44 || (std::abs(x - 20) <= 3 && std::abs(y - 20) <= 3) || (x / 2 == 17 && y < 16))
                    field.parallax.at(x, y) = NO_PARALLAX;
                if (y > 32 && x > 5 && x < 30) field.parallax.at(x, y) += 9.0F;
                if (y < 9 && x < 12) field.parallax.at(x, y) += 1.3F + static_cast<float>(sample);
            }
        for (const Mask* shown : std::initializer_list<const Mask*>{&cover, &partly}) {
            ParallaxField trimmed = field, expected = field;
            trim_edges({image, image, *shown, *shown, sample}, 2, 3.0F, 2, trimmed);
            Plain::trim_edges({image, image, *shown, *shown, sample}, 2, 3.0, expected);
            expect_same_slots(trimmed, expected, "trimmed");
            EXPECT_TRUE(shown == &partly || !has_parallax(trimmed.parallax.at(25, 20)));
        }
    }
}

TEST(MatchingStages, FiltersAreThoseOfTheirDefinitions) {
    std::mt19937 random(17);
    ParallaxField field = slanted_field(83, 61, 2, 0.35);
    for (std::size_t i = 0; i < field.parallax.size(); ++i) {
        field.score[i] = 1.0F - static_cast<float>(random() % 1000) / 10000.0F;
        if (random() % 7 == 0) field.parallax[i] += static_cast<float>(random() % 9) - 4.0F;
        if (i % 83 > 66 && random() % 5 != 0) field.parallax[i] = NO_PARALLAX;
    }
    const DoubtLimits doubt{0.92F, 0.96F, 0.5F};
    const struct {
        const char* name;
        std::function<void(ParallaxField&)> fast, plain;
    } filters[] = {{"consistency", [](auto& f) { remove_inconsistent(3, 0.5F, 0.1F, 2, 3, f); },
                    [](auto& f) { Plain::remove_inconsistent(3, 0.5F, 0.1F, 2, f); }},
                   {"consistency beside", [](auto& f) { remove_inconsistent(1, 0.4F, 0.1F, 2, 3, f); },
                    [](auto& f) { Plain::remove_inconsistent(1, 0.4F, 0.1F, 2, f); }},
                   {"doubt", [&](auto& f) { remove_doubtful(doubt, 2, 3, f); },
                    [&](auto& f) { Plain::remove_doubtful(doubt, 2, f); }},
                   {"cells", [](auto& f) { remove_cell_outliers(16, 4.0F, 0.5F, 60, 3, f); },
                    [](auto& f) { Plain::remove_cell_outliers(16, 4.0F, 0.5F, 60, f); }},
                   {"small cells", [](auto& f) { remove_cell_outliers(5, 1.0F, 2.0F, 2, 3, f); },
                    [](auto& f) { Plain::remove_cell_outliers(5, 1.0F, 2.0F, 2, f); }}};
    for (const auto& filter : filters) {
        ParallaxField fast = field, plain = field;
        filter.fast(fast);
        filter.plain(plain);
        expect_same_slots(fast, plain, filter.name);
        const int left = count_slots(fast);
        EXPECT_TRUE(left > 500 && left < count_slots(field) - 50) << filter.name << ' ' << left;
    }
}

TEST(MatchingStages, ReturnMatchIsThatOfTheDefinition) {
    // A pattern that repeats itself: what is a period off correlates as well as the truth.
    constexpr int W = 160, H = 60, TRUTH = 10, PERIOD = 20;
    GreyImage left = noise_image(W, H, 11, 2);
    for (int y = 0; y < H; ++y)
        for (int x = PERIOD; x < W; ++x) left.at(x, y) = left.at(x - PERIOD, y);
    const GreyImage right = shifted(left, TRUTH);
    Mask cover(W, H, 1);
    for (int y = 0; y < H; ++y) std::fill_n(cover.row(y), 4, std::uint8_t{0});
    std::mt19937 random(18);
    const auto below = [&](unsigned end) { return static_cast<int>(random() % end); };
    int removed = 0;
    for (int scene = 0; scene < 6; ++scene) {
        ParallaxField field;
        field.assign(W, H);
        for (int piece = 0; piece < 40; ++piece) {
            const int x0 = below(W - 30), y0 = below(H - 15), width = 3 + below(27), height = 2 + below(13);
            const auto parallax = static_cast<float>(TRUTH + PERIOD * (below(3) - 1) + (below(5) == 0 ? 6 : 0));
            const float slope = static_cast<float>(below(3) - 1) * 0.4F, score = static_cast<float>(below(100)) * 0.01F;
            for (int y = y0; y < y0 + height; ++y)
                for (int x = x0; x < x0 + width; ++x) {
                    field.parallax.at(x, y) = parallax;
                    field.slopeX.at(x, y) = slope;
                    field.score.at(x, y) = score + static_cast<float>(below(9)) * 0.001F;
                }
        }
        const VerifyTask task{left, right, 1, 7, 7, -24, 42, cover, 1.0F};
        ParallaxField fast = field, plain = field;
        right_to_left_to_vertify_match(task, 16, 2, 2, fast);
        Plain::return_match(task, 16, 2, plain);
        expect_same_slots(fast, plain, "scene " + std::to_string(scene));
        EXPECT_GT(count_slots(fast), 500);
        removed += count_slots(field) - count_slots(fast);
    }
    EXPECT_GT(removed, 5000);
}

TEST(MatchingStages, ReturnMatchRemovesRepeatedPatterns) {
    constexpr int W = 160, H = 60, TRUTH = 20, FALSE_PARALLAX = -10;
    const GreyImage left = noise_image(W, H, 11, 2), right = shifted(left, TRUTH);
    const Mask cover(W, H, 1);
    ParallaxField field;
    field.assign(W, H);
    for (int y = 0; y < H; ++y)
        for (int x = 5; x < 130; ++x) {
            field.parallax.at(x, y) =
                static_cast<float>(x >= 90 && x < 110 ? TRUTH + 6 : TRUTH);  // wrong by six pixels
            field.score.at(x, y) = 0.9F;
        }
    for (int y = 10; y < 50; ++y)
        for (int x = 145; x < 155; ++x) {  // a strip that claims what belongs to x = 115 .. 125, and correlates better
            field.parallax.at(x, y) = FALSE_PARALLAX;
            field.score.at(x, y) = 0.99F;
        }
    right_to_left_to_vertify_match({left, right, 1, 7, 7, -15, 30, cover, 1.0F}, 16, 2, 2, field);
    EXPECT_FALSE(has_parallax(field.parallax.at(150, 30)));
    EXPECT_TRUE(has_parallax(field.parallax.at(120, 30)));
    EXPECT_TRUE(has_parallax(field.parallax.at(50, 30)));
    EXPECT_FALSE(has_parallax(field.parallax.at(100, 30)));
}

}  // namespace
}  // namespace VexelAlgorithm
