#include "SpeckleRebCPU/subPixelStep.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/subPixelStep.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "SpeckleRebCPU/boxSums.h"
#include "SpeckleRebCPU/pixelPairs-inl.h"
#include "foundation/parallel.h"

#ifndef VEXEL_SUB_PIXEL_BAND_DEFINED
#    define VEXEL_SUB_PIXEL_BAND_DEFINED
namespace VexelAlgorithm {

struct SubPixelBand {
    const SubPixelTask& task;
    const ParallaxField& field;
    Raster<float>& step;
    Raster<float>& score;
};

}  // namespace VexelAlgorithm
#endif

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::ScalableTag<float>;
using IntTag = hn::RebindToSigned<FloatTag>;
using ShortTag = hn::Rebind<std::int16_t, FloatTag>;
using IntVec = hn::Vec<IntTag>;
using FloatVec = hn::Vec<FloatTag>;

constexpr std::size_t BLOCK = SUB_PIXEL_BLOCK;

/// The sums of a window: number of pairs, the quantities, their products (of each with itself and those behind it).
/// Integers, as what enters and leaves a sliding sum then cancels exactly; those of a column stay below 2^31.
constexpr std::size_t PRODUCTS = QUANTITIES * (QUANTITIES + 1) / 2;
constexpr std::size_t SUMS = 1 + QUANTITIES + PRODUCTS;

class BandSearch {
public:
    explicit BandSearch(const SubPixelBand& band)
        : _band(band),
          _pairing(band.task, band.field),
          _height(band.task.left.height()),
          _slots(band.field.parallax.width()),
          _weights(sub_pixel_weights(band.task)),
          _halfWidth(_weights.boxWidth / 2),
          _halfHeight(_weights.boxHeight / 2),
          _stride(_pairing.stride()),
          _slotMargin(static_cast<std::size_t>(_weights.spacing)),
          _slotStride(static_cast<std::size_t>(_slots) + 2 * _slotMargin + BLOCK),
          _ring(static_cast<std::size_t>(_weights.boxHeight)),
          _boxes(2 * _slotMargin + 1, std::vector<float>(SUMS * _slotStride, 0.0F)),
          _columnBoxes(SUMS * _slotStride, 0.0F) {
        for (PairRow& row : _ring) row.assign(_stride);
        _none.assign(_stride);
        _before = static_cast<std::size_t>(_weights.boxWidth + band.task.sample);
        for (std::vector<std::int32_t>& column : _columns) column.assign(_stride + 2 * _before, 0);
    }

    void run(int slotBegin, int slotEnd) {
        const int spacing = _weights.spacing, rows = _band.field.parallax.height();
        int next = std::max(0, slotBegin - spacing);
        _first = _nextRow = next * _band.task.sample - _halfHeight;
        for (int row = slotBegin; row < slotEnd; ++row) {
            for (; next <= std::min(row + spacing, rows - 1); ++next) sum_boxes(next);
            solve_row(row);
        }
    }

private:
    // ---- sums over boxes -----------------------------------------------------------------------------------

    /// Sums of the boxes around the slots of one row.
    void sum_boxes(int slotRow) {
        for (; _nextRow <= slotRow * _band.task.sample + _halfHeight; ++_nextRow) slide_down(_nextRow);
        float* boxes = box_row(slotRow);
        for (std::size_t q = 0; q < SUMS; ++q)
            sum_columns(_columns[q].data() + _before, boxes + q * _slotStride + _slotMargin);
    }

    float* box_row(int slotRow) { return _boxes[static_cast<std::size_t>(slotRow) % _boxes.size()].data(); }

    void slide_down(int y) {
        PairRow& slot = _ring[static_cast<std::size_t>((y - _first) % _weights.boxHeight)];
        std::swap(slot, _leaving);
        if (slot.count.empty()) slot.assign(_stride);
        if (y < 0 || y >= _height) {
            slot = _none;
        } else {
            _pairing.pair_row(y, slot);
        }
        exchange(slot, _leaving);
    }

    /// Adds a row to the column sums and takes another one, which was added before, away.
    void exchange(const PairRow& entering, const PairRow& leaving) {
        const IntTag di;
        const ShortTag ds;
        const std::size_t lanes = hn::Lanes(di);
        for (std::size_t x = 0; x < _stride; x += lanes) {
            const auto load = [&](const std::vector<std::int16_t>& values) {
                return hn::PromoteTo(di, hn::LoadU(ds, values.data() + x));
            };
            std::size_t q = 0;
            const auto add = [&](IntVec difference) {
                std::int32_t* sums = _columns[q++].data() + _before + x;
                hn::StoreU(hn::Add(hn::LoadU(di, sums), difference), di, sums);
            };
            add(hn::Sub(load(entering.count), load(leaving.count)));
            const IntVec in[QUANTITIES] = {load(entering.values[F]), load(entering.values[D]),
                                           load(entering.values[G])};
            const IntVec out[QUANTITIES] = {load(leaving.values[F]), load(leaving.values[D]), load(leaving.values[G])};
            for (std::size_t a = 0; a < QUANTITIES; ++a) add(hn::Sub(in[a], out[a]));
            for (std::size_t a = 0; a < QUANTITIES; ++a)
                for (std::size_t b = a; b < QUANTITIES; ++b)
                    add(hn::Sub(hn::Mul(in[a], in[b]), hn::Mul(out[a], out[b])));
        }
    }

    void sum_columns(const std::int32_t* columns, float* boxes) const {
        const int sample = _band.task.sample;
        std::int64_t sum = 0;  // of windows of 63 x 63 pixels
        for (int x = -_halfWidth; x <= _halfWidth; ++x) sum += columns[x];
        const std::int32_t* entering = columns + _halfWidth;
        const std::int32_t* leaving = columns - _halfWidth - 1;
        for (int slot = 0; slot < _slots; ++slot) {
            boxes[slot] = static_cast<float>(sum);
            for (int k = 0; k < sample; ++k) sum += *++entering - *++leaving;
        }
    }

    // ---- one step for every slot ---------------------------------------------------------------------------

    void solve_row(int slotRow) {
        weigh_rows(slotRow);
        const FloatTag d;
        const std::size_t lanes = hn::Lanes(d);
        const float* parallax = _band.field.parallax.row(slotRow);
        float* step = _band.step.row(slotRow);
        float* score = _band.score.row(slotRow);
        HWY_ALIGN float steps[hn::MaxLanes(d)], scores[hn::MaxLanes(d)];
        for (int first = 0; first < _slots; first += static_cast<int>(lanes)) {
            FloatVec sums[SUMS];
            for (std::size_t q = 0; q < SUMS; ++q)
                sums[q] = weighed(_columnBoxes.data() + q * _slotStride + _slotMargin + first);
            const auto [found, correlation] = solve(sums);
            hn::Store(found, d, steps);
            hn::Store(correlation, d, scores);
            for (int i = 0; i < std::min(static_cast<int>(lanes), _slots - first); ++i) {
                if (!has_parallax(parallax[first + i])) continue;
                step[first + i] = steps[i];
                score[first + i] = scores[i];
            }
        }
    }

    /// The weights along columns: boxes 1 2 1, or alone.
    void weigh_rows(int slotRow) {
        const int spacing = _weights.spacing;
        const float* middle = box_row(slotRow);
        if (spacing == 0) {
            std::copy_n(middle, _columnBoxes.size(), _columnBoxes.begin());
            return;
        }
        for (std::size_t i = 0; i < _columnBoxes.size(); ++i) _columnBoxes[i] = 2.0F * middle[i];
        for (const int row : {slotRow - spacing, slotRow + spacing}) {
            if (row < 0 || row >= _band.field.parallax.height()) continue;
            const float* boxes = box_row(row);
            for (std::size_t i = 0; i < _columnBoxes.size(); ++i) _columnBoxes[i] += boxes[i];
        }
    }

    FloatVec weighed(const float* boxes) const {
        const FloatTag d;
        const auto middle = hn::LoadU(d, boxes);
        if (_weights.spacing == 0) return middle;
        return hn::Add(hn::Add(middle, middle),
                       hn::Add(hn::LoadU(d, boxes - _weights.spacing), hn::LoadU(d, boxes + _weights.spacing)));
    }

    struct Solution {
        FloatVec step, score;
    };

    /// Least squares of g + step d = gain f + offset; the gain is eliminated first, or left out where the window says
    /// nothing about it.
    Solution solve(const FloatVec (&sums)[SUMS]) const {
        const FloatTag d;
        const auto zero = hn::Zero(d), tiny = hn::Set(d, 1e-3F);
        const auto enough = hn::Ge(sums[0], hn::Set(d, _weights.fewest));
        const auto inverse = hn::Div(hn::Set(d, 1.0F), hn::Max(sums[0], hn::Set(d, 1.0F)));
        FloatVec m[QUANTITIES][QUANTITIES], limits[G];
        std::size_t q = 1 + QUANTITIES;
        for (std::size_t a = 0; a < QUANTITIES; ++a)
            for (std::size_t b = a; b < QUANTITIES; ++b, ++q)
                m[a][b] = hn::Sub(sums[q], hn::Mul(hn::Mul(sums[1 + a], sums[1 + b]), inverse));
        for (std::size_t a = 0; a < G; ++a) limits[a] = hn::Mul(m[a][a], tiny);
        auto usable = hn::And(enough, hn::And(hn::Gt(m[F][F], sums[0]), hn::Gt(m[G][G], sums[0])));
        const auto score = hn::Div(m[F][G], hn::Sqrt(hn::Max(hn::Mul(m[F][F], m[G][G]), tiny)));
        for (std::size_t k = F; k < D; ++k) {
            const auto is_known = hn::And(hn::Gt(m[k][k], limits[k]), hn::Gt(m[k][k], zero));
            const auto factor =
                hn::IfThenElseZero(is_known, hn::Div(hn::Set(d, 1.0F), hn::IfThenElse(is_known, m[k][k], tiny)));
            for (std::size_t a = k + 1; a < QUANTITIES; ++a) {
                const auto ratio = hn::Mul(m[k][a], factor);
                for (std::size_t b = a; b < QUANTITIES; ++b) m[a][b] = hn::Sub(m[a][b], hn::Mul(ratio, m[k][b]));
            }
        }
        usable = hn::And(usable, hn::And(hn::Gt(m[D][D], limits[D]), hn::Gt(m[D][D], zero)));
        const auto step = hn::Div(hn::Mul(m[D][G], hn::Set(d, -SLOPE_SCALE / GREY_SCALE)),
                                  hn::IfThenElse(usable, m[D][D], hn::Set(d, 1.0F)));
        return {hn::IfThenElse(usable, step, hn::Set(d, NO_PARALLAX)), hn::IfThenElseZero(usable, score)};
    }

    const SubPixelBand& _band;
    RowPairing _pairing;
    const int _height, _slots;
    const SubPixelWeights _weights;
    const int _halfWidth, _halfHeight;
    const std::size_t _stride;
    const std::size_t _slotMargin, _slotStride;
    std::vector<PairRow> _ring;  ///< the rows inside the box
    PairRow _none, _leaving;
    std::array<std::vector<std::int32_t>, SUMS> _columns;  ///< sums over the rows of the box, zeros on both sides
    std::size_t _before = 0;
    std::vector<std::vector<float>> _boxes;  ///< sums of the boxes of some rows of slots
    std::vector<float> _columnBoxes;         ///< weighed along columns
    int _first = 0, _nextRow = 0;
};

}  // namespace

void search_band(const SubPixelBand& band, int slotBegin, int slotEnd) {
    BandSearch(band).run(slotBegin, slotEnd);
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace {

constexpr std::size_t FEWEST_ROWS = 64;  // of a task, pixels; it begins with a window of rows that yield nothing
constexpr std::size_t ROW_GRAIN = 32;

HWY_EXPORT(search_band);

}  // namespace

Raster<float> unclipped_shares(const GreyImage& image, int window, int threads) {
    const int width = image.width(), height = image.height(), radius = window / 2;
    Raster<float> shares;
    std::uint8_t brightest = 0;
    for (std::size_t i = 0; i < image.size(); ++i) brightest = std::max(brightest, image[i]);
    if (brightest < CLIPPED_GREY) return shares;
    // All squares in the upper half of a number, those without clipped pixels in the lower one.
    const auto squares = [&](int x, int y) -> std::int64_t {
        if (x < 1 || x + 1 >= width) return 0;
        const std::uint8_t* grey = image.row(y) + x;
        const std::int64_t step = grey[1] - grey[-1], square = step * step;
        return square << 32 | (std::max({grey[-1], grey[0], grey[1]}) < CLIPPED_GREY ? square : 0);
    };
    shares.assign(width, height);
    const auto emit = [&](int x, int y, std::int64_t sums) {
        const std::int64_t all = sums >> 32, unclipped = sums & 0xFFFFFFFF;
        shares.at(x, y) = all > 0 ? static_cast<float>(unclipped) / static_cast<float>(all) : 1.0F;
    };
    for_each_box_sum<std::int64_t>(width, height, radius, radius, threads, squares, emit);
    return shares;
}

Mask spare_clipped_pixels(const Raster<float>& shares, float least, const Mask& cover, int threads) {
    Mask counted(cover.width(), cover.height());
    parallel_ranges(threads, cover.size(), ROW_GRAIN * static_cast<std::size_t>(cover.width()),
                    [&](std::size_t begin, std::size_t end) {
                        for (std::size_t i = begin; i < end; ++i) {
                            const bool isSpared = shares.empty() || shares[i] >= least;
                            counted[i] = static_cast<std::uint8_t>(cover[i] == 0 ? 0 : isSpared ? 2 : 1);
                        }
                    });
    return counted;
}

Mask without_clipped(const GreyImage& image, const Mask& cover, int clipped, int threads) {
    const int width = image.width(), height = image.height();
    Mask counted(width, height);
    parallel_ranges(threads, static_cast<std::size_t>(height), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
        std::vector<std::uint8_t> brightest(static_cast<std::size_t>(width) + 2, 0);  // of three rows, from column -1
        for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y) {
            const std::uint8_t *above = image.row(std::max(0, y - 1)), *own = image.row(y);
            const std::uint8_t *below = image.row(std::min(height - 1, y + 1)), *covered = cover.row(y);
            std::uint8_t *column = brightest.data(), *result = counted.row(y);
            for (int x = 0; x < width; ++x) column[x + 1] = std::max(std::max(above[x], own[x]), below[x]);
            for (int x = 0; x < width; ++x) {
                const int grey = std::max(std::max(column[x], column[x + 1]), column[x + 2]);
                result[x] = covered[x] == 2 && grey >= clipped ? 0 : covered[x];
            }
        }
    });
    return counted;
}

SubPixelWeights sub_pixel_weights(const SubPixelTask& task) {
    const int spacing = std::max(1, 2 / task.sample), reach = spacing * task.sample;
    const int narrower = std::min(task.windowWidth, task.windowHeight);
    SubPixelWeights weights{task.windowWidth, task.windowHeight, 0, 0.0F};
    const bool isBell = 4 * reach <= narrower;
    if (isBell) weights = {task.windowWidth - 2 * reach, task.windowHeight - 2 * reach, spacing, 0.0F};
    const float total = static_cast<float>((isBell ? 16 : 1) * weights.boxWidth * weights.boxHeight);
    weights.fewest = 0.25F * total;
    return weights;
}

void find_sub_pixel_steps(const SubPixelTask& task, const ParallaxField& field, int threads, Raster<float>& step,
                          Raster<float>& score) {
    step.assign(field.parallax.width(), field.parallax.height(), NO_PARALLAX);
    score.assign(field.parallax.width(), field.parallax.height(), 0.0F);
    if (task.left.width() < INTERPOLATED_PIXELS) return;
    const SubPixelBand band{task, field, step, score};
    const auto rows = static_cast<std::size_t>(field.parallax.height());
    const std::size_t share = rows / (2 * static_cast<std::size_t>(usable_threads(threads)));
    const std::size_t fewest = FEWEST_ROWS / static_cast<std::size_t>(task.sample) + 1;
    parallel_ranges(threads, rows, std::max(fewest, share), [&](std::size_t begin, std::size_t end) {
        HWY_DYNAMIC_DISPATCH(search_band)(band, static_cast<int>(begin), static_cast<int>(end));
    });
}

}  // namespace VexelAlgorithm
#endif
