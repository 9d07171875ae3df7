#include "SpeckleRebCPU/subPixelStep.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/subPixelStep.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

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
using ByteTag = hn::Rebind<std::uint8_t, FloatTag>;
using IntVec = hn::Vec<IntTag>;
using FloatVec = hn::Vec<FloatTag>;

constexpr std::size_t BLOCK = 64;  // pixels between two stages of resampling

// Fixed point: grey values around 128 in quarters, derivatives in halves. The sums of the largest window of the
// strongest contrast stay below 2^31, and integers that enter and leave a sliding sum cancel exactly.
constexpr float GREY_SCALE = 4.0F;
constexpr float SLOPE_SCALE = 2.0F;

/// Which sums a window needs: number of pixels, left f, right g, derivative d of g, and their products.
enum Sum { N, F, G, D, FF, GG, FG, DD, DF, DG, SUMS };

/// A row of pixel pairs; all zero where there is none.
struct PairRow {
    std::vector<std::int16_t> n, f, g, d;
};

class BandSearch {
public:
    explicit BandSearch(const SubPixelBand& band)
        : _band(band),
          _width(band.task.left.width()),
          _height(band.task.left.height()),
          _halfWidth(band.task.windowWidth / 2),
          _halfHeight(band.task.windowHeight / 2),
          _stride((static_cast<std::size_t>(_width) + BLOCK - 1) / BLOCK * BLOCK),
          _ring(static_cast<std::size_t>(band.task.windowHeight)),
          _predicted(_stride) {
        for (PairRow& row : _ring)
            for (auto* values : {&row.n, &row.f, &row.g, &row.d}) values->assign(_stride, 0);
        _none = _ring.front();
        const std::size_t padding = static_cast<std::size_t>(band.task.windowWidth + band.task.sample);
        for (std::vector<std::int32_t>& column : _columns) column.assign(_stride + 2 * padding, 0);
        _before = padding;
    }

    void run(int slotBegin, int slotEnd) {
        const int sample = _band.task.sample;
        int next = slotBegin * sample - _halfHeight;
        _first = next;
        for (int slotRow = slotBegin; slotRow < slotEnd; ++slotRow) {
            for (; next <= slotRow * sample + _halfHeight; ++next) slide_down(next);
            solve_row(slotRow);
        }
    }

private:
    void slide_down(int y) {
        PairRow& slot = _ring[static_cast<std::size_t>((y - _first) % _band.task.windowHeight)];
        const bool leaves = y - _band.task.windowHeight >= _first;
        if (leaves) add_row(slot, -1);
        if (y < 0 || y >= _height) {
            slot = _none;
        } else {
            resample_row(y, slot);
        }
        add_row(slot, +1);
    }

    /// What the facets of the row's slots predict for each pixel; NaN for none.
    void predict_row(int y) {
        const ParallaxField& field = _band.field;
        const int sample = _band.task.sample;
        const int slotRow = std::min((y + sample / 2) / sample, field.parallax.height() - 1);
        const auto dy = static_cast<float>(y - slotRow * sample);
        const float* parallax = field.parallax.row(slotRow);
        const float* slopeX = field.slopeX.row(slotRow);
        const float* slopeY = field.slopeY.row(slotRow);
        std::fill(_predicted.begin(), _predicted.end(), NO_PARALLAX);
        const int slots = field.parallax.width();
        for (int slot = 0; slot < slots; ++slot) {
            const float centre = parallax[slot] + slopeY[slot] * dy;
            for (int dx = -(sample / 2); dx < sample - sample / 2; ++dx) {
                const int x = slot * sample + dx;
                if (x >= 0 && x < _width)
                    _predicted[static_cast<std::size_t>(x)] = centre + slopeX[slot] * static_cast<float>(dx);
            }
        }
    }

    void resample_row(int y, PairRow& row) {
        predict_row(y);
        for (std::size_t x = 0; x < _stride; x += BLOCK) resample_block(y, x, row);
    }

    /// Positions first, then the four pixels around each, then the interpolation: the second is scalar work.
    void resample_block(int y, std::size_t first, PairRow& row) {
        const FloatTag d;
        const IntTag di;
        const std::size_t lanes = hn::Lanes(d);
        HWY_ALIGN float fraction[BLOCK];
        HWY_ALIGN std::int32_t offset[BLOCK], counts[BLOCK], pixels[BLOCK], grey[BLOCK] = {}, cover[BLOCK] = {};
        const std::size_t inside = std::min(BLOCK, static_cast<std::size_t>(_width) - first);
        const std::uint8_t* left = _band.task.left.row(y) + first;
        const std::uint8_t* leftCover = _band.task.leftCover.row(y) + first;
        for (std::size_t i = 0; i < inside; ++i) grey[i] = left[i];
        for (std::size_t i = 0; i < inside; ++i) cover[i] = leftCover[i];

        const auto one = hn::Set(d, 1.0F);
        const auto end = hn::Set(d, static_cast<float>(_width - 2));
        for (std::size_t i = 0; i < BLOCK; i += lanes) {
            const auto x =
                hn::Add(hn::LoadU(d, _predicted.data() + first + i), hn::Iota(d, static_cast<float>(first + i)));
            const auto covered = hn::Ne(hn::Load(di, cover + i), hn::Zero(di));
            const auto counted = hn::And(hn::And(hn::Ge(x, one), hn::Lt(x, end)), hn::RebindMask(d, covered));
            const auto position = hn::IfThenElse(counted, x, one);
            const auto column = hn::ConvertTo(di, position);
            hn::Store(hn::Sub(position, hn::ConvertTo(d, column)), d, fraction + i);
            hn::Store(hn::Sub(column, hn::Set(di, 1)), di, offset + i);
            hn::Store(hn::IfThenElseZero(hn::RebindMask(di, counted), hn::Set(di, 1)), di, counts + i);
        }
        const std::uint8_t* right = _band.task.right.row(y);
        for (std::size_t i = 0; i < BLOCK; ++i) std::memcpy(&pixels[i], right + offset[i], sizeof pixels[i]);
        for (std::size_t i = 0; i < BLOCK; i += lanes)
            interpolate(hn::Load(di, pixels + i), hn::Load(d, fraction + i), hn::Load(di, counts + i),
                        hn::Load(di, grey + i), row, first + i);
    }

    static void store_short(IntVec value, std::int16_t* target) {
        hn::StoreU(hn::DemoteTo(ShortTag(), value), ShortTag(), target);
    }

    static void interpolate(IntVec pixels, FloatVec t, IntVec counts, IntVec grey, PairRow& row, std::size_t x) {
        const FloatTag d;
        const IntTag di;
        const auto byte = hn::Set(di, 255);
        const auto p0 = hn::ConvertTo(d, hn::And(pixels, byte));
        const auto p1 = hn::ConvertTo(d, hn::And(hn::ShiftRight<8>(pixels), byte));
        const auto p2 = hn::ConvertTo(d, hn::And(hn::ShiftRight<16>(pixels), byte));
        const auto p3 = hn::ConvertTo(d, hn::And(hn::ShiftRight<24>(pixels), byte));
        const auto half = hn::Set(d, 0.5F);
        // p1 + c1 t + c2 t^2 + c3 t^3
        const auto c1 = hn::Mul(half, hn::Sub(p2, p0));
        const auto c3 = hn::Add(hn::Mul(hn::Set(d, 1.5F), hn::Sub(p1, p2)), hn::Mul(half, hn::Sub(p3, p0)));
        const auto c2 = hn::Sub(hn::Sub(hn::Sub(p2, p1), c1), c3);
        const auto value = hn::Add(p1, hn::Mul(t, hn::Add(c1, hn::Mul(t, hn::Add(c2, hn::Mul(t, c3))))));
        const auto slope = hn::Add(c1, hn::Mul(t, hn::Add(hn::Add(c2, c2), hn::Mul(hn::Mul(hn::Set(d, 3.0F), t), c3))));

        const auto is_counted = hn::Ne(counts, hn::Zero(di));
        const auto centred = hn::Mul(hn::Sub(value, hn::Set(d, 128.0F)), hn::Set(d, GREY_SCALE));
        const auto own = hn::ShiftLeft<2>(hn::Sub(grey, hn::Set(di, 128)));
        store_short(counts, row.n.data() + x);
        store_short(hn::IfThenElseZero(is_counted, own), row.f.data() + x);
        store_short(hn::IfThenElseZero(is_counted, hn::NearestInt(centred)), row.g.data() + x);
        store_short(hn::IfThenElseZero(is_counted, hn::NearestInt(hn::Mul(slope, hn::Set(d, SLOPE_SCALE)))),
                    row.d.data() + x);
    }

    void add_row(const PairRow& row, int sign) {
        const IntTag di;
        const ShortTag ds;
        const std::size_t lanes = hn::Lanes(di);
        const auto factor = hn::Set(di, sign);
        std::int32_t* sums[SUMS];
        for (int q = 0; q < SUMS; ++q) sums[q] = _columns[static_cast<std::size_t>(q)].data() + _before;
        for (std::size_t x = 0; x < _stride; x += lanes) {
            const auto load = [&](const std::vector<std::int16_t>& values) {
                return hn::PromoteTo(di, hn::LoadU(ds, values.data() + x));
            };
            const auto add = [&](Sum q, IntVec value) {
                hn::StoreU(hn::Add(hn::LoadU(di, sums[q] + x), value), di, sums[q] + x);
            };
            const auto n = load(row.n), f = load(row.f), g = load(row.g), dg = load(row.d);
            const auto signedF = hn::Mul(f, factor), signedG = hn::Mul(g, factor), signedD = hn::Mul(dg, factor);
            add(N, hn::Mul(n, factor));
            add(F, signedF);
            add(G, signedG);
            add(D, signedD);
            add(FF, hn::Mul(signedF, f));
            add(GG, hn::Mul(signedG, g));
            add(FG, hn::Mul(signedF, g));
            add(DD, hn::Mul(signedD, dg));
            add(DF, hn::Mul(signedD, f));
            add(DG, hn::Mul(signedD, g));
        }
    }

    using Sums = std::array<std::int32_t, SUMS>;

    void solve_row(int slotRow) {
        const int sample = _band.task.sample;
        const int slots = _band.field.parallax.width();
        const float* parallax = _band.field.parallax.row(slotRow);
        float* step = _band.step.row(slotRow);
        float* score = _band.score.row(slotRow);
        const std::int32_t* columns[SUMS];
        for (int q = 0; q < SUMS; ++q) columns[q] = _columns[static_cast<std::size_t>(q)].data() + _before;

        Sums sums{};
        for (int x = -_halfWidth; x < _halfWidth; ++x)
            for (int q = 0; q < SUMS; ++q) sums[static_cast<std::size_t>(q)] += columns[q][x];
        std::ptrdiff_t entering = _halfWidth, leaving = -_halfWidth - 1;
        const std::ptrdiff_t last = static_cast<std::ptrdiff_t>(_stride) + _band.task.windowWidth;
        for (int q = 0; q < SUMS; ++q) sums[static_cast<std::size_t>(q)] += columns[q][entering];
        for (int slot = 0; slot < slots; ++slot) {
            step[slot] = NO_PARALLAX;
            score[slot] = 0.0F;
            if (has_parallax(parallax[slot])) solve(sums, step[slot], score[slot]);
            for (int k = 0; k < sample && entering < last; ++k) {
                ++entering;
                ++leaving;
                for (int q = 0; q < SUMS; ++q)
                    sums[static_cast<std::size_t>(q)] += columns[q][entering] - columns[q][leaving];
            }
        }
    }

    void solve(const Sums& sums, float& step, float& score) const {
        if (2 * sums[N] < _band.task.windowWidth * _band.task.windowHeight) return;
        const double n = sums[N], f = sums[F], g = sums[G], d = sums[D];
        const double ff = sums[FF] - f * f / n, gg = sums[GG] - g * g / n, fg = sums[FG] - f * g / n;
        const double dd = sums[DD] - d * d / n, df = sums[DF] - d * f / n, dg = sums[DG] - d * g / n;
        if (!(ff > 0.0) || !(gg > 0.0) || !(dd > 0.0)) return;
        score = static_cast<float>(fg / std::sqrt(ff * gg));
        // The left window brought to the contrast of the right one.
        const double difference = std::sqrt(gg / ff) * df - dg;
        step = static_cast<float>(difference / dd * (SLOPE_SCALE / GREY_SCALE));
    }

    const SubPixelBand& _band;
    const int _width, _height, _halfWidth, _halfHeight;
    const std::size_t _stride;
    std::vector<PairRow> _ring;  ///< the rows inside the window
    PairRow _none;
    std::vector<float> _predicted;
    std::array<std::vector<std::int32_t>, SUMS> _columns;  ///< sums over the rows of the window, zeros on both sides
    std::size_t _before = 0;
    int _first = 0;
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
constexpr int SMALLEST_WIDTH = 4;        // pixels of one interpolation

HWY_EXPORT(search_band);

}  // namespace

void find_sub_pixel_steps(const SubPixelTask& task, const ParallaxField& field, int threads, Raster<float>& step,
                          Raster<float>& score) {
    step.assign(field.parallax.width(), field.parallax.height(), NO_PARALLAX);
    score.assign(field.parallax.width(), field.parallax.height(), 0.0F);
    if (task.left.width() < SMALLEST_WIDTH) return;
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
