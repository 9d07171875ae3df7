#include "SpeckleRebCPU/verifyMatch.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

#include "SpeckleRebCPU/parallaxFilters.h"
#include "SpeckleRebCPU/parallelRows.h"
#include "SpeckleRebCPU/pixelMatch.h"

namespace VexelAlgorithm {
namespace {

/// How far apart left pixels may be to which right pixels `tolerance` apart belong: more where the right camera sees
/// the surface foreshortened.
float left_tolerance(float slopeX, int tolerance) {
    constexpr float SMALLEST_STRETCH = 0.1F;
    return static_cast<float>(tolerance) / std::clamp(1.0F + slopeX, SMALLEST_STRETCH, 1.0F);
}

/// The right image in the geometry of the left one; 0 without a facet.
GreyImage right_seen_from_left(const VerifyTask& task, const ParallaxField& field, int threads, Mask& seen) {
    const int width = field.parallax.width(), height = field.parallax.height();
    GreyImage warped(width, height);
    seen.assign(width, height);
    for_each_row(field.parallax.height(), threads, [&](int y) {
        const float* parallax = field.parallax.row(y);
        const std::uint8_t* right = task.right.row(y);
        for (int x = 0; x < width; ++x) {
            const float position = static_cast<float>(x) + parallax[x] / static_cast<float>(task.sample);
            if (!(position >= 0.0F) || !(position < static_cast<float>(width - 1))) continue;
            const int column = static_cast<int>(position);
            const float fraction = position - static_cast<float>(column);
            const float value = static_cast<float>(right[column]) * (1.0F - fraction) +
                                static_cast<float>(right[column + 1]) * fraction;
            warped.at(x, y) = static_cast<std::uint8_t>(value + 0.5F);
            seen.at(x, y) = 1;
        }
    });
    return warped;
}

void verify_locally(const VerifyTask& task, int searchRadius, int tolerance, int threads, ParallaxField& field) {
    const int width = field.parallax.width(), height = field.parallax.height();
    Mask seen;
    const GreyImage warped = right_seen_from_left(task, field, threads, seen);
    const Mask everywhere(width, height, 1);
    Raster<float> back, score;
    const PixelMatchTask search{warped,        task.left,        seen,
                                everywhere,    task.windowWidth, task.windowHeight,
                                -searchRadius, searchRadius + 1, {0, width, 0, height}};
    if (!match_pixels(search, threads, back, score)) return;
    for_each_row(field.parallax.height(), threads, [&](int y) {
        for (int x = 0; x < width; ++x) {
            const float position = back.at(x, y);
            if (position == NO_MATCH) continue;  // where windows leave the image nothing is said
            if (std::abs(position - static_cast<float>(x)) > left_tolerance(field.slopeX.at(x, y), tolerance))
                field.parallax.at(x, y) = NO_PARALLAX;
        }
    });
}

/// The right pixel of every slot, sampled; -1 for none.
void find_claims(const VerifyTask& task, const float* parallax, int width, std::vector<int>& claims) {
    claims.assign(static_cast<std::size_t>(width), -1);
    for (int x = 0; x < width; ++x) {
        const float position = static_cast<float>(x) + parallax[x] / static_cast<float>(task.sample) + 0.5F;
        if (position >= 0.0F && position < static_cast<float>(width))
            claims[static_cast<std::size_t>(x)] = static_cast<int>(position);
    }
}

/// For every claimed right pixel the slot that `is_better` prefers; -1 for none.
template <class IsBetter>
void find_owners(const std::vector<int>& claims, std::vector<int>& owners, const IsBetter& is_better) {
    owners.assign(claims.size(), -1);
    for (int x = 0; x < static_cast<int>(claims.size()); ++x) {
        const int column = claims[static_cast<std::size_t>(x)];
        if (column < 0) continue;
        int& owner = owners[static_cast<std::size_t>(column)];
        if (owner < 0 || is_better(x, owner)) owner = x;
    }
}

void clear_regions(const ParallaxRegions& regions, const std::vector<std::uint8_t>& isWrong, ParallaxField& field) {
    if (std::find(isWrong.begin(), isWrong.end(), 1) == isWrong.end()) return;
    for (std::size_t i = 0; i < regions.label.size(); ++i) {
        const std::int32_t label = regions.label[i];
        if (label >= 0 && isWrong[static_cast<std::size_t>(label)] != 0) field.clear_slot(i);
    }
}

/// Regions that lose all their slots have the size 0 afterwards.
void remove_contradicted_regions(const VerifyTask& task, int tolerance, int threads, ParallaxRegions& regions,
                                 ParallaxField& field) {
    const int width = field.parallax.width();
    std::vector<std::atomic<std::size_t>> contradicted(regions.sizes.size());
    for_each_row(field.parallax.height(), threads, [&](int y) {
        std::vector<int> claims, owners;
        const std::int32_t* label = regions.label.row(y);
        const auto size = [&](int x) { return regions.sizes[static_cast<std::size_t>(label[x])]; };
        find_claims(task, field.parallax.row(y), width, claims);
        find_owners(claims, owners, [&](int one, int other) { return size(one) > size(other); });
        for (int x = 0; x < width; ++x) {
            const int column = claims[static_cast<std::size_t>(x)];
            if (column < 0) continue;
            const int owner = owners[static_cast<std::size_t>(column)];
            const float limit = left_tolerance(field.slopeX.at(x, y), tolerance);
            if (static_cast<float>(std::abs(owner - x)) > limit && size(owner) > size(x))
                ++contradicted[static_cast<std::size_t>(label[x])];
        }
    });
    std::vector<std::uint8_t> isWrong(regions.sizes.size(), 0);
    for (std::size_t k = 0; k < isWrong.size(); ++k) isWrong[k] = 3 * contradicted[k] > regions.sizes[k] ? 1 : 0;
    clear_regions(regions, isWrong, field);
    for (std::size_t k = 0; k < isWrong.size(); ++k)
        if (isWrong[k] != 0) regions.sizes[k] = 0;
}

/// First and one past last column that can be a candidate.
std::pair<int, int> candidate_columns(const Mask& cover, int y) {
    const std::uint8_t* row = cover.row(y);
    const auto* end = row + cover.width();
    const auto* first = std::find(row, end, 1);
    if (first == end) return {0, 0};
    const auto* last = end;
    while (*(last - 1) == 0) --last;
    return {static_cast<int>(first - row), static_cast<int>(last - row)};
}

void remove_cut_off_regions(const VerifyTask& task, int threads, const ParallaxRegions& regions, ParallaxField& field) {
    if (regions.sizes.empty()) return;
    std::vector<std::atomic<std::size_t>> cutOff(regions.sizes.size());
    for_each_row(field.parallax.height(), threads, [&](int y) {
        const auto [begin, end] = candidate_columns(task.rightCover, y);
        for (int x = 0; x < field.parallax.width(); ++x) {
            const std::int32_t label = regions.label.at(x, y);
            if (label >= 0 && (x + task.parallaxBegin < begin || x + task.parallaxEnd > end))
                ++cutOff[static_cast<std::size_t>(label)];
        }
    });
    const auto largest =
        static_cast<std::size_t>(std::max_element(regions.sizes.begin(), regions.sizes.end()) - regions.sizes.begin());
    std::vector<std::uint8_t> isWrong(regions.sizes.size(), 0);
    for (std::size_t k = 0; k < isWrong.size(); ++k)
        isWrong[k] = k != largest && 10 * cutOff[k] >= 9 * regions.sizes[k] && cutOff[k] > 0 ? 1 : 0;
    clear_regions(regions, isWrong, field);
}

void keep_best_claims(const VerifyTask& task, int tolerance, int threads, ParallaxField& field) {
    const int width = field.parallax.width();
    for_each_row(field.parallax.height(), threads, [&](int y) {
        std::vector<int> claims, owners;
        float* parallax = field.parallax.row(y);
        const float* score = field.score.row(y);
        find_claims(task, parallax, width, claims);
        find_owners(claims, owners, [&](int one, int other) { return score[one] > score[other]; });
        for (int x = 0; x < width; ++x) {
            const int column = claims[static_cast<std::size_t>(x)];
            if (column < 0) continue;
            const auto distance = static_cast<float>(std::abs(owners[static_cast<std::size_t>(column)] - x));
            if (distance > left_tolerance(field.slopeX.at(x, y), tolerance)) parallax[x] = NO_PARALLAX;
        }
    });
}

}  // namespace

void right_to_left_to_vertify_match(const VerifyTask& task, int searchRadius, int tolerance, int threads,
                                    ParallaxField& field) {
    ParallaxRegions regions = find_regions(task.regionStep, threads, field.parallax);
    remove_contradicted_regions(task, tolerance, threads, regions, field);
    remove_cut_off_regions(task, threads, regions, field);
    keep_best_claims(task, tolerance, threads, field);
    verify_locally(task, searchRadius, tolerance, threads, field);
}

}  // namespace VexelAlgorithm
