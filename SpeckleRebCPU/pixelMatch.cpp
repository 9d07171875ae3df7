#include "SpeckleRebCPU/pixelMatch.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/pixelMatch.cpp"
#include <hwy/aligned_allocator.h>
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

#include "SpeckleRebCPU/boxSums.h"
#include "foundation/parallel.h"

#ifndef VEXEL_PIXEL_MATCH_ROWS_DEFINED
#    define VEXEL_PIXEL_MATCH_ROWS_DEFINED
namespace VexelAlgorithm {

/// One call's input and output; both statistics have the size of the images.
struct PixelMatchRows {
    const PixelMatchTask& task;
    const PatchStatistics& left;
    const PatchStatistics& right;
    Raster<float>& position;
    Raster<float>& score;
};

}  // namespace VexelAlgorithm
#endif

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using IntTag = hn::ScalableTag<std::int32_t>;
using FloatTag = hn::RebindToFloat<IntTag>;
using ShortTag = hn::Repartition<std::int16_t, IntTag>;
using IntVec = hn::Vec<IntTag>;

/// Two 16-bit numbers a lane, lower one first: sum of both products.
IntVec pair_product(IntVec a, IntVec b) {
#if HWY_ARCH_X86 && HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_EMU128
    const IntTag d;
    const ShortTag ds;
    auto none = hn::Zero(d);
    return hn::ReorderWidenMulAccumulate(d, hn::BitCast(ds, a), hn::BitCast(ds, b), hn::Zero(d), none);
#else
    const auto lower = [](IntVec v) { return hn::ShiftRight<16>(hn::ShiftLeft<16>(v)); };
    return hn::Add(hn::Mul(lower(a), lower(b)), hn::Mul(hn::ShiftRight<16>(a), hn::ShiftRight<16>(b)));
#endif
}

std::int32_t pair_of(int lower, int upper) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(upper) << 16U |
                                     (static_cast<std::uint32_t>(lower) & 0xFFFFU));
}

/// The sums of products of all candidates of one row of windows. Sums run along the candidates of a pixel, so that
/// sliding the window to the next pixel or row is one addition and one subtraction of whole vectors.
class RowSearch {
public:
    explicit RowSearch(const PixelMatchRows& rows)
        : _rows(rows),
          _width(rows.task.left.width()),
          _height(rows.task.left.height()),
          _halfWidth(rows.task.windowWidth / 2),
          _halfHeight(rows.task.windowHeight / 2),
          _candidates(rows.task.parallaxEnd - rows.task.parallaxBegin),
          _stride((static_cast<std::size_t>(_candidates) + LANES - 1) / LANES * LANES),
          _before(std::max(0, -rows.task.parallaxBegin)),
          _columns(hwy::AllocateAligned<std::int32_t>(static_cast<std::size_t>(_width) * _stride)),
          _window(hwy::AllocateAligned<std::int32_t>(_stride)),
          _scores(hwy::AllocateAligned<float>(_stride)),
          _rightPairs(padded_width(), 0),
          _rightSum(padded_width(), 0),
          _rightInverse(padded_width(), 0.0F) {
        std::fill_n(_columns.get(), static_cast<std::size_t>(_width) * _stride, 0);
    }

    void run(int yBegin, int yEnd) {
        for (int y = yBegin - _halfHeight; y < yBegin + _halfHeight; ++y) {
            load_rows(y, -1);
            for (int x = 0; x < _width; ++x) slide_down(x);
        }
        for (int y = yBegin; y < yEnd; ++y) {
            load_rows(y + _halfHeight, y - _halfHeight - 1 >= yBegin - _halfHeight ? y - _halfHeight - 1 : -1);
            load_statistics(y);
            search_row(y);
        }
    }

private:
    static constexpr std::size_t LANES = hn::MaxLanes(IntTag());

    std::size_t padded_width() const {
        return static_cast<std::size_t>(_before + _width + std::max(0, _rows.task.parallaxEnd)) + LANES;
    }

    /// The row that enters the windows and the one that leaves them, side by side; -1 for none.
    void load_rows(int entering, int leaving) {
        const std::uint8_t* in = _rows.task.right.row(entering);
        const std::uint8_t* out = leaving < 0 ? nullptr : _rows.task.right.row(leaving);
        for (int x = 0; x < _width; ++x)
            _rightPairs[static_cast<std::size_t>(_before + x)] = pair_of(in[x], out != nullptr ? out[x] : 0);
        _leftEntering = _rows.task.left.row(entering);
        _leftLeaving = leaving < 0 ? nullptr : _rows.task.left.row(leaving);
    }

    void load_statistics(int y) {
        const float* sum = _rows.right.sum.row(y);
        std::transform(sum, sum + _width, _rightSum.begin() + _before,
                       [](float value) { return static_cast<std::int32_t>(value); });
        std::copy_n(_rows.right.inverseDeviation.row(y), _width, _rightInverse.begin() + _before);
    }

    std::int32_t left_pair(int x) const {
        return pair_of(_leftEntering[x], _leftLeaving != nullptr ? -_leftLeaving[x] : 0);
    }
    std::size_t first_candidate(int x) const {
        return static_cast<std::size_t>(_before + x + _rows.task.parallaxBegin);
    }

    void slide_down(int x) {
        const IntTag d;
        const auto left = hn::Set(d, left_pair(x));
        std::int32_t* column = _columns.get() + static_cast<std::size_t>(x) * _stride;
        const std::int32_t* right = _rightPairs.data() + first_candidate(x);
        for (std::size_t j = 0; j < _stride; j += LANES)
            hn::Store(hn::Add(hn::Load(d, column + j), pair_product(left, hn::LoadU(d, right + j))), d, column + j);
    }

    void search_row(int y) {
        const int windowWidth = 2 * _halfWidth + 1;
        const PixelRange& range = _rows.task.range;
        const float* leftInverse = _rows.left.inverseDeviation.row(y);
        std::fill_n(_window.get(), _stride, 0);
        for (int x = 0; x < windowWidth - 1; ++x) {
            slide_down(x);
            add_column(x);
        }
        for (int x = windowWidth - 1; x < _width; ++x) {
            const int centre = x - _halfWidth;
            if (leftInverse[centre] > 0.0F && centre >= range.xBegin && centre < range.xEnd) {
                slide_and_score(x, centre, static_cast<std::int32_t>(_rows.left.sum.at(centre, y)));
                find_best(centre, y, leftInverse[centre]);
            } else {
                slide_down(x);
                add_column(x);
            }
            drop_column(x - windowWidth + 1);
        }
    }

    void add_column(int x) {
        const IntTag d;
        const std::int32_t* column = _columns.get() + static_cast<std::size_t>(x) * _stride;
        for (std::size_t j = 0; j < _stride; j += LANES)
            hn::Store(hn::Add(hn::Load(d, _window.get() + j), hn::Load(d, column + j)), d, _window.get() + j);
    }

    void drop_column(int x) {
        const IntTag d;
        const std::int32_t* column = _columns.get() + static_cast<std::size_t>(x) * _stride;
        for (std::size_t j = 0; j < _stride; j += LANES)
            hn::Store(hn::Sub(hn::Load(d, _window.get() + j), hn::Load(d, column + j)), d, _window.get() + j);
    }

    /// Slides the column sums of x down, adds them to the window and turns its sums into scores, but for the factor
    /// of the left window.
    void slide_and_score(int x, int centre, std::int32_t leftSum) {
        const IntTag d;
        const FloatTag df;
        const auto left = hn::Set(d, left_pair(x));
        // The whole part of the left mean is taken away in integers. What floats have to bear is then as small as the
        // deviations from the means, not as large as their product, of which rounding could leave scores above 1.
        const std::int32_t n = _rows.task.windowWidth * _rows.task.windowHeight;
        const auto whole = hn::Set(d, leftSum / n);
        const auto rest = hn::Set(df, static_cast<float>(leftSum % n) / static_cast<float>(n));
        std::int32_t* column = _columns.get() + static_cast<std::size_t>(x) * _stride;
        const std::int32_t* right = _rightPairs.data() + first_candidate(x);
        const std::int32_t* rightSum = _rightSum.data() + first_candidate(centre);
        const float* rightInverse = _rightInverse.data() + first_candidate(centre);
        for (std::size_t j = 0; j < _stride; j += LANES) {
            const auto sums = hn::Add(hn::Load(d, column + j), pair_product(left, hn::LoadU(d, right + j)));
            hn::Store(sums, d, column + j);
            const auto window = hn::Add(hn::Load(d, _window.get() + j), sums);
            hn::Store(window, d, _window.get() + j);
            const auto sumOfRight = hn::LoadU(d, rightSum + j);
            const auto covariance = hn::Sub(hn::ConvertTo(df, hn::Sub(window, hn::Mul(whole, sumOfRight))),
                                            hn::Mul(rest, hn::ConvertTo(df, sumOfRight)));
            hn::Store(hn::Mul(covariance, hn::LoadU(df, rightInverse + j)), df, _scores.get() + j);
        }
    }

    float best_score() const {
        const FloatTag df;
        auto best = hn::Zero(df);
        for (std::size_t j = 0; j < _stride; j += LANES) best = hn::Max(best, hn::Load(df, _scores.get() + j));
        return hn::GetLane(hn::MaxOfLanes(df, best));
    }

    std::size_t first_with(float score) const {
        const FloatTag df;
        const auto wanted = hn::Set(df, score);
        for (std::size_t j = 0;; j += LANES) {
            const auto found = hn::FindFirstTrue(df, hn::Ge(hn::Load(df, _scores.get() + j), wanted));
            if (found >= 0) return j + static_cast<std::size_t>(found);
        }
    }

    void find_best(int centre, int y, float leftInverse) {
        // The lanes behind the last candidate would see columns of the next range.
        std::fill(_scores.get() + _candidates, _scores.get() + _stride, 0.0F);
        // Of several that rounding may have lifted above 1 the first counts, as if all were 1.
        const float best = std::min(best_score(), 1.0F / leftInverse);
        if (best <= 0.0F) return;
        const auto k = static_cast<int>(first_with(best));
        const std::uint8_t* mask = _rows.task.rightMask.row(y);
        const int firstColumn = centre + _rows.task.parallaxBegin;
        const int begin = std::max(0, _halfWidth - firstColumn);
        const int end = std::min(_candidates, _width - _halfWidth - firstColumn);
        const auto next_candidate = [&](int j, int step) {
            do j += step;
            while (j >= begin && j < end && mask[firstColumn + j] == 0);
            return j;
        };
        const int previous = next_candidate(k, -1);
        if (previous < begin || next_candidate(previous, -1) < begin) return;
        const int next = next_candidate(k, +1);
        if (next >= end) return;
        const float before = _scores[static_cast<std::size_t>(previous)];
        const float after = std::min(_scores[static_cast<std::size_t>(next)], best);
        const float offset = 0.5F * (before - after) / ((before - best) + (after - best));  // below 0, exactly
        _rows.position.at(centre, y) = static_cast<float>(centre + _rows.task.parallaxBegin + k) + offset;
        _rows.score.at(centre, y) = std::min(best * leftInverse, 1.0F);
    }

    const PixelMatchRows& _rows;
    const int _width, _height, _halfWidth, _halfHeight, _candidates;
    const std::size_t _stride;
    const int _before;  ///< padding of the right rows, so that every candidate can be loaded
    hwy::AlignedFreeUniquePtr<std::int32_t[]> _columns;  ///< per pixel, sums over the window's rows
    hwy::AlignedFreeUniquePtr<std::int32_t[]> _window;
    hwy::AlignedFreeUniquePtr<float[]> _scores;
    std::vector<std::int32_t> _rightPairs;
    std::vector<std::int32_t> _rightSum;
    std::vector<float> _rightInverse;
    const std::uint8_t* _leftEntering = nullptr;
    const std::uint8_t* _leftLeaving = nullptr;
};

}  // namespace

void match_rows(const PixelMatchRows& rows, int yBegin, int yEnd) {
    RowSearch(rows).run(yBegin, yEnd);
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace {

constexpr std::size_t FEWEST_ROWS = 64;  // of a task; it begins with a window of rows that yield nothing

HWY_EXPORT(match_rows);

void compute_statistics(const GreyImage& image, const Mask& mask, int windowWidth, int windowHeight, int threads,
                        PatchStatistics& statistics) {
    const int rx = windowWidth / 2, ry = windowHeight / 2;
    const int width = image.width(), height = image.height();
    statistics.sum.assign(width, height);
    statistics.inverseDeviation.assign(width, height);
    for_each_box_sum(
        width, height, rx, ry, threads, [&](int x, int y) { return image.at(x, y); },
        [&](int x, int y, std::int32_t sum) { statistics.sum.at(x, y) = static_cast<float>(sum); });
    const double n = windowWidth * windowHeight;
    for_each_box_sum(
        width, height, rx, ry, threads, [&](int x, int y) { return image.at(x, y) * image.at(x, y); },
        [&](int x, int y, std::int32_t squares) {
            if (mask.at(x, y) == 0 || x < rx || y < ry || x >= width - rx || y >= height - ry) return;
            const double sum = statistics.sum.at(x, y);
            const double deviation = n * squares - sum * sum;  // an integer: exactly zero for equal pixels
            if (deviation > 0.0) statistics.inverseDeviation.at(x, y) = static_cast<float>(std::sqrt(n / deviation));
        });
}

}  // namespace

bool pre_compute_src_image_patch_eve_std(const GreyImage& image, const Mask& mask, int windowWidth, int windowHeight,
                                         int threads, PatchStatistics& statistics) {
    if (!image.same_size(mask) || windowWidth < 1 || windowHeight < 1 || windowWidth % 2 == 0 ||
        windowHeight % 2 == 0 || windowWidth > image.width() || windowHeight > image.height())
        return false;
    compute_statistics(image, mask, windowWidth, windowHeight, threads, statistics);
    return true;
}

bool match_pixels(const PixelMatchTask& task, int threads, Raster<float>& position, Raster<float>& score) {
    const int width = task.left.width(), height = task.left.height();
    if (!task.left.same_size(task.right)) return false;
    PatchStatistics left, right;
    if (!pre_compute_src_image_patch_eve_std(task.left, task.leftMask, task.windowWidth, task.windowHeight, threads,
                                             left) ||
        !pre_compute_src_image_patch_eve_std(task.right, task.rightMask, task.windowWidth, task.windowHeight, threads,
                                             right))
        return false;
    position.assign(width, height, NO_MATCH);
    score.assign(width, height, 0.0F);

    PixelMatchTask clipped = task;
    clipped.parallaxBegin = std::max(task.parallaxBegin, -width);
    clipped.parallaxEnd = std::min(task.parallaxEnd, width);
    const int yBegin = std::max(task.range.yBegin, task.windowHeight / 2);
    const int yEnd = std::min(task.range.yEnd, height - task.windowHeight / 2);
    if (clipped.parallaxBegin >= clipped.parallaxEnd || yBegin >= yEnd) return true;
    const PixelMatchRows rows{clipped, left, right, position, score};
    const auto count = static_cast<std::size_t>(yEnd - yBegin);
    const std::size_t share = count / (2 * static_cast<std::size_t>(usable_threads(threads)));
    parallel_ranges(threads, count, std::max(FEWEST_ROWS, share), [&](std::size_t begin, std::size_t end) {
        HWY_DYNAMIC_DISPATCH(match_rows)(rows, yBegin + static_cast<int>(begin), yBegin + static_cast<int>(end));
    });
    return true;
}

}  // namespace VexelAlgorithm
#endif
