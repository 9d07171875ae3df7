// The fit of a whole surface: its parts against plain twins, the whole against planted shapes.
#include <Eigen/SparseCholesky>

#include "SpeckleRebCPU/wholeSurfaceFit.h"
#include "tests/common.h"
#include "tests/reconstruction/plainStages.h"
#include "tests/reconstruction/testImages.h"
#include "trials/finePair.h"

namespace VexelAlgorithm {
namespace {

using VexelTest::with_every_instruction_set;

constexpr int STRIDE = 64;

/// What the right image is blurred more than the left one, as a spot that is round there is not here.
double slant_blur(const SubPixelTask& task, const ParallaxField& field, int x, int y) {
    const Plain::Seen seen = *Plain::seen_at(task, field, x, y);
    Eigen::Matrix2d toRight;
    toRight << 1 + std::clamp(seen.slope[0], -0.5, 1.0), std::clamp(seen.slope[1], -1.0, 1.0), 0, 1;
    const Eigen::Matrix2d spot = 0.45 * (toRight.transpose() * toRight).inverse();
    const auto grey = [&](int dx, int dy) -> double {
        return task.left.at(std::clamp(x + dx, 0, task.left.width() - 1),
                            std::clamp(y + dy, 0, task.left.height() - 1));
    };
    const double mixed = (grey(1, 1) + grey(-1, -1) - grey(1, -1) - grey(-1, 1)) / 4;
    return 0.5 * (spot(0, 0) - 0.45) * 4 * Plain::second_difference(task.left, x, y, true) + spot(0, 1) * mixed +
           0.5 * (spot(1, 1) - 0.45) * 4 * Plain::second_difference(task.left, x, y, false);
}

TEST(WholeSurface, EvidenceIsThatOfThePairsAroundEachSlot) {
    for (const int sample : {1, 2, 3}) {
        const int width = 93, height = 41;
        GreyImage left = noise_image(width, height, 11, 3), right = shifted(left, 6);
        for (int y = 5; y < 20; ++y) std::fill_n(right.row(y) + 40, 6, std::uint8_t{245});
        Mask counted = random_mask(width, height, 12, 95);
        for (std::size_t i = 0; i < counted.size(); i += 3) counted[i] = static_cast<std::uint8_t>(2 * counted[i]);
        for (int y = 25; y < 35; ++y) std::fill_n(left.row(y) + 20, 4, std::uint8_t{250});
        const Mask cover = without_clipped(left, counted, 240, 2);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                int brightest = 0;
                for (int v = std::max(0, y - 1); v <= std::min(height - 1, y + 1); ++v)
                    for (int u = std::max(0, x - 1); u <= std::min(width - 1, x + 1); ++u)
                        brightest = std::max<int>(brightest, left.at(u, v));
                const int own = counted.at(x, y);
                ASSERT_EQ(cover.at(x, y), own == 2 && brightest >= 240 ? 0 : own) << x << ' ' << y;
            }
        const ParallaxField field = rough_field(width / sample, height / sample, sample);
        FinePair fine = VexelTrial::fine_pair(left, right);
        for (std::size_t i = 0; i < fine.left.size(); ++i)  // quarters, which bytes do not have
            fine.left[i] = static_cast<std::int16_t>(fine.left[i] + 4 * static_cast<int>(i % 11) - 20);
        const SubPixelTask task{left, right, fine, cover, sample, 11, 7, 0.7F, 240};
        SecondDifferences differences;
        find_second_differences(left, STRIDE, 2, differences);
        ImageRelation relation;
        relation.blurX = Raster<float>(2 * STRIDE / 8, 6), relation.blurY = relation.blurX;
        relation.offset = 2.5F;
        for (std::size_t i = 0; i < relation.blurX.size(); ++i)
            relation.blurX[i] = 0.01F * static_cast<float>(i), relation.blurY[i] = -0.3F;
        Raster<float> gain(field.parallax.width(), field.parallax.height());
        for (int y = 0; y < gain.height(); ++y)
            for (int x = 0; x < gain.width(); ++x)
                gain.at(x, y) = 0.8F + 0.001F * static_cast<float>(x) + 0.01F * static_cast<float>(y);
        with_every_instruction_set([&] {
            PairedImage paired;
            SlotEvidence evidence;
            pair_images(task, differences, field, 2, paired);
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x) {
                    const std::optional<Plain::Pair> pair = Plain::pair_at(task, field, x, y);
                    const double expected = pair ? pair->g - slant_blur(task, field, x, y) : 0.0;
                    ASSERT_NEAR(paired.right.at(x, y) / 4.0, expected, 0.35) << sample << ": " << x << ' ' << y;
                }
            gather_evidence({paired, differences, relation, gain, sample, 12.0F}, 2, evidence);
            for (int y = 0; y < gain.height(); ++y)
                for (int x = 0; x < gain.width(); ++x) {
                    Eigen::Matrix2d normal = Eigen::Matrix2d::Zero();
                    Eigen::Vector2d rest = Eigen::Vector2d::Zero();
                    for (int v = y * sample - sample + 1; v < (y + 1) * sample; ++v)
                        for (int u = x * sample - sample + 1; u < (x + 1) * sample; ++u) {
                            const std::optional<Plain::Pair> pair = Plain::pair_at(task, field, u, v);
                            if (!pair) continue;
                            const double target =
                                pair->g - slant_blur(task, field, u, v) - 2.5 -
                                relation.blurX.at(u / 8, v / 8) * Plain::second_difference(left, u, v, true) -
                                relation.blurY.at(u / 8, v / 8) * Plain::second_difference(left, u, v, false);
                            const float own = gain.at(std::min((u + sample / 2) / sample, gain.width() - 1),
                                                      std::min((v + sample / 2) / sample, gain.height() - 1));
                            const double misfit = (own * pair->f - target) / 12.0;
                            const double weight = (1 - std::abs(u - x * sample) / double(sample)) *
                                                  (1 - std::abs(v - y * sample) / double(sample)) /
                                                  (std::max(1.0, pair->f / 80) + misfit * misfit);
                            const Eigen::Vector2d row(-pair->d, pair->f);
                            normal += weight * row * row.transpose();
                            rest += weight * target * row;
                        }
                    const double scale = 0.03 * (normal(1, 1) + 100.0);  // of grey values, rounded twice
                    ASSERT_NEAR(evidence.stepStep.at(x, y), normal(0, 0), scale) << sample << ": " << x << ' ' << y;
                    ASSERT_NEAR(evidence.stepGain.at(x, y), normal(0, 1), scale) << sample << ": " << x << ' ' << y;
                    ASSERT_NEAR(evidence.gainGain.at(x, y), normal(1, 1), scale);
                    ASSERT_NEAR(evidence.step.at(x, y), rest[0], scale);
                    ASSERT_NEAR(evidence.gain.at(x, y), rest[1], scale);
                }
        });
    }
}

TEST(WholeSurface, RelationOfImagesThatDifferByGainOffsetAndBlur) {
    const GreyImage left = noise_image(128, 64, 21, 2);
    SecondDifferences differences;
    find_second_differences(left, STRIDE, 1, differences);
    PairedImage paired;
    for (auto* image : {&paired.left, &paired.right, &paired.slope}) image->assign(128, 64);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 128; ++x) {
            if (x >= 64 && x < 96) continue;  // nothing seen
            const double u = Plain::second_difference(left, x, y, true);
            const double grey = 5.0 + 0.7 * left.at(x, y) + 0.4 * u;
            paired.left.at(x, y) = static_cast<std::int16_t>(4 * left.at(x, y));
            const double noise = (x * 53 + y * 29) % 2 == 0 ? 1.5 : -1.5;
            paired.right.at(x, y) = static_cast<std::int16_t>(std::lround(4.0 * (grey + noise)));
            paired.slope.at(x, y) = static_cast<std::int16_t>((x * 37 + y * 11) % 41 - 20);
        }
    with_every_instruction_set([&] {
        const ImageRelation relation = relate_images(paired, differences, 0.0F, 2);
        EXPECT_NEAR(relation.offset, 5.0, 0.1);
        EXPECT_NEAR(relation.misfit, 1.5, 0.1);
        EXPECT_NEAR(relation.gain.at(3, 3), 0.7, 0.002);
        EXPECT_NEAR(relation.blurX.at(3, 3), 0.4, 0.02);
        EXPECT_NEAR(relation.blurY.at(3, 3), 0.0, 0.02);
        EXPECT_NEAR(relation.gain.at(10, 3), 0.7, 0.002) << "nothing to go by but the others";
        EXPECT_LT(relate_images(paired, differences, 1e4F, 2).blurX.at(3, 3), 0.1) << "shrunk";
    });
}

/// The minimum that the solver looks for, by a direct factorisation.
struct PlainSurface {
    Eigen::VectorXd step, gain;
};
PlainSurface minimum(const SlotEvidence& evidence, const SurfacePrior& prior, const Raster<float>& parallax) {
    const int width = parallax.width(), height = parallax.height(), n = width * height;
    std::vector<Eigen::Triplet<double>> entries;
    Eigen::VectorXd right = Eigen::VectorXd::Zero(2 * n);
    const auto at = [&](int x, int y) -> double { return parallax.contains(x, y) ? parallax.at(x, y) : NAN; };
    const auto is_near = [&](double a, double b) { return std::abs(a - b) <= prior.jump; };
    const double variance = prior.noise * prior.noise;
    const auto add = [&](const std::vector<std::pair<int, double>>& term, double weight, double target) {
        for (const auto& [i, a] : term) {
            for (const auto& [k, b] : term) entries.emplace_back(i, k, weight * a * b);
            right[i] += weight * a * target;
        }
    };
    const auto add_bend = [&](const std::vector<std::pair<int, double>>& term, double bend, double share) {
        if (std::abs(bend) > prior.kink) return;
        const double weight = share / (prior.bend * prior.bend) / std::hypot(1.0, bend / prior.crease);
        add(term, weight, -bend);
    };
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int i = y * width + x;
            const double own = at(x, y), behind = at(x + 1, y), below = at(x, y + 1), corner = at(x + 1, y + 1);
            if (std::isnan(own)) {
                add({{i, 1.0}}, 1.0, 0.0), add({{n + i, 1.0}}, 1.0, 0.0);
                continue;
            }
            const auto k = static_cast<std::size_t>(i);
            entries.emplace_back(i, i, evidence.stepStep[k] / variance);
            entries.emplace_back(i, n + i, evidence.stepGain[k] / variance);
            entries.emplace_back(n + i, i, evidence.stepGain[k] / variance);
            entries.emplace_back(n + i, n + i, evidence.gainGain[k] / variance);
            right[i] += evidence.step[k] / variance, right[n + i] += evidence.gain[k] / variance;
            const double before = at(x - 1, y), above = at(x, y - 1);
            if (is_near(before, own) && is_near(own, behind))
                add_bend({{i - 1, 1}, {i, -2}, {i + 1, 1}}, before + behind - 2 * own, 1);
            if (is_near(above, own) && is_near(own, below))
                add_bend({{i - width, 1}, {i, -2}, {i + width, 1}}, above + below - 2 * own, 1);
            if (is_near(own, behind) && is_near(own, below) && is_near(corner, behind) && is_near(corner, below))
                add_bend({{i, 1}, {i + 1, -1}, {i + width, -1}, {i + width + 1, 1}}, own + corner - behind - below, 2);
            const double evenness = 1.0 / (prior.gainStep * prior.gainStep);
            if (is_near(own, behind)) add({{n + i, 1}, {n + i + 1, -1}}, evenness, 0);
            if (is_near(own, below)) add({{n + i, 1}, {n + i + width, -1}}, evenness, 0);
        }
    Eigen::SparseMatrix<double> matrix(2 * n, 2 * n);
    matrix.setFromTriplets(entries.begin(), entries.end());
    const Eigen::VectorXd found = Eigen::SimplicialLDLT<Eigen::SparseMatrix<double>>(matrix).solve(right);
    return {found.head(n), found.tail(n)};
}

/// Two slanted surfaces with a jump and a crease, and slots without a parallax.
TEST(WholeSurface, SolvedSurfaceIsTheMinimum) {
    const int width = 140, height = 75;  // several tiles
    std::mt19937 random(31);
    std::normal_distribution<float> noise(0.0F, 1.0F);
    Raster<float> parallax(width, height), gain(width, height);
    SlotEvidence evidence;
    evidence.resize(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const auto u = static_cast<float>(x), v = static_cast<float>(y);
            parallax.at(x, y) = 0.1F * u + 0.3F * std::abs(v - 40.0F) + (x > 70 ? 8.0F : 0.0F) + 0.05F * noise(random);
            gain.at(x, y) = 1.0F;
            const float slope = -12.0F * noise(random), left = 60.0F + 30.0F * std::abs(noise(random));
            const float target = 1.1F * left - slope * 0.2F * noise(random);
            evidence.stepStep.at(x, y) = 4.0F * slope * slope, evidence.stepGain.at(x, y) = slope * left;
            evidence.gainGain.at(x, y) = 4.0F * left * left;
            evidence.step.at(x, y) = slope * target, evidence.gain.at(x, y) = 4.0F * left * target;
            if (random() % 20 == 0 || (x > 20 && x < 30)) parallax.at(x, y) = NO_PARALLAX, gain.at(x, y) = 0.5F;
        }
    SurfacePrior prior{3.0F, 0.065F, 0.015F, 2.1F, 1.5F, 0.02F, 300};
    const PlainSurface expected = minimum(evidence, prior, parallax);
    ASSERT_GT(expected.step.cwiseAbs().maxCoeff(), 0.1);
    parallax.at(100, 60) = VexelTest::kInfinity;  // counts as empty
    const auto largest_error = [&] {
        Raster<float> step, other, found = gain, otherFound = gain;
        solve_surface(evidence, prior, parallax, 3, step, found);
        solve_surface(evidence, prior, parallax, 1, other, otherFound);
        double largest = 0;
        for (std::size_t i = 0; i < step.size(); ++i) {
            EXPECT_EQ(step[i], other[i]);
            EXPECT_EQ(found[i], otherFound[i]);
            const auto k = static_cast<Eigen::Index>(i);
            const int x = static_cast<int>(i) % width, y = static_cast<int>(i) / width;
            if (!(std::abs(parallax[i]) < 1e6F)) {
                EXPECT_EQ(step[i], 0.0F);
                EXPECT_EQ(found[i], gain[i]);
            } else if (std::abs(x - 100) > 8 || std::abs(y - 60) > 8) {
                largest =
                    std::max({largest, std::abs(step[i] - expected.step[k]), std::abs(found[i] - expected.gain[k])});
            }
        }
        return largest;
    };
    with_every_instruction_set([&] { EXPECT_LT(largest_error(), 0.005); });  // what tiles do not see of each other
    prior.iterations = 20;
    EXPECT_LT(largest_error(), 0.1);
}

/// Seen through speckles of a few pixels.
TEST(WholeSurface, FollowsARidgeAndAStepBetweenSurfaces) {
    const int width = 256, height = 96, sample = 2;
    const auto true_parallax = [](double x, double y) {
        return 5.0 + (y > 60 ? 6.0 : 0.0) - 0.25 * std::abs(x - 128.0);
    };
    const auto pattern = [](double x, int y) {
        double sum = 0;
        for (int k = 1; k <= 6; ++k) sum += std::sin(0.31 * k * x + 0.9 * k * k + 0.37 * y * ((k * 5) % 7 - 3));
        return 120.0 + 25.0 * sum;
    };
    GreyImage left(width, height), right(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            left.at(x, y) = static_cast<std::uint8_t>(std::clamp(pattern(x, y), 0.0, 230.0));
            double source = x - 5.0;  // x = source + parallax(source)
            for (int i = 0; i < 60; ++i) source = x - true_parallax(source, y);
            right.at(x, y) = static_cast<std::uint8_t>(std::clamp(0.9 * pattern(source, y), 0.0, 230.0));
        }
    ParallaxField field;
    field.assign(width / sample, height / sample);
    for (int y = 0; y < height / sample; ++y)
        for (int x = 20; x < width / sample - 20; ++x)
            field.parallax.at(x, y) =
                static_cast<float>(true_parallax(sample * x, sample * y) + 0.2 * std::sin(0.4 * x + 0.2 * y));
    const Mask cover(width, height, 2);
    const FinePair fine = VexelTrial::fine_pair(left, right);
    const SubPixelTask task{left, right, fine, cover, sample, 13, 13, 2.1F, 240};
    const SurfacePrior prior{3.0F, 0.065F, 0.015F, 2.1F, 1.5F, 0.02F, 20};
    const auto error = [&] {
        double squares = 0, count = 0;
        for (int y = 4; y < height / sample - 4; ++y)
            for (int x = 26; x < width / sample - 26; ++x) {
                const double off = field.parallax.at(x, y) - true_parallax(sample * x, sample * y);
                squares += off * off, ++count;
            }
        return std::sqrt(squares / count);
    };
    take_slopes(2.1F, sample, 2, field);
    EXPECT_GT(error(), 0.1);
    WholeSurfaceFit fit;
    Raster<float> step;
    fit.begin(left, 2);
    for (int round = 0; round < 4; ++round) {
        fit.find_steps(task, prior, 12.0F, field, 2, step);
        for (std::size_t i = 0; i < step.size(); ++i) field.parallax[i] += step[i];
        take_slopes(2.1F, sample, 2, field);
    }
    EXPECT_LT(error(), 0.04);

    GreyImage noisy = right;  // with much less noise in the prior
    std::mt19937 random(5);
    for (std::size_t i = 0; i < noisy.size(); ++i)
        noisy[i] = static_cast<std::uint8_t>(std::clamp<int>(noisy[i] + static_cast<int>(random() % 61) - 30, 0, 230));
    const FinePair noisyFine = VexelTrial::fine_pair(left, noisy);
    fit.begin(left, 2);
    fit.find_steps({left, noisy, noisyFine, cover, sample, 13, 13, 2.1F, 240},
                   {0.2F, 0.065F, 0.015F, 2.1F, 1.5F, 0.02F, 40}, 10.0F, field, 2, step);
    double squares = 0, count = 0;
    for (std::size_t i = 0; i < step.size(); ++i)
        if (has_parallax(field.parallax[i])) squares += step[i] * step[i], ++count;
    EXPECT_LT(std::sqrt(squares / count), 0.06) << "0.09 with the prior's noise";

    const Mask nothing(width, height, 0);
    const SubPixelTask blind{left, right, fine, nothing, sample, 13, 13, 2.1F, 240};
    fit.begin(left, 2);
    fit.find_steps(blind, prior, 12.0F, field, 2, step);
    for (std::size_t i = 0; i < step.size(); ++i) {
        ASSERT_TRUE(std::isfinite(step[i]));
        ASSERT_TRUE(has_parallax(field.parallax[i]) || step[i] == 0.0F);
    }
}

}  // namespace
}  // namespace VexelAlgorithm
