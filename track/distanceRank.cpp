#include "track/distanceRank.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "foundation/parallel.h"
#include "track/correspondenceKernels.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

constexpr std::size_t Grain = 16384;

/// Floats from 0 on have the order of their bits. The highest 12 of them: three of the fraction.
constexpr int BinShift = 20;
constexpr std::size_t BinCount = std::size_t{1} << (31 - BinShift);

std::size_t bin_of(float value) {
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return (bits >> BinShift) & (BinCount - 1);
}

std::vector<std::int32_t> count_bins(const float* values, std::size_t count, int threads) {
    std::vector<std::atomic<std::int32_t>> shared(BinCount);
    parallel_ranges(threads, count, Grain, [&](std::size_t begin, std::size_t end) {
        std::int32_t own[BinCount] = {};
        for (std::size_t i = begin; i < end; ++i) ++own[bin_of(values[i])];
        for (std::size_t bin = 0; bin < BinCount; ++bin) {
            if (own[bin] > 0) shared[bin].fetch_add(own[bin], std::memory_order_relaxed);
        }
    });
    return {shared.begin(), shared.end()};
}

}  // namespace

std::size_t rank_of_share(std::size_t count, float share) {
    const float product = static_cast<float>(count) * share;
    if (std::isnan(product)) return count - 1;
    if (!(product > 0.0F)) return 0;
    return product < static_cast<float>(count) ? std::min(count - 1, static_cast<std::size_t>(product)) : count - 1;
}

float element_of_rank(const float* values, std::size_t count, std::size_t rank, std::vector<float>& scratch,
                      int threads) {
    const std::vector<std::int32_t> bins = count_bins(values, count, threads);
    std::size_t wanted = 0;
    while (rank >= static_cast<std::size_t>(bins[wanted])) rank -= static_cast<std::size_t>(bins[wanted++]);

    // One place more than the bin holds: every value is written, and only those of the bin are kept.
    if (scratch.size() < count + 1) scratch.resize(count + 1);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < count; ++i) {
        scratch[kept] = values[i];
        kept += bin_of(values[i]) == wanted ? 1 : 0;
    }
    const auto element = scratch.begin() + static_cast<std::ptrdiff_t>(rank);
    std::nth_element(scratch.begin(), element, scratch.begin() + static_cast<std::ptrdiff_t>(kept));
    return *element;
}

double mean_up_to(const float* values, std::size_t count, float cut, int threads) {
    const double saturation = largest_summed_distance(count);
    std::atomic<std::int64_t> sum{0}, kept{0};
    parallel_ranges(threads, count, Grain, [&](std::size_t begin, std::size_t end) {
        std::int64_t ownSum = 0, ownCount = 0;
        for (std::size_t i = begin; i < end; ++i) {
            if (!(values[i] <= cut)) continue;
            ownSum += static_cast<std::int64_t>(std::min<double>(values[i], saturation) * _tbbfloattoint);
            ++ownCount;
        }
        sum.fetch_add(ownSum, std::memory_order_relaxed);
        kept.fetch_add(ownCount, std::memory_order_relaxed);
    });
    if (kept == 0) return 1e6;
    return static_cast<double>(sum) / (static_cast<double>(kept) * _tbbfloattoint);
}

}  // namespace Track
}  // namespace VexelAlgorithm
