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
#include <cstdlib>
#include <optional>
#include <vector>

#include "SpeckleRebCPU/pixelPairs-inl.h"
#include "foundation/parallel.h"

#ifndef VEXEL_SLOT_EVIDENCE_DEFINED
#    define VEXEL_SLOT_EVIDENCE_DEFINED
namespace VexelAlgorithm {

constexpr std::size_t RELATED = 6;  // 1, left, its second differences along x and y, slope, right
constexpr std::size_t RELATION_PRODUCTS = RELATED * (RELATED + 1) / 2;
using CellSums = std::array<std::int32_t, RELATION_PRODUCTS>;

struct RelationTask {
    const PairedImage& paired;
    const SecondDifferences& differences;
    Raster<CellSums>& cells;
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

/// Grey-value products of the pixel pairs around the slots of a row, summed along columns.
class EvidenceRows {
    enum Product : std::size_t { STEP_STEP, STEP_GAIN, GAIN_GAIN, STEP, GAIN, PRODUCTS };

public:
    EvidenceRows(const EvidenceTask& task, SlotEvidence& evidence)
        : _task(task),
          _evidence(evidence),
          _stride(static_cast<std::size_t>(task.paired.left.width())),
          _margin(static_cast<std::size_t>(task.sample)),
          _gain(_stride),
          _blurX(_stride),
          _blurY(_stride) {
        for (auto& column : _columns) column.resize(_stride + 2 * _margin);
    }

    void gather(int slotRow) {
        const int sample = _task.sample;
        spread_gain(slotRow);
        for (auto& column : _columns) std::fill(column.begin(), column.end(), 0.0F);
        for (int dy = 1 - sample; dy < sample; ++dy) {
            const int y = slotRow * sample + dy;
            if (y >= 0 && y < _task.paired.left.height())
                add_row(y, 1.0F - static_cast<float>(std::abs(dy)) / static_cast<float>(sample));
        }
        float* rows[PRODUCTS] = {_evidence.stepStep.row(slotRow), _evidence.stepGain.row(slotRow),
                                 _evidence.gainGain.row(slotRow), _evidence.step.row(slotRow),
                                 _evidence.gain.row(slotRow)};
        for (std::size_t k = 0; k < PRODUCTS; ++k) sum_columns(_columns[k].data() + _margin, rows[k]);
    }

private:
    void spread_gain(int slotRow) {
        const float* gain = _task.gain.row(slotRow);
        const int sample = _task.sample, width = _task.gain.width(), end = static_cast<int>(_stride);
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

    void add_row(int y, float rowWeight) {
        const FloatTag d;
        spread_blur(y);
        const std::int16_t *left = _task.paired.left.row(y), *right = _task.paired.right.row(y);
        const std::int16_t *slopes = _task.paired.slope.row(y), *alongX = _task.leftDifferences.alongX.row(y);
        const std::int16_t* alongY = _task.leftDifferences.alongY.row(y);
        const auto offset = hn::Set(d, _task.relation.offset), weight = hn::Set(d, rowWeight);
        const auto sixteenth = hn::Set(d, 1.0F / 16.0F), one = hn::Set(d, 1.0F);
        const auto outlier = hn::Set(d, 1.0F / (_task.outlier * _task.outlier));
        for (std::size_t x = 0; x < _stride; x += hn::Lanes(d)) {
            const auto f = load_short(left + x);
            const auto slope = hn::Mul(load_short(slopes + x), hn::Set(d, -1.0F / SLOPE_SCALE));
            const auto blur = hn::Add(hn::Mul(hn::LoadU(d, _blurX.data() + x), load_short(alongX + x)),
                                      hn::Mul(hn::LoadU(d, _blurY.data() + x), load_short(alongY + x)));
            const auto target = hn::Sub(hn::Sub(hn::Mul(load_short(right + x), hn::Set(d, 1.0F / GREY_SCALE)), offset),
                                        hn::Mul(blur, sixteenth));
            const auto misfit = hn::Sub(hn::Mul(hn::LoadU(d, _gain.data() + x), f), target);
            const auto w = hn::Div(weight, hn::Add(one, hn::Mul(outlier, hn::Mul(misfit, misfit))));
            const auto wslope = hn::Mul(w, slope), wf = hn::Mul(w, f);
            const auto add = [&](Product product, FloatVec value) {
                float* sums = _columns[product].data() + _margin + x;
                hn::StoreU(hn::Add(hn::LoadU(d, sums), value), d, sums);
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
    std::array<std::vector<float>, PRODUCTS> _columns;
    int _cellRow = -1;
};

}  // namespace

void pair_rows(const SubPixelTask& task, const ParallaxField& field, int begin, int end, PairedImage& paired) {
    RowPairing pairing(task, field);
    PairRow row;
    row.assign(pairing.stride());
    for (int y = begin; y < end; ++y) {
        pairing.pair_row(y, row);
        const std::int16_t* count = row.count.data();
        std::int16_t *left = paired.left.row(y), *right = paired.right.row(y), *slope = paired.slope.row(y);
        constexpr std::int16_t MIDDLE = 128;
        for (std::size_t x = 0; x < pairing.stride(); ++x) {
            left[x] =
                static_cast<std::int16_t>(row.values[F][x] / static_cast<std::int16_t>(GREY_SCALE) + MIDDLE * count[x]);
            right[x] =
                static_cast<std::int16_t>(row.values[G][x] + static_cast<std::int16_t>(GREY_SCALE) * MIDDLE * count[x]);
            slope[x] = row.values[D][x];
        }
    }
}

/// Every other row is enough.
void sum_cell_row(const RelationTask& task, int cellRow, std::vector<std::int32_t>& columns,
                  std::vector<std::int32_t>& present) {
    constexpr int CELL = ImageRelation::CELL;
    const std::size_t width = present.size();
    std::fill(columns.begin(), columns.end(), 0);
    for (int y = cellRow * CELL; y < std::min((cellRow + 1) * CELL, task.paired.left.height()); y += 2) {
        const std::int16_t *left = task.paired.left.row(y), *right = task.paired.right.row(y);
        for (std::size_t x = 0; x < width; ++x) present[x] = left[x] != 0 || right[x] != 0 ? -1 : 0;
        const std::int16_t* values[RELATED] = {
            nullptr, left, task.differences.alongX.row(y), task.differences.alongY.row(y), task.paired.slope.row(y),
            right};
        std::int32_t* sums = columns.data();
        for (std::size_t x = 0; x < width; ++x) sums[x] -= present[x];
        for (std::size_t b = 1; b < RELATED; ++b) {
            sums += width;
            for (std::size_t x = 0; x < width; ++x) sums[x] += values[b][x] & present[x];
        }
        for (std::size_t a = 1; a < RELATED; ++a)
            for (std::size_t b = a; b < RELATED; ++b) {
                sums += width;
                for (std::size_t x = 0; x < width; ++x) sums[x] += (values[a][x] * values[b][x]) & present[x];
            }
    }
    CellSums* cells = task.cells.row(cellRow);
    for (std::size_t q = 0; q < RELATION_PRODUCTS; ++q)
        for (std::size_t x = 0; x < width; ++x) cells[x / CELL][q] += columns[q * width + x];
}

void sum_cell_rows(const RelationTask& task, int begin, int end) {
    const auto width = static_cast<std::size_t>(task.paired.left.width());
    std::vector<std::int32_t> columns(RELATION_PRODUCTS * width), present(width);
    for (int row = begin; row < end; ++row) sum_cell_row(task, row, columns, present);
}

void gather_rows(const EvidenceTask& task, int begin, int end, SlotEvidence& evidence) {
    EvidenceRows rows(task, evidence);
    for (int row = begin; row < end; ++row) rows.gather(row);
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

/// Over 3 x 3 cells.
RelationSums sums_around(const Raster<CellSums>& cells, int x, int y) {
    static constexpr double SCALE[RELATED] = {1.0, 1.0, 1.0 / 16.0, 1.0 / 16.0, 0.5, 0.25};
    std::array<std::int64_t, RELATION_PRODUCTS> sums{};
    for (int v = std::max(0, y - 1); v <= std::min(cells.height() - 1, y + 1); ++v)
        for (int u = std::max(0, x - 1); u <= std::min(cells.width() - 1, x + 1); ++u)
            for (std::size_t q = 0; q < RELATION_PRODUCTS; ++q) sums[q] += cells.at(u, v)[q];
    RelationSums products;
    std::size_t q = 0;
    for (int a = 0; a < static_cast<int>(RELATED); ++a)
        for (int b = a; b < static_cast<int>(RELATED); ++b, ++q)
            products(a, b) = products(b, a) = static_cast<double>(sums[q]) * SCALE[a] * SCALE[b];
    return products;
}

struct Relation {
    double offset = 0.0, gain = 1.0, blurX = 0.0, blurY = 0.0;
};

/// Least squares of right = offset + gain left + blurX u + blurY v - step slope with a free offset.
std::optional<Relation> free_relation(RelationSums products, double ridge) {
    constexpr double LEAST_VARIANCE = 4.0;  // squared grey values
    const double count = products(0, 0);
    if (!(products(1, 1) - products(0, 1) * products(0, 1) / count > LEAST_VARIANCE * count)) return std::nullopt;
    products(2, 2) += ridge * count;
    products(3, 3) += ridge * count;
    products(4, 4) += count;  // even images have no slopes
    const Eigen::Matrix<double, 5, 1> x = products.topLeftCorner<5, 5>().ldlt().solve(products.topRightCorner<5, 1>());
    if (!x.allFinite()) return std::nullopt;
    return Relation{x[0], x[1], x[2], x[3]};
}

/// The same with an offset that is known.
Relation relation_with(double offset, double medianGain, RelationSums products, double ridge) {
    const double count = products(0, 0);
    Eigen::Vector4d right = products.block<4, 1>(1, 5) - offset * products.block<4, 1>(1, 0);
    right[0] += GAIN_RIDGE * count * medianGain;
    products(1, 1) += GAIN_RIDGE * count;
    products(2, 2) += ridge * count;
    products(3, 3) += ridge * count;
    products(4, 4) += count;
    const Eigen::Vector4d x = products.block<4, 4>(1, 1).ldlt().solve(right);
    if (!x.allFinite()) return {offset, medianGain, 0.0, 0.0};
    return {offset, x[0], x[1], x[2]};
}

float median_of(std::vector<float> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

void SlotEvidence::resize(int width, int height) {
    for (Raster<float>* sums : {&stepStep, &stepGain, &gainGain, &step, &gain})
        if (sums->width() != width || sums->height() != height) sums->assign(width, height);
}

void pair_images(const SubPixelTask& task, const ParallaxField& field, int threads, PairedImage& paired) {
    const auto stride = static_cast<int>(pair_stride(task.left.width()));
    const int height = task.left.height();
    const bool isTooNarrow = task.left.width() < INTERPOLATED_PIXELS;
    for (auto* image : {&paired.left, &paired.right, &paired.slope})
        if (isTooNarrow || image->width() != stride || image->height() != height) image->assign(stride, height);
    if (isTooNarrow) return;
    parallel_ranges(threads, static_cast<std::size_t>(height), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
        HWY_DYNAMIC_DISPATCH(pair_rows)(task, field, static_cast<int>(begin), static_cast<int>(end), paired);
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
    const auto is_seen = [](const RelationSums& products) {
        return products(0, 0) >= LEAST_SHARE * 0.5 * 9 * CELL * CELL;
    };

    Raster<float> offset(width, height, NO_PARALLAX), gain = offset;
    for_rows([&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            for (int x = 0; x < width; ++x) {
                const RelationSums products = sums_around(cells, x, y);
                const std::optional<Relation> found = is_seen(products) ? free_relation(products, ridge) : std::nullopt;
                if (!found) continue;
                offset.at(x, y) = static_cast<float>(found->offset);
                gain.at(x, y) = static_cast<float>(found->gain);
            }
    });
    ImageRelation relation;
    relation.blurX.assign(width, height);
    relation.blurY.assign(width, height);
    relation.gain.assign(width, height, 1.0F);
    std::vector<float> offsets, gains;
    for (std::size_t i = 0; i < offset.size(); ++i) {
        if (std::isnan(offset[i])) continue;
        offsets.push_back(offset[i]);
        gains.push_back(gain[i]);
    }
    if (offsets.empty()) return relation;
    relation.offset = median_of(offsets);
    const float medianGain = median_of(gains);
    for_rows([&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            for (int x = 0; x < width; ++x) {
                const RelationSums products = sums_around(cells, x, y);
                const Relation found = is_seen(products) ? relation_with(relation.offset, medianGain, products, ridge)
                                                         : Relation{relation.offset, medianGain, 0.0, 0.0};
                relation.blurX.at(x, y) = static_cast<float>(found.blurX);
                relation.blurY.at(x, y) = static_cast<float>(found.blurY);
                relation.gain.at(x, y) = static_cast<float>(found.gain);
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
