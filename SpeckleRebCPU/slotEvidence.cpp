#include "SpeckleRebCPU/slotEvidence.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/slotEvidence.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <Eigen/Dense>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
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
        const Raster<float>& gain = _task.gain;
        const int sample = _task.sample;
        for (std::size_t x = 0; x < _stride; ++x)
            _gain[x] = gain.at(std::min((static_cast<int>(x) + sample / 2) / sample, gain.width() - 1), slotRow);
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
void sum_cell_row(const RelationTask& task, int cellRow) {
    constexpr int CELL = ImageRelation::CELL;
    const auto width = static_cast<std::size_t>(task.paired.left.width());
    std::vector<std::int32_t> columns(RELATION_PRODUCTS * width, 0), present(width);
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
HWY_EXPORT(sum_cell_row);
HWY_EXPORT(gather_rows);

struct Relation {
    bool isKnown = false;
    double offset = 0.0, gain = 1.0, blurX = 0.0, blurY = 0.0;
};

/// Least squares of right = offset + gain left + blurX u + blurY v - step slope, in grey values.
Relation solved(const Eigen::Matrix<double, RELATION_PRODUCTS, 1>& sums, double ridge, double fewest) {
    static const double SCALE[RELATED] = {1.0, 1.0, 1.0 / 16.0, 1.0 / 16.0, 0.5, 0.25};
    if (sums[0] < fewest) return {};
    Eigen::Matrix<double, 5, 5> m;
    Eigen::Matrix<double, 5, 1> right;
    Eigen::Index q = 0;
    for (int a = 0; a < 6; ++a)
        for (int b = a; b < 6; ++b, ++q) {
            const double value = sums[q] * SCALE[a] * SCALE[b];
            if (a == 5) continue;
            if (b == 5)
                right[a] = value;
            else
                m(a, b) = m(b, a) = value;
        }
    m(2, 2) += ridge * sums[0];
    m(3, 3) += ridge * sums[0];
    const Eigen::LDLT<Eigen::Matrix<double, 5, 5>> factors(m);
    if (factors.info() != Eigen::Success || !(factors.vectorD().minCoeff() > 1e-3)) return {};
    const Eigen::Matrix<double, 5, 1> x = factors.solve(right);
    if (!x.allFinite()) return {};
    return {true, x[0], x[1], x[2], x[3]};
}

}  // namespace

void SlotEvidence::resize(int width, int height) {
    for (Raster<float>* sums : {&stepStep, &stepGain, &gainGain, &step, &gain})
        if (sums->width() != width || sums->height() != height) sums->assign(width, height);
}

void pair_images(const SubPixelTask& task, const ParallaxField& field, int threads, PairedImage& paired) {
    const auto stride = static_cast<int>(pair_stride(task.left.width()));
    const int height = task.left.height();
    for (auto* image : {&paired.left, &paired.right, &paired.slope})
        if (image->width() != stride || image->height() != height) image->assign(stride, height);
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
    ImageRelation relation;
    relation.blurX.assign(width, height);
    relation.blurY.assign(width, height);
    relation.gain.assign(width, height, 1.0F);
    Raster<float> offsets(width, height, NO_PARALLAX);
    const auto rows = static_cast<std::size_t>(height);
    parallel_ranges(threads, rows, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y) HWY_DYNAMIC_DISPATCH(sum_cell_row)(task, static_cast<int>(y));
    });
    parallel_ranges(threads, rows, 1, [&](std::size_t begin, std::size_t end) {
        for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y)
            for (int x = 0; x < width; ++x) {
                Eigen::Matrix<double, RELATION_PRODUCTS, 1> sums = Eigen::Matrix<double, RELATION_PRODUCTS, 1>::Zero();
                for (int v = std::max(0, y - 1); v <= std::min(height - 1, y + 1); ++v)
                    for (int u = std::max(0, x - 1); u <= std::min(width - 1, x + 1); ++u)
                        for (std::size_t q = 0; q < RELATION_PRODUCTS; ++q)
                            sums[static_cast<Eigen::Index>(q)] += cells.at(u, v)[q];
                const Relation found = solved(sums, ridge, 0.125 * 9 * CELL * CELL);
                if (!found.isKnown) continue;
                relation.blurX.at(x, y) = static_cast<float>(found.blurX);
                relation.blurY.at(x, y) = static_cast<float>(found.blurY);
                relation.gain.at(x, y) = static_cast<float>(found.gain);
                offsets.at(x, y) = static_cast<float>(found.offset);
            }
    });
    std::vector<float> known;
    std::copy_if(offsets.data(), offsets.data() + offsets.size(), std::back_inserter(known), has_parallax);
    if (known.empty()) return relation;
    const auto middle = known.begin() + static_cast<std::ptrdiff_t>(known.size() / 2);
    std::nth_element(known.begin(), middle, known.end());
    relation.offset = *middle;
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
