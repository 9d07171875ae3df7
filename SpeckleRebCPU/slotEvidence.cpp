#include "SpeckleRebCPU/slotEvidence.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/slotEvidence.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <Eigen/Cholesky>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "SpeckleRebCPU/median.h"
#include "SpeckleRebCPU/pixelPairs-inl.h"
#include "foundation/parallel.h"

#ifndef VEXEL_SLOT_EVIDENCE_DEFINED
#    define VEXEL_SLOT_EVIDENCE_DEFINED
namespace VexelAlgorithm {

constexpr float BRIGHT = 80.0F;  // grey value from which on variance grows in proportion
// Squared pixels: variance of the spot that a pixel takes in, through lens and aperture.
constexpr float SPOT = 0.45F;
// Slopes of the parallax, pixel per pixel, beyond which the spot is not followed.
constexpr float LEAST_SPOT_SLOPE = -0.5F, LARGEST_SPOT_SLOPE = 1.0F;

/// What is related: the left image, its second differences, the slope, 1 and the right image.
enum Related : int { LEFT, BLUR_X, BLUR_Y, SLOPE, OFFSET, RIGHT, RELATED };
constexpr std::size_t RELATION_PRODUCTS = RELATED * (RELATED + 1) / 2;
using CellSums = std::array<std::int32_t, RELATION_PRODUCTS>;

struct RelationTask {
    const PairedImage& paired;
    const SecondDifferences& differences;
    Raster<CellSums>& cells;
};

/// Of a row of cells: the sums of its columns, and what is related, 0 where nothing is seen.
struct RelationRows {
    explicit RelationRows(std::size_t width)
        : sums(RELATION_PRODUCTS * width), present(width), blurX(width), blurY(width), slope(width) {}

    std::vector<std::int32_t> sums;
    std::vector<std::int16_t> present, blurX, blurY, slope;
};

}  // namespace VexelAlgorithm
#endif

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

using FloatTag = hn::ScalableTag<float>;
using IntTag = hn::RebindToSigned<FloatTag>;
using ShortTag = hn::Rebind<std::int16_t, FloatTag>;
using FloatVec = hn::Vec<FloatTag>;

FloatVec load_short(const std::int16_t* values) {
    return hn::ConvertTo(FloatTag(), hn::PromoteTo(IntTag(), hn::LoadU(ShortTag(), values)));
}

/// Grey-value products of the pixel pairs around the slots of a row, summed along columns. A row of pixels counts for
/// the slots above and below it.
class EvidenceRows {
    enum Product : std::size_t { STEP_STEP, STEP_GAIN, GAIN_GAIN, STEP, GAIN, PRODUCTS };
    using Columns = std::array<std::vector<float>, PRODUCTS>;

public:
    EvidenceRows(const EvidenceTask& task, SlotEvidence& evidence)
        : _task(task),
          _evidence(evidence),
          _stride(static_cast<std::size_t>(task.paired.left.width())),
          _margin(static_cast<std::size_t>(task.sample)),
          _gain(_stride),
          _blurX(_stride),
          _blurY(_stride) {
        for (Columns* columns : {&_own, &_next})
            for (auto& column : *columns) column.resize(_stride + 2 * _margin);
    }

    void gather(int begin, int end) {
        const int sample = _task.sample, height = _task.paired.left.height();
        for (int slotRow = std::max(0, begin - 1); slotRow < end; ++slotRow) {
            const int first = slotRow * sample;
            for (int y = slotRow < begin ? first + 1 : first; y < std::min(height, first + sample); ++y)
                add_row(y, static_cast<float>(y - first) / static_cast<float>(sample));
            if (slotRow >= begin) write(slotRow);
            std::swap(_own, _next);
            for (auto& column : _next) std::fill(column.begin(), column.end(), 0.0F);
        }
    }

private:
    void write(int slotRow) {
        float* rows[PRODUCTS] = {_evidence.stepStep.row(slotRow), _evidence.stepGain.row(slotRow),
                                 _evidence.gainGain.row(slotRow), _evidence.step.row(slotRow),
                                 _evidence.gain.row(slotRow)};
        for (std::size_t k = 0; k < PRODUCTS; ++k) sum_columns(_own[k].data() + _margin, rows[k]);
    }

    /// Each pixel has the gain of the nearest slot.
    void spread_gain(int y) {
        const int sample = _task.sample, width = _task.gain.width(), end = static_cast<int>(_stride);
        const float* gain = _task.gain.row(std::min((y + sample / 2) / sample, _task.gain.height() - 1));
        for (int slot = 0; slot < width; ++slot) {
            const int first = std::max(0, slot * sample - sample / 2);
            const int last = slot + 1 < width ? (slot + 1) * sample - sample / 2 : end;
            std::fill(_gain.begin() + first, _gain.begin() + last, gain[slot]);
        }
    }

    void spread_blur(int y) {
        const ImageRelation& relation = _task.relation;
        if (y / ImageRelation::CELL == _cellRow) return;
        _cellRow = y / ImageRelation::CELL;
        for (std::size_t x = 0; x < _stride; ++x) {
            const int cell = static_cast<int>(x) / ImageRelation::CELL;
            _blurX[x] = relation.blurX.at(cell, _cellRow);
            _blurY[x] = relation.blurY.at(cell, _cellRow);
        }
    }

    /// `way`: how far on the way from the slots that are summed to the next ones, of 1.
    void add_row(int y, float way) {
        const FloatTag d;
        spread_blur(y);
        spread_gain(y);
        const std::int16_t *left = _task.paired.left.row(y), *right = _task.paired.right.row(y);
        const std::int16_t *slopes = _task.paired.slope.row(y), *alongX = _task.leftDifferences.alongX.row(y);
        const std::int16_t* alongY = _task.leftDifferences.alongY.row(y);
        const auto offset = hn::Set(d, _task.relation.offset), toNext = hn::Set(d, way);
        const auto sixteenth = hn::Set(d, 1.0F / 16.0F), one = hn::Set(d, 1.0F);
        const auto outlier = hn::Set(d, 1.0F / (_task.outlier * _task.outlier));
        for (std::size_t x = 0; x < _stride; x += hn::Lanes(d)) {
            const auto f = hn::Mul(load_short(left + x), hn::Set(d, 1.0F / GREY_SCALE));
            const auto slope = hn::Mul(load_short(slopes + x), hn::Set(d, -1.0F / SLOPE_SCALE));
            const auto blur = hn::Add(hn::Mul(hn::LoadU(d, _blurX.data() + x), load_short(alongX + x)),
                                      hn::Mul(hn::LoadU(d, _blurY.data() + x), load_short(alongY + x)));
            const auto target = hn::Sub(hn::Sub(hn::Mul(load_short(right + x), hn::Set(d, 1.0F / GREY_SCALE)), offset),
                                        hn::Mul(blur, sixteenth));
            const auto misfit = hn::Sub(hn::Mul(hn::LoadU(d, _gain.data() + x), f), target);
            const auto variance = hn::Max(one, hn::Mul(f, hn::Set(d, 1.0F / BRIGHT)));
            const auto w = hn::Div(one, hn::Add(variance, hn::Mul(outlier, hn::Mul(misfit, misfit))));
            const auto wslope = hn::Mul(w, slope), wf = hn::Mul(w, f);
            const auto add = [&](Product product, FloatVec value) {
                const auto later = hn::Mul(toNext, value);
                float *own = _own[product].data() + _margin + x, *next = _next[product].data() + _margin + x;
                hn::StoreU(hn::Add(hn::LoadU(d, own), hn::Sub(value, later)), d, own);
                hn::StoreU(hn::Add(hn::LoadU(d, next), later), d, next);
            };
            add(STEP_STEP, hn::Mul(wslope, slope));
            add(STEP_GAIN, hn::Mul(wslope, f));
            add(GAIN_GAIN, hn::Mul(wf, f));
            add(STEP, hn::Mul(wslope, target));
            add(GAIN, hn::Mul(wf, target));
        }
    }

    void sum_columns(const float* columns, float* slots) const {
        const int sample = _task.sample, width = _task.gain.width();
        for (int slot = 0; slot < width; ++slot) {
            const float* centre = columns + slot * sample;
            float sum = *centre;
            for (int dx = 1; dx < sample; ++dx)
                sum += (1.0F - static_cast<float>(dx) / static_cast<float>(sample)) * (centre[-dx] + centre[dx]);
            slots[slot] = sum;
        }
    }

    const EvidenceTask& _task;
    SlotEvidence& _evidence;
    const std::size_t _stride, _margin;
    std::vector<float> _gain, _blurX, _blurY;
    Columns _own, _next;  ///< sums for the slots of a row, and of the next one
    int _cellRow = -1;
};

/// Makes the right image as sharp as the left one. Through columns that are stretched by 1 + a and shifted by b a row
/// (a and b are the slopes of the parallax) the left image sees the right one's spot with variances of (1 + b^2) / (1 +
/// a)^2 along the row and 1 along the column, and a covariance of -b / (1 + a), in units of its own. Half of what they
/// differ by, times the second derivatives, is taken off.
void match_sharpness(const RowPrediction::Slopes& slopes, int y, const SecondDifferences& differences,
                     const std::int16_t* count, std::size_t width, std::int16_t* right) {
    const FloatTag d;
    const auto one = hn::Set(d, 1.0F), two = hn::Set(d, 2.0F);
    const auto scale = hn::Set(d, 2.0F * SPOT * GREY_SCALE / 16.0F);
    const std::int16_t *alongX = differences.alongX.row(y), *mixed = differences.mixed.row(y);
    for (std::size_t x = 0; x < width; x += hn::Lanes(d)) {
        const auto within = [&](const float* slope, float low) {
            return hn::Min(hn::Max(hn::LoadU(d, slope + x), hn::Set(d, low)), hn::Set(d, LARGEST_SPOT_SLOPE));
        };
        const auto a = within(slopes.alongX, LEAST_SPOT_SLOPE), b = within(slopes.alongY, -LARGEST_SPOT_SLOPE);
        const auto narrowing = hn::Div(one, hn::Add(one, a));
        const auto wider = hn::Sub(hn::Mul(hn::Mul(narrowing, narrowing), hn::Add(one, hn::Mul(b, b))), one);
        const auto blur = hn::Sub(hn::Mul(wider, load_short(alongX + x)),
                                  hn::Mul(hn::Mul(two, hn::Mul(narrowing, b)), load_short(mixed + x)));
        const auto present = hn::Mul(load_short(count + x), scale);
        const auto sharper = hn::Sub(load_short(right + x), hn::Mul(present, blur));
        hn::StoreU(hn::DemoteTo(ShortTag(), hn::NearestInt(sharper)), ShortTag(), right + x);
    }
}

}  // namespace

void pair_rows(const SubPixelTask& task, const SecondDifferences& differences, const ParallaxField& field, int begin,
               int end, PairedImage& paired) {
    RowPairing pairing(task, field);
    PairRow row;
    row.assign(pairing.stride());
    for (int y = begin; y < end; ++y) {
        pairing.pair_row(y, row);
        const std::int16_t* count = row.count.data();
        std::int16_t *left = paired.left.row(y), *right = paired.right.row(y), *slope = paired.slope.row(y);
        constexpr auto MIDDLE = static_cast<std::int16_t>(GREY_SCALE * FINE_ZERO);
        for (std::size_t x = 0; x < pairing.stride(); ++x) {
            left[x] = static_cast<std::int16_t>(row.values[F][x] + MIDDLE * count[x]);
            right[x] = static_cast<std::int16_t>(row.values[G][x] + MIDDLE * count[x]);
            slope[x] = row.values[D][x];
        }
        match_sharpness(pairing.slopes(), y, differences, count, pairing.stride(), right);
    }
}

/// Every other row is enough.
void sum_cell_row(const RelationTask& task, int cellRow, RelationRows& rows) {
    constexpr int CELL = ImageRelation::CELL;
    const std::size_t width = rows.present.size();
    std::fill(rows.sums.begin(), rows.sums.end(), 0);
    for (int y = cellRow * CELL; y < std::min((cellRow + 1) * CELL, task.paired.left.height()); y += 2) {
        const std::int16_t *left = task.paired.left.row(y), *right = task.paired.right.row(y);
        const std::int16_t *alongX = task.differences.alongX.row(y), *alongY = task.differences.alongY.row(y);
        const std::int16_t* slope = task.paired.slope.row(y);
        for (std::size_t x = 0; x < width; ++x) {
            const bool isPresent = left[x] != 0 || right[x] != 0;
            rows.present[x] = isPresent ? 1 : 0;
            rows.blurX[x] = isPresent ? alongX[x] : 0;
            rows.blurY[x] = isPresent ? alongY[x] : 0;
            rows.slope[x] = isPresent ? slope[x] : 0;
        }
        const std::int16_t* values[RELATED] = {
            left, rows.blurX.data(), rows.blurY.data(), rows.slope.data(), rows.present.data(), right};
        std::int32_t* sums = rows.sums.data();
        for (int a = 0; a < RELATED; ++a)
            for (int b = a; b < RELATED; ++b, sums += width)
                for (std::size_t x = 0; x < width; ++x) sums[x] += values[a][x] * values[b][x];
    }
    CellSums* cells = task.cells.row(cellRow);
    for (std::size_t q = 0; q < RELATION_PRODUCTS; ++q)
        for (std::size_t x = 0; x < width; ++x) cells[x / CELL][q] += rows.sums[q * width + x];
}

void sum_cell_rows(const RelationTask& task, int begin, int end) {
    RelationRows rows(static_cast<std::size_t>(task.paired.left.width()));
    for (int row = begin; row < end; ++row) sum_cell_row(task, row, rows);
}

void gather_rows(const EvidenceTask& task, int begin, int end, SlotEvidence& evidence) {
    EvidenceRows(task, evidence).gather(begin, end);
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 16;

HWY_EXPORT(pair_rows);
HWY_EXPORT(sum_cell_rows);
HWY_EXPORT(gather_rows);

constexpr double GAIN_RIDGE = 4.0;    // squared grey values
constexpr double LEAST_SHARE = 0.25;  // of the pixels that were summed
constexpr std::size_t CELL_GRAIN = 8;

using RelationSums = Eigen::Matrix<double, RELATED, RELATED>;  // of products, grey values

/// Over 3 x 3 cells; blur is shrunk by the ridge, and even images have no slopes.
RelationSums sums_around(const Raster<CellSums>& cells, int x, int y, float ridge) {
    static constexpr double SCALE[RELATED] = {0.25, 1.0 / 16.0, 1.0 / 16.0, 0.5, 1.0, 0.25};
    std::array<std::int64_t, RELATION_PRODUCTS> sums{};
    for (int v = std::max(0, y - 1); v <= std::min(cells.height() - 1, y + 1); ++v)
        for (int u = std::max(0, x - 1); u <= std::min(cells.width() - 1, x + 1); ++u)
            for (std::size_t q = 0; q < RELATION_PRODUCTS; ++q) sums[q] += cells.at(u, v)[q];
    RelationSums products;
    std::size_t q = 0;
    for (int a = 0; a < RELATED; ++a)
        for (int b = a; b < RELATED; ++b, ++q)
            products(a, b) = products(b, a) = static_cast<double>(sums[q]) * SCALE[a] * SCALE[b];
    const double count = products(OFFSET, OFFSET);
    products(BLUR_X, BLUR_X) += ridge * count;
    products(BLUR_Y, BLUR_Y) += ridge * count;
    products(SLOPE, SLOPE) += count;
    return products;
}

bool is_seen(const RelationSums& products) {
    return products(OFFSET, OFFSET) >= LEAST_SHARE * 0.5 * 9 * ImageRelation::CELL * ImageRelation::CELL;
}

struct Relation {
    double gain = 1.0, blurX = 0.0, blurY = 0.0, offset = 0.0;
    double misfit = 0.0;  ///< root mean square
};

/// Least squares of right = gain left + blurX u + blurY v - step slope + offset.
std::optional<Relation> free_relation(const RelationSums& products) {
    constexpr double LEAST_VARIANCE = 4.0;  // squared grey values
    const double count = products(OFFSET, OFFSET), sum = products(LEFT, OFFSET);
    if (!(products(LEFT, LEFT) - sum * sum / count > LEAST_VARIANCE * count)) return std::nullopt;
    const Eigen::Matrix<double, 5, 1> right = products.topRightCorner<5, 1>();
    const Eigen::Matrix<double, 5, 1> x = products.topLeftCorner<5, 5>().ldlt().solve(right);
    if (!x.allFinite()) return std::nullopt;
    const double squares = std::max(0.0, products(RIGHT, RIGHT) - x.dot(right));
    return Relation{x[LEFT], x[BLUR_X], x[BLUR_Y], x[OFFSET], std::sqrt(squares / count)};
}

/// The same with the offset of the whole image, and a gain near its median.
Relation relation_near(const Relation& whole, const RelationSums& products) {
    const double pull = GAIN_RIDGE * products(OFFSET, OFFSET);
    Eigen::Matrix4d matrix = products.topLeftCorner<4, 4>();
    Eigen::Vector4d right = products.topRightCorner<4, 1>() - whole.offset * products.block<4, 1>(0, OFFSET);
    matrix(LEFT, LEFT) += pull;
    right[LEFT] += pull * whole.gain;
    const Eigen::Vector4d x = matrix.ldlt().solve(right);
    return x.allFinite() ? Relation{x[LEFT], x[BLUR_X], x[BLUR_Y], whole.offset, whole.misfit} : whole;
}

/// Of the relations of cells whose neighbourhoods do not overlap.
std::optional<Relation> median_relation(const Raster<CellSums>& cells, float ridge) {
    std::vector<float> gains, offsets, misfits;
    for (int y = 1; y < cells.height() + 1; y += 3)
        for (int x = 1; x < cells.width() + 1; x += 3) {
            const RelationSums products = sums_around(cells, x, y, ridge);
            const std::optional<Relation> found = is_seen(products) ? free_relation(products) : std::nullopt;
            if (!found) continue;
            gains.push_back(static_cast<float>(found->gain));
            offsets.push_back(static_cast<float>(found->offset));
            misfits.push_back(static_cast<float>(found->misfit));
        }
    if (gains.empty()) return std::nullopt;
    return Relation{take_median(gains), 0.0, 0.0, take_median(offsets), take_median(misfits)};
}

}  // namespace

void SlotEvidence::resize(int width, int height) {
    for (Raster<float>* sums : {&stepStep, &stepGain, &gainGain, &step, &gain}) sums->resize(width, height);
}

void pair_images(const SubPixelTask& task, const SecondDifferences& leftDifferences, const ParallaxField& field,
                 int threads, PairedImage& paired) {
    const auto stride = static_cast<int>(pair_stride(task.left.width()));
    const int height = task.left.height();
    const bool isTooNarrow = task.left.width() < INTERPOLATED_PIXELS;
    for (auto* image : {&paired.left, &paired.right, &paired.slope}) {
        image->resize(stride, height);
        if (isTooNarrow) image->fill(0);
    }
    if (isTooNarrow) return;
    parallel_ranges(threads, static_cast<std::size_t>(height), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
        HWY_DYNAMIC_DISPATCH(pair_rows)
        (task, leftDifferences, field, static_cast<int>(begin), static_cast<int>(end), paired);
    });
}

ImageRelation relate_images(const PairedImage& paired, const SecondDifferences& leftDifferences, float ridge,
                            int threads) {
    constexpr int CELL = ImageRelation::CELL;
    const int width = (paired.left.width() + CELL - 1) / CELL, height = (paired.left.height() + CELL - 1) / CELL;
    Raster<CellSums> cells(width, height, CellSums{});
    const RelationTask task{paired, leftDifferences, cells};
    const auto for_rows = [&](const auto& body) {
        parallel_ranges(threads, static_cast<std::size_t>(height), CELL_GRAIN, [&](std::size_t begin, std::size_t end) {
            body(static_cast<int>(begin), static_cast<int>(end));
        });
    };
    for_rows([&](int begin, int end) { HWY_DYNAMIC_DISPATCH(sum_cell_rows)(task, begin, end); });
    const Relation whole = median_relation(cells, ridge).value_or(Relation{});
    ImageRelation relation;
    relation.offset = static_cast<float>(whole.offset);
    relation.misfit = static_cast<float>(whole.misfit);
    for (Raster<float>* values : {&relation.gain, &relation.blurX, &relation.blurY}) values->assign(width, height);
    for_rows([&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            for (int x = 0; x < width; ++x) {
                const RelationSums products = sums_around(cells, x, y, ridge);
                const Relation found = is_seen(products) ? relation_near(whole, products) : whole;
                relation.gain.at(x, y) = static_cast<float>(found.gain);
                relation.blurX.at(x, y) = static_cast<float>(found.blurX);
                relation.blurY.at(x, y) = static_cast<float>(found.blurY);
            }
    });
    return relation;
}

void gather_evidence(const EvidenceTask& task, int threads, SlotEvidence& evidence) {
    evidence.resize(task.gain.width(), task.gain.height());
    parallel_ranges(threads, static_cast<std::size_t>(task.gain.height()), ROW_GRAIN,
                    [&](std::size_t begin, std::size_t end) {
                        HWY_DYNAMIC_DISPATCH(gather_rows)
                        (task, static_cast<int>(begin), static_cast<int>(end), evidence);
                    });
}

}  // namespace VexelAlgorithm
#endif
