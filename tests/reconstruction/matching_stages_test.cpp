// The matching stages on small images of awkward sizes: those that slide or use vector instructions against plain
// twins, the others against planted faults that they must find, all of them and nothing else.
#include "SpeckleRebCPU/growMatches.h"
#include "SpeckleRebCPU/parallaxFilters.h"
#include "SpeckleRebCPU/pyramid.h"
#include "SpeckleRebCPU/surfaceEdges.h"
#include "SpeckleRebCPU/verifyMatch.h"
#include "SpeckleRebCPU/windowPairs.h"
#include "tests/common.h"
#include "tests/reconstruction/plainStages.h"
#include "tests/reconstruction/testImages.h"
#include "trials/finePair.h"

namespace VexelAlgorithm {
namespace {

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
        for (int y = 0; y < c.height; ++y)
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

using Slots = std::set<std::pair<int, int>>;

Slots removed_by(const std::function<void(ParallaxField&)>& filter, ParallaxField field) {
    const ParallaxField before = field;
    filter(field);
    Slots removed;
    for (int y = 0; y < field.parallax.height(); ++y)
        for (int x = 0; x < field.parallax.width(); ++x)
            if (has_parallax(before.parallax.at(x, y)) && !has_parallax(field.parallax.at(x, y))) removed.emplace(x, y);
    return removed;
}

TEST(MatchingStages, SubPixelStepsAreThoseOfSingleWindows) {
    for (const int sample : {1, 2, 3}) {
        GreyImage left = noise_image(95, 53, 9, 3), right = shifted(left, 6);
        for (GreyImage* image : {&left, &right})  // clipped patches, not the same in both
            for (int y = 10; y < 30; ++y) std::fill_n(image->row(y) + (image == &left ? 50 : 60), 5, std::uint8_t{255});
        const Mask cover = spare_clipped_pixels(unclipped_shares(left, 11, 2), 0.6F, random_mask(95, 53, 10, 95), 2);
        for (int y = 0; y < 53; ++y)
            for (int x = 0; x < 95; ++x) {
                if (cover.at(x, y) == 0) continue;
                double all = 0, unclipped = 0;
                for (int v = std::max(0, y - 5); v <= std::min(52, y + 5); ++v)
                    for (int u = std::max(1, x - 5); u <= std::min(93, x + 5); ++u) {
                        const std::uint8_t* grey = left.row(v) + u;
                        const double square = (grey[1] - grey[-1]) * (grey[1] - grey[-1]);
                        all += square;
                        if (std::max({grey[-1], grey[0], grey[1]}) < CLIPPED_GREY) unclipped += square;
                    }
                ASSERT_EQ(cover.at(x, y), unclipped >= 0.6 * all ? 2 : 1) << x << ' ' << y;
            }
        const ParallaxField field = rough_field(95 / sample, 53 / sample, sample);
        FinePair fine = VexelTrial::fine_pair(left, right);
        for (std::size_t i = 0; i < fine.left.size(); ++i)  // quarters, which bytes do not have
            fine.left[i] = static_cast<std::int16_t>(fine.left[i] + 4 * static_cast<int>(i % 11) - 20);
        const SubPixelTask task{left, right, fine, cover, sample, 11, 7, 0.7F};
        Raster<float> step, score, other;
        find_sub_pixel_steps(task, field, 1, step, score);
        find_sub_pixel_steps(task, field, 3, other, score);
        int compared = 0;
        for (int y = 0; y < step.height(); ++y)
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
        EXPECT_GT(compared, step.width() * step.height() / 3);
    }
}

TEST(MatchingStages, SumsOverPairsAreThoseOfTheirDefinition) {
    const GreyImage left = noise_image(41, 23, 51), right = noise_image(41, 23, 52);
    const Mask leftCover = random_mask(41, 23, 53, 90), rightCover = random_mask(41, 23, 54, 95);
    const WindowTask task{left, right, &leftCover, &rightCover, 13, 7};
    for (int y = 0; y < 23; y += 2)
        for (int x = 0; x < 41; ++x) {
            const WindowFacet facet{x, y, 0.3719F * static_cast<float>(x % 7) - 1.0031F, 0.2137F, -0.1319F};
            double n = 0, f = 0, g = 0, d = 0, fg = 0, gd = 0;
            for (int v = std::max(0, y - 3); v <= std::min(22, y + 3); ++v)
                for (int u = std::max(0, x - 6); u <= std::min(40, x + 6); ++u) {
                    const double position = u + facet.parallax + facet.slopeX * (u - x) + facet.slopeY * (v - y);
                    const int c = static_cast<int>(position);
                    if (position < 0 || position >= 40 || leftCover.at(u, v) == 0 || rightCover.at(c, v) == 0 ||
                        rightCover.at(c + 1, v) == 0)
                        continue;
                    const double own = 4.0 * (left.at(u, v) - 128), slope = right.at(c + 1, v) - right.at(c, v);
                    const double other = 4.0 * (right.at(c, v) - 128 + (position - c) * slope);
                    n += 1, f += own, g += other, d += slope, fg += own * other, gd += other * slope;
                }
            const PairSums sums = sum_pairs(task, facet, true), grey = sum_pairs(task, facet, false);
            ASSERT_NEAR(sums.count, n, 0);
            ASSERT_NEAR(sums.f, f, 0);
            ASSERT_NEAR(sums.g, g, 0.5 * n + 0.1);  // rounded
            ASSERT_NEAR(sums.d, d, 0);
            ASSERT_NEAR(sums.fg, fg, 260 * n);
            ASSERT_NEAR(sums.gd, gd, 130 * n);
            ASSERT_TRUE(grey.count == sums.count && grey.gg == sums.gg && grey.fg == sums.fg && grey.ff == sums.ff);
        }
}

TEST(MatchingStages, MatchesGrowOverASlantAndStopAtItsEnds) {
    // A slanted surface: the right image is the left one, stretched; noise in a corner.
    constexpr int W = 90, H = 50;
    const GreyImage left = noise_image(W, H, 12, 3), noise = noise_image(W, H, 14);
    GreyImage right(W, H);
    const auto parallax_at = [](double x, int y) { return 3.0 + 0.2 * (x - 45) + 0.05 * (y - 25); };
    for (int y = 0; y < H; ++y)
        for (int c = 0; c < W; ++c) {
            const double x = std::clamp((c - 3.0 + 9.0 - 0.05 * (y - 25)) / 1.2, 0.0, W - 1.001);
            const int column = static_cast<int>(x);
            const double t = x - column;
            right.at(c, y) = static_cast<std::uint8_t>((1 - t) * left.at(column, y) + t * left.at(column + 1, y) + 0.5);
            if (c < 35 && y > 34) right.at(c, y) = noise.at(c, y);
        }
    const Mask mask = random_mask(W, H, 13, 97);
    Raster<float> seeds(W, H, NO_PARALLAX), first;
    for (int y = 15; y < 30; ++y)  // a band that tells the slopes apart only together
        for (int x = y + 20; x < y + 23; ++x) seeds.at(x, y) = static_cast<float>(parallax_at(x, y));
    for (const int threads : {1, 3}) {
        Raster<float> grown = seeds, score(W, H);
        grow_matches({left, right, mask, 9, 7, -4.0F, 9.0F, 0.6F}, threads, grown, score);
        int matched = 0, missed = 0;
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                const double truth = parallax_at(x, y);
                const bool isNoise = x + truth < 40 && y > 28, isSeed = has_parallax(seeds.at(x, y));
                const bool isMatched = has_parallax(grown.at(x, y));
                const bool isInside = x > 5 && y > 3 && y < H - 4 && x + truth < 83 && truth > -3.8 && truth < 8.8;
                matched += isMatched;
                missed += isInside && !isNoise && mask.at(x, y) != 0 && !isMatched;
                if (!isMatched || isSeed) continue;
                ASSERT_TRUE(isNoise || std::abs(grown.at(x, y) - truth) < 0.3) << x << ' ' << y;
                ASSERT_TRUE(mask.at(x, y) != 0 && grown.at(x, y) >= -4.0F && grown.at(x, y) < 9.0F);
                ASSERT_TRUE(score.at(x, y) >= 0.6F && !(x + truth < 30 && y > 38)) << x << ' ' << y;
            }
        EXPECT_GT(matched, W * H / 3);
        EXPECT_LT(missed, 20);
        if (threads == 1) first = grown;
        for (std::size_t i = 0; i < grown.size(); ++i)
            ASSERT_TRUE(grown[i] == first[i] || (!has_parallax(grown[i]) && !has_parallax(first[i]))) << "threads";
    }
}

TEST(MatchingStages, FacetsAreThoseOfSingleFits) {
    for (const FacetFit& fit : {FacetFit{3, 1, 1.8F, 0.5F, 0.1F, 0.05F}, {2, 3, 1e9F, 0.8F, 0.0F, 0.2F}}) {
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

TEST(MatchingStages, SlopesAreThoseOfWideFacetsUnlessTheseLeaveMoreThanNoise) {
    ParallaxField field = slanted_field(60, 40, 2, 0.02);
    for (int y = 0; y < 40; ++y)  // a ridge
        for (int x = 30; x < 60; ++x) field.parallax.at(x, y) -= 0.5F * static_cast<float>(x - 30);
    const FacetFit wide{3, 2, 1e9F, 0.5F, 0.1F, 0.05F}, narrow{1, 1, 1e9F, 0.5F, 0.1F, 0.05F};
    const ParallaxField before = field;
    smooth_slopes(wide, narrow, 0.05F, 2, 3, field);
    const auto error = [&](int x0, int x1, const ParallaxField& found) {
        double squares = 0.0;
        int count = 0;
        for (int y = 8; y < 32; ++y)
            for (int x = x0; x < x1; ++x)
                if (has_parallax(found.parallax.at(x, y))) {
                    squares += std::pow(found.slopeX.at(x, y) - (x < 30 ? 0.15 : -0.1), 2);
                    ++count;
                }
        return std::sqrt(squares / count);
    };
    ParallaxField wideOnly = before, narrowOnly = before;
    fit_facets(wide, 2, 2, wideOnly);
    fit_facets(narrow, 2, 2, narrowOnly);
    EXPECT_LT(error(8, 22, field), 1.2 * error(8, 22, wideOnly));
    EXPECT_LT(error(8, 22, field), 0.3 * error(8, 22, narrowOnly));
    EXPECT_LT(error(27, 29, field), 0.7 * error(27, 29, wideOnly));
    for (std::size_t i = 0; i < before.parallax.size(); ++i)
        ASSERT_TRUE(field.parallax[i] == before.parallax[i] || !has_parallax(before.parallax[i]));
}

TEST(MatchingStages, SmallRegionsAreThoseOfAFlood) {
    for (const unsigned seed : {1U, 2U, 3U}) {
        std::mt19937 random(seed);
        Raster<float> parallax(61, 147, NO_PARALLAX);  // several bands
        for (std::size_t i = 0; i < parallax.size(); ++i)
            if (random() % 3 != 0) parallax[i] = static_cast<float>(random() % 4);
        for (const int first : {60, 124})  // nine slots, of two bands
            for (int y = first; y < first + 9; ++y) parallax.at(30, y) = 9.0F;
        const ParallaxRegions expected = Plain::regions(1.0F, parallax);
        Raster<float> cleaned = parallax;
        remove_small_regions(9, 1.0F, 3, cleaned);
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
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x) {
                left.at(x, y) = is_near(x, y) ? square.at(x, y) : wall.at(x, y);
                const int behind = std::clamp(x - FAR, 0, W - 1);
                right.at(x, y) = is_near(x - NEAR, y) ? square.at(x - NEAR, y) : wall.at(behind, y);
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
    settle_edges(scene.task(), {7, 1, 1.01F, -5.0F, 40.0F}, 2, scene.field);
    for (std::size_t i = 0; i < before.parallax.size(); ++i)  // nothing correlates well enough to fill empty slots
        ASSERT_EQ(has_parallax(scene.field.parallax[i]), has_parallax(before.parallax[i]));
    scene.field = before;
    for (int y = 0; y < 120; ++y) {  // what less than half of a window shows is not judged
        std::fill_n(scene.cover.row(y), 14, std::uint8_t{0});
        if (y < 60) scene.field.parallax.at(6, y) = scene.field.parallax.at(7, y) = NO_PARALLAX;
    }
    settle_edges(scene.task(), {7, 2, 0.75F, -5.0F, 40.0F}, 1, scene.field);
    int right = 0, wrong = 0;
    for (int y = 20; y < 40; ++y)
        for (int x = 20; x < 54; ++x) {  // what lies beyond is hidden from the right camera
            const bool isNear = SquareScene::is_near(x * 2, y * 2);
            ++(scene.field.parallax.at(x, y) == static_cast<float>(isNear ? 18 : 6) ? right : wrong);
        }
    EXPECT_LT(wrong, right / 25);
    EXPECT_TRUE(!has_parallax(scene.field.parallax.at(6, 30)) && has_parallax(scene.field.parallax.at(7, 30)));

    trim_edges(scene.task(), 2, 3.0F, 2, scene.field);
    for (int y = 20; y < 40; ++y) {
        EXPECT_FALSE(has_parallax(scene.field.parallax.at(29, y))) << y;
        EXPECT_FALSE(has_parallax(scene.field.parallax.at(30, y))) << y;
        EXPECT_TRUE(has_parallax(scene.field.parallax.at(24, y))) << y;
        EXPECT_TRUE(has_parallax(scene.field.parallax.at(36, y))) << y;
    }
}

TEST(MatchingStages, TrimmingTakesTwoSlotsAtGapsAndStepsAndMoreWhereTheImageIsEven) {
    constexpr int W = 50, H = 40, SAMPLE = 2, NOTHING = -9;
    struct Block {
        int x0, x1, y0, y1;
        float parallax;
        int loses;  // slots around it; inside as many, where it is a step
    };
    const Block blocks[] = {{8, 12, 8, 12, NO_PARALLAX, 2},         // a hole
                            {20, 21, 4, 16, NO_PARALLAX, NOTHING},  // a cleft, too narrow for a gap
                            {30, 34, 8, 12, NO_PARALLAX, NOTHING},  // a hole where the left camera sees nothing
                            {42, 44, 8, 12, NO_PARALLAX, NOTHING},  // the same for the right one
                            {8, 16, 25, 33, 14.0F, 2},              // nearer
                            {22, 28, 25, 31, 7.5F, NOTHING},        // nearer by less than a step
                            {40, 42, 25, 27, NO_PARALLAX, 5}};      // a hole in an even part: three rounds more
    GreyImage image = noise_image(W * SAMPLE, H * SAMPLE, 31, 3);
    for (int y = 38; y < 68; ++y) std::fill_n(image.row(y) + 68, 32, std::uint8_t{90});
    Mask left(W * SAMPLE, H * SAMPLE, 1), right = left;
    for (int y = 16; y < 26; ++y) {
        std::fill_n(left.row(y) + 60, 10, std::uint8_t{0});
        std::fill_n(right.row(y) + 84, 16, std::uint8_t{0});
    }
    ParallaxField field;
    field.assign(W, H);
    std::fill_n(field.parallax.data(), field.parallax.size(), 5.0F);
    Slots expected;
    for (const Block& b : blocks)
        for (int y = b.y0 - 5; y <= b.y1 + 5; ++y)
            for (int x = b.x0 - 5; x <= b.x1 + 5; ++x) {
                const int outside = std::max({b.x0 - x, x - b.x1, b.y0 - y, y - b.y1});  // 0 and below: inside
                const bool isHole = !has_parallax(b.parallax);
                if (outside <= 0 && y < H && x < W) field.parallax.at(x, y) = b.parallax;
                if (outside <= b.loses && outside > (isHole ? 0 : -2) && y < H && x < W) expected.emplace(x, y);
            }
    const auto trim = [&](ParallaxField& f) { trim_edges({image, image, left, right, SAMPLE}, 2, 3.0F, 2, f); };
    EXPECT_EQ(removed_by(trim, field), expected);
}

TEST(MatchingStages, FiltersRemoveWhatIsWrongAndNothingElse) {
    ParallaxField field;
    field.assign(64, 48);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            field.parallax.at(x, y) = static_cast<float>(4.0 + 0.3 * x - 0.1 * y + (x < 32 ? 0 : 15));
            field.slopeX.at(x, y) = 0.15F, field.slopeY.at(x, y) = -0.05F, field.score.at(x, y) = 1.0F;
        }
    const auto clear_around = [](ParallaxField& f, int x, int y, int inner, int outer) {
        for (int v = y - outer; v <= y + outer; ++v)
            for (int u = x - outer; u <= x + outer; ++u)
                if (std::max(std::abs(u - x), std::abs(v - y)) > inner) f.parallax.at(u, v) = NO_PARALLAX;
    };
    ParallaxField consistent = field;  // half a pixel, and 0.2 for every slot of distance
    consistent.parallax.at(20, 20) += 1.5F;
    consistent.parallax.at(12, 20) -= 0.6F;  // not beyond
    consistent.slopeX.at(12, 8) = -0.5F;
    consistent.slopeY.at(24, 8) = -0.7F;
    clear_around(consistent, 48, 24, 1, 4);  // nine slots alone, of 49
    const auto with_nine = [](Slots slots, int x, int y) {
        for (int k = 0; k < 9; ++k) slots.emplace(x - 1 + k % 3, y - 1 + k / 3);
        return slots;
    };
    EXPECT_EQ(removed_by([](auto& f) { remove_inconsistent(3, 0.5F, 0.1F, 2, 3, f); }, consistent),
              with_nine({{20, 20}, {12, 8}, {24, 8}}, 48, 24));

    ParallaxField steep = field;  // 0.3 pixels a slot, and not more than 1
    steep.parallax.at(18, 31) += 0.6F;
    steep.parallax.at(20, 30) -= 1.2F;
    steep.parallax.at(20, 29) = steep.parallax.at(21, 30) = NO_PARALLAX;
    steep.parallax.at(45, 40) = NO_PARALLAX;
    steep.parallax.at(47, 40) += 0.8F;
    steep.parallax.at(43, 30) += 0.8F;  // far from all gaps
    steep.parallax.at(63, 2) = NO_PARALLAX;
    steep.parallax.at(61, 0) -= 1.5F;  // its neighbour in the row is too far from the gap
    EXPECT_EQ(removed_by([](auto& f) { remove_steep_rims(0.5F, 2, 2, 3, f); }, steep),
              (Slots{{20, 30}, {20, 31}, {46, 40}, {47, 40}, {61, 0}, {61, 1}, {62, 0}}));

    ParallaxField doubtful = field;
    for (int x = 31; x < 33; ++x)
        for (int y = 0; y < 48; ++y) doubtful.score.at(x, y) = 0.97F;  // disputed, but not doubtful
    const struct {
        int x, y;
        float score, off;
    } doubts[] = {{5, 5, 0.91F, 0},     {10, 5, 0.95F, 0},     {15, 5, 0.95F, 0.6F},
                  {20, 5, 0.97F, 0.6F}, {10, 20, 0.95F, 0.6F}, {20, 20, 0.95F, 1.1F},
                  {40, 5, 0.93F, 0},    {40, 20, 0.93F, 0.4F}, {50, 20, 0.93F, 0}};
    for (const auto& d : doubts) {
        doubtful.score.at(d.x, d.y) = d.score;
        doubtful.parallax.at(d.x, d.y) += d.off;
        if (d.y == 20)  // its neighbours are two slots away
            for (const auto& [dx, dy] : {std::pair(1, 0), {-1, 0}, {0, 1}, {0, -1}})
                doubtful.parallax.at(d.x + dx, d.y + dy) = NO_PARALLAX;
    }
    const DoubtLimits limits{0.92F, 0.96F, 0.5F, 0.94F, 0.15F};
    EXPECT_EQ(removed_by([&](auto& f) { remove_doubtful(limits, 2, 3, f); }, doubtful),
              (Slots{{5, 5}, {15, 5}, {20, 20}, {40, 20}}));

    ParallaxField rim = field;  // 0.25 pixels, at gaps of flat surrounds
    for (int x = 8; x < 24; ++x) rim.parallax.at(x, 20) = NO_PARALLAX;
    for (const auto& [x, y, off] : {std::tuple(10, 17, 0.3F), {12, 17, -0.2F}, {14, 16, 0.3F}, {13, 23, -0.3F}})
        rim.parallax.at(x, y) += off;
    for (int y = 0; y < 48; ++y)
        for (int x = 32; x < 64; ++x) rim.parallax.at(x, y) += 0.02F * static_cast<float>((x - 48) * (x - 48));
    rim.parallax.at(48, 30) = NO_PARALLAX;
    rim.parallax.at(48, 32) += 0.5F;
    EXPECT_EQ(removed_by(
                  [](auto& f) {
                      remove_rim_outliers({3, 8, 5.0F, 0.25F, 0.1F}, 16, 3, f);
                  },
                  rim),
              (Slots{{10, 17}, {13, 23}}));

    ParallaxField cells = field;  // of 16 slots: limits of 0.5 above, and of 4 * 1.4826 * 0.2 below
    for (int y = 16; y < 48; ++y)
        for (int x = 0; x < 64; ++x) cells.parallax.at(x, y) += (x + y) % 2 == 0 ? 0.2F : -0.2F;
    cells.parallax.at(5, 5) += 0.45F;
    cells.parallax.at(20, 5) += 0.6F;
    cells.parallax.at(5, 24) += 0.8F;
    cells.parallax.at(22, 24) += 1.2F;
    clear_around(cells, 55, 39, 1, 7);
    for (int y = 32; y < 48; ++y) cells.parallax.at(63, y) = NO_PARALLAX;
    Slots expected = with_nine({{20, 5}, {22, 24}}, 55, 39);  // and what else a sparse cell has
    for (int x = 48; x < 63; ++x) expected.emplace(x, 47);
    EXPECT_EQ(removed_by([](auto& f) { remove_cell_outliers(16, 4.0F, 0.5F, 60, 3, f); }, cells), expected);
}

TEST(MatchingStages, ReturnMatchRemovesWhatContradictsTheTruth) {
    // A pattern that repeats itself: what is a period off correlates as well as the truth.
    constexpr int W = 160, H = 60, TRUTH = 20, PERIOD = 30;
    GreyImage left = noise_image(W, H, 11, 2);
    for (int y = 0; y < H; ++y)
        for (int x = PERIOD; x < W; ++x) left.at(x, y) = left.at(x - PERIOD, y);
    const GreyImage right = shifted(left, TRUTH);
    const Mask cover(W, H, 1);
    ParallaxField field;
    field.assign(W, H);
    const auto fill = [&](int x0, int x1, int y0, int y1, int parallax, float score) {
        for (int y = y0; y < y1; ++y)
            for (int x = x0; x < x1; ++x) {
                field.parallax.at(x, y) = static_cast<float>(parallax);
                field.score.at(x, y) = score;
            }
    };
    fill(5, 100, 0, 50, TRUTH, 0.9F);
    fill(30, 50, 20, 50, TRUTH + 6, 0.9F);          // wrong by six pixels
    fill(104, 114, 20, 50, TRUTH - PERIOD, 0.99F);  // claims what belongs to x = 74 .. 83, and correlates better
    fill(122, 158, 4, 14, TRUTH - PERIOD, 0.99F);   // the same of x = 92 .. 99, but most of it may be right
    fill(6, 14, 51, 60, TRUTH, 0.9F);               // true, but its partner might be beyond the left border
    fill(60, 80, 51, 60, TRUTH, 0.9F);
    right_to_left_to_vertify_match({left, right, 1, 7, 7, -15, 22, cover, 1.0F}, 16, 2, 2, field);
    const struct {
        int x, y;
        bool stays;
    } slots[] = {{20, 30, true}, {40, 30, false}, {78, 30, true}, {109, 30, false}, {88, 9, true}, {96, 9, false},
                 {126, 9, true}, {150, 9, true},  {96, 30, true}, {10, 55, false},  {70, 55, true}};
    for (const auto& slot : slots)
        EXPECT_EQ(has_parallax(field.parallax.at(slot.x, slot.y)), slot.stays) << slot.x << ' ' << slot.y;
}

}  // namespace
}  // namespace VexelAlgorithm
