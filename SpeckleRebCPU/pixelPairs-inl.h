// A row of the left image, paired pixel by pixel with what the right image shows under a parallax field.
#if defined(VEXEL_PIXEL_PAIRS_INL) == defined(HWY_TARGET_TOGGLE)
#    ifdef VEXEL_PIXEL_PAIRS_INL
#        undef VEXEL_PIXEL_PAIRS_INL
#    else
#        define VEXEL_PIXEL_PAIRS_INL
#    endif

#    include <hwy/highway.h>

#    include <algorithm>
#    include <array>
#    include <cstddef>
#    include <cstdint>
#    include <cstring>
#    include <vector>

#    include "SpeckleRebCPU/rowPrediction-inl.h"
#    include "SpeckleRebCPU/splineWeights-inl.h"
#    include "SpeckleRebCPU/subPixelStep.h"

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

// Fixed point: grey values around 128 in quarters, derivatives in halves.
constexpr float GREY_SCALE = 4.0F;
constexpr float SLOPE_SCALE = 2.0F;
constexpr std::int32_t COUNTS_UNLESS_CLIPPED = 2;

/// What is known of a pair of pixels: the left grey value f, the derivative d of the right image and its grey value
/// g.
constexpr std::size_t QUANTITIES = 3;
enum Quantity : std::size_t { F, D, G };

/// A row of pixel pairs; all zero where there is none.
struct PairRow {
    std::vector<std::int16_t> count;
    std::array<std::vector<std::int16_t>, QUANTITIES> values;

    void assign(std::size_t size) {
        count.assign(size, 0);
        for (auto& quantity : values) quantity.assign(size, 0);
    }
};

class RowPairing {
    using FloatTag = hn::ScalableTag<float>;
    using IntTag = hn::RebindToSigned<FloatTag>;
    using ShortTag = hn::Rebind<std::int16_t, FloatTag>;
    using IntVec = hn::Vec<IntTag>;
    using FloatVec = hn::Vec<FloatTag>;
    static constexpr std::size_t BLOCK = SUB_PIXEL_BLOCK;

public:
    RowPairing(const SubPixelTask& task, const ParallaxField& field)
        : _task(task),
          _width(task.left.width()),
          _stride(pair_stride(_width)),
          _prediction(field, task.sample, task.jump, _stride) {}

    /// Pixels of a row, rounded up to whole blocks.
    std::size_t stride() const { return _stride; }

    void pair_row(int y, PairRow& row) {
        const float* predicted = _prediction.predict(y);
        for (std::size_t x = 0; x < _stride; x += BLOCK) resample_block(y, x, predicted + x, row);
    }

    /// Of the facets that the pixels of the row that was paired last lie on.
    RowPrediction::Slopes slopes() { return _prediction.slopes(); }

private:
    /// Positions first, then the four pixels and coefficients around each, then the interpolation: the second is scalar
    /// work.
    void resample_block(int y, std::size_t first, const float* predicted, PairRow& row) {
        const FloatTag d;
        const IntTag di;
        const std::size_t lanes = hn::Lanes(d);
        HWY_ALIGN float fractions[BLOCK];
        HWY_ALIGN std::int32_t offset[BLOCK], counts[BLOCK], pixels[BLOCK], grey[BLOCK] = {}, cover[BLOCK] = {};
        HWY_ALIGN std::int16_t taps[4 * BLOCK], fine[BLOCK] = {};
        const std::size_t inside = std::min(BLOCK, static_cast<std::size_t>(_width) - first);
        const std::uint8_t* left = _task.left.row(y) + first;
        const std::uint8_t* leftCover = _task.leftCover.row(y) + first;
        for (std::size_t i = 0; i < inside; ++i) grey[i] = left[i];
        for (std::size_t i = 0; i < inside; ++i) cover[i] = leftCover[i];
        std::copy_n(_task.fine.left.row(y) + first, inside, fine);

        const auto one = hn::Set(d, 1.0F);
        const auto end = hn::Set(d, static_cast<float>(_width - 2));
        for (std::size_t i = 0; i < BLOCK; i += lanes) {
            const auto x = hn::Add(hn::LoadU(d, predicted + i), hn::Iota(d, static_cast<float>(first + i)));
            const auto covered = hn::Ne(hn::Load(di, cover + i), hn::Zero(di));
            const auto counted = hn::And(hn::And(hn::Ge(x, one), hn::Lt(x, end)), hn::RebindMask(d, covered));
            const auto position = hn::IfThenElse(counted, x, one);
            const auto column = hn::ConvertTo(di, position);
            hn::Store(hn::Sub(position, hn::ConvertTo(d, column)), d, fractions + i);
            hn::Store(hn::Sub(column, hn::Set(di, 1)), di, offset + i);
            hn::Store(hn::IfThenElseZero(hn::RebindMask(di, counted), hn::Set(di, 1)), di, counts + i);
        }
        const std::uint8_t* right = _task.right.row(y);
        const std::int16_t* spline = _task.fine.right.row(y);
        for (std::size_t i = 0; i < BLOCK; ++i) {
            std::memcpy(&pixels[i], right + offset[i], sizeof pixels[i]);
            std::memcpy(taps + 4 * i, spline + offset[i], 4 * sizeof *taps);
        }
        for (std::size_t i = 0; i < BLOCK; i += lanes) {
            const auto own = hn::Load(di, grey + i), pair = hn::Load(di, pixels + i);
            const auto isOut = hn::And(hn::Eq(hn::Load(di, cover + i), hn::Set(di, COUNTS_UNLESS_CLIPPED)),
                                       hn::Gt(brightest(own, pair), hn::Set(di, _task.clippedGrey - 1)));
            const auto counted = hn::IfThenZeroElse(isOut, hn::Load(di, counts + i));
            const auto is_counted = hn::Ne(counted, hn::Zero(di));
            const auto store = [&](std::vector<std::int16_t>& values, IntVec value) {
                hn::StoreU(hn::DemoteTo(ShortTag(), hn::IfThenElseZero(is_counted, value)), ShortTag(),
                           values.data() + first + i);
            };
            store(row.count, counted);
            const auto quarter = hn::Set(d, GREY_SCALE / FINE_SCALE), half = hn::Set(d, SLOPE_SCALE / FINE_SCALE);
            const auto ownFine = hn::ConvertTo(d, hn::PromoteTo(di, hn::Load(ShortTag(), fine + i)));
            store(row.values[F], hn::NearestInt(hn::Mul(quarter, ownFine)));
            const auto fraction = hn::Load(d, fractions + i);
            const SplineTaps around = load_taps(taps + 4 * i);
            store(row.values[D], hn::NearestInt(hn::Mul(half, weighted(around, spline_slopes(fraction)))));
            store(row.values[G], hn::NearestInt(hn::Mul(quarter, weighted(around, spline_weights(fraction)))));
        }
    }

    /// Of the left pixel and the four right ones.
    static IntVec brightest(IntVec left, IntVec right) {
        const IntTag di;
        const auto byte = hn::Set(di, 255);
        const auto inner = hn::Max(hn::And(hn::ShiftRight<8>(right), byte), hn::And(hn::ShiftRight<16>(right), byte));
        const auto outer = hn::Max(hn::And(right, byte), hn::And(hn::ShiftRight<24>(right), byte));
        return hn::Max(left, hn::Max(inner, outer));
    }

    const SubPixelTask& _task;
    const int _width;
    const std::size_t _stride;
    RowPrediction _prediction;
};

}  // namespace
}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#endif
