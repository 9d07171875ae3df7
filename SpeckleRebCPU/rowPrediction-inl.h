// Where the right image shows the pixels of a row, as the slots of a parallax field predict it.
#if defined(VEXEL_ROW_PREDICTION_INL) == defined(HWY_TARGET_TOGGLE)
#    ifdef VEXEL_ROW_PREDICTION_INL
#        undef VEXEL_ROW_PREDICTION_INL
#    else
#        define VEXEL_ROW_PREDICTION_INL
#    endif

#    include <hwy/highway.h>

#    include <algorithm>
#    include <cstddef>
#    include <limits>
#    include <utility>
#    include <vector>

#    include "SpeckleRebCPU/ParallaxField.h"

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

/// Between slots of one surface the parallax is interpolated, so that what the pixels say of it and what the slots make
/// of it are the same surface, creases included. Beside gaps and jumps a slot's facet reaches half-way to where the
/// next slot would be. Pixels that no slot reaches get NaN.
class RowPrediction {
    using FloatTag = hn::ScalableTag<float>;
    using FloatVec = hn::Vec<FloatTag>;

public:
    /// Neighbours that differ by no more than `jump` pixels belong to one surface. A row has at least `pixels` values.
    RowPrediction(const ParallaxField& field, int sample, float jump, std::size_t pixels)
        : _field(field), _sample(sample), _jump(jump), _slots(field.parallax.width()) {
        const std::size_t lanes = hn::Lanes(FloatTag());
        const std::size_t slots = (static_cast<std::size_t>(_slots) + lanes - 1) / lanes * lanes;
        for (SlotRow* row : {&_above, &_below, &_between}) row->assign(slots + lanes);
        const std::size_t reached = std::max(pixels, slots * static_cast<std::size_t>(sample));
        _pixels.assign(reached, NO_PARALLAX);
        for (auto* values : {&_slopesX, &_slopesY}) values->assign(reached, 0.0F);
    }

    RowPrediction(const RowPrediction&) = delete;
    RowPrediction& operator=(const RowPrediction&) = delete;

    /// Right column less left column of each pixel.
    const float* predict(int y) {
        meet_rows(y);
        const FloatTag d;
        const float *parallax = _present->parallax.data(), *slope = _present->slopeX.data();
        spread(_pixels, [&](int x, int k) {
            return between(hn::LoadU(d, parallax + x), hn::LoadU(d, parallax + x + 1), hn::LoadU(d, slope + x),
                           hn::LoadU(d, slope + x + 1), k);
        });
        return _pixels.data();
    }

    struct Slopes {
        const float *alongX, *alongY;
    };
    /// Of the facets that the pixels of the row that was predicted last lie on; where nothing is predicted they mean
    /// nothing. They last until the next row.
    Slopes slopes() {
        const FloatTag d;
        const float* parallax = _present->parallax.data();
        const auto spread_slopes = [&](const std::vector<float>& slots, std::vector<float>& pixels) {
            spread(pixels, [&](int x, int k) {
                return covering(hn::LoadU(d, parallax + x + 1), hn::LoadU(d, slots.data() + x),
                                hn::LoadU(d, slots.data() + x + 1), k);
            });
        };
        spread_slopes(_present->slopeX, _slopesX);
        spread_slopes(_present->slopeY, _slopesY);
        return {_slopesX.data(), _slopesY.data()};
    }

private:
    /// Padded, so that vectors and the slot behind them can be loaded; what pads is empty.
    struct SlotRow {
        std::vector<float> parallax, slopeX, slopeY;

        void assign(std::size_t size) {
            parallax.assign(size, NO_PARALLAX);
            slopeX.assign(size, 0.0F);
            slopeY.assign(size, 0.0F);
        }
    };

    /// The slots as they are in a row of pixels, which lies on a row of slots or between two.
    void meet_rows(int y) {
        const int row = std::min(y / _sample, _field.parallax.height() - 1), k = y - row * _sample;
        load_rows(row);
        _present = k == 0 ? &_above : &_between;
        if (k == 0) return;
        for (int x = 0; x < _slots; x += static_cast<int>(hn::Lanes(FloatTag()))) meet_slots(x, k);
    }

    /// A vector of slots, `k` pixels below the upper ones.
    void meet_slots(int x, int k) {
        const FloatTag d;
        const auto load = [&](const std::vector<float>& values) { return hn::LoadU(d, values.data() + x); };
        const auto first = load(_above.parallax), second = load(_below.parallax);
        const auto slopeAbove = load(_above.slopeY), slopeBelow = load(_below.slopeY);
        hn::StoreU(between(first, second, slopeAbove, slopeBelow, k), d, _between.parallax.data() + x);
        hn::StoreU(covering(second, load(_above.slopeX), load(_below.slopeX), k), d, _between.slopeX.data() + x);
        hn::StoreU(covering(second, slopeAbove, slopeBelow, k), d, _between.slopeY.data() + x);
    }

    void load_rows(int row) {
        if (row == _row) return;
        if (row == _row + 1) {
            std::swap(_above, _below);
        } else {
            load_row(row, _above);
        }
        load_row(row + 1, _below);
        _row = row;
    }

    void load_row(int y, SlotRow& row) const {
        if (y >= _field.parallax.height()) {
            std::fill(row.parallax.begin(), row.parallax.end(), NO_PARALLAX);
            return;
        }
        std::copy_n(_field.parallax.row(y), _slots, row.parallax.begin());
        std::copy_n(_field.slopeX.row(y), _slots, row.slopeX.begin());
        std::copy_n(_field.slopeY.row(y), _slots, row.slopeY.begin());
    }

    /// The parallax `k` pixels behind one slot on the way to the next.
    FloatVec between(FloatVec first, FloatVec second, FloatVec firstSlope, FloatVec secondSlope, int k) const {
        const FloatTag d;
        const auto way = static_cast<float>(k), rest = static_cast<float>(_sample - k);
        const auto difference = hn::Sub(second, first);
        const auto isOneSurface = hn::Le(hn::Abs(difference), hn::Set(d, _jump));
        const auto onSurface = hn::Add(first, hn::Mul(difference, hn::Set(d, way / static_cast<float>(_sample))));
        auto fromFirst = hn::Add(first, hn::Mul(firstSlope, hn::Set(d, way)));
        if (2 * k > _sample) fromFirst = hn::Set(d, NO_PARALLAX);
        const auto fromSecond = hn::Sub(second, hn::Mul(secondSlope, hn::Set(d, rest)));
        return hn::IfThenElse(isOneSurface, onSurface, covering(second, fromFirst, fromSecond, k));
    }

    /// What belongs to the facet that a pixel lies on, `k` pixels behind the first slot: the nearer one that is there,
    /// the second one in the middle.
    FloatVec covering(FloatVec secondParallax, FloatVec ofFirst, FloatVec ofSecond, int k) const {
        if (2 * k < _sample) return ofFirst;
        return hn::IfThenElse(hn::Eq(secondParallax, secondParallax), ofSecond, ofFirst);  // not where it is NaN
    }

    /// `of(x, k)`: for the slots from x on, the value of the pixel k further on.
    template <class Of>
    void spread(std::vector<float>& pixels, const Of& of) const {
        const FloatTag d;
        const int lanes = static_cast<int>(hn::Lanes(d));
        HWY_ALIGN float values[hn::MaxLanes(d)];
        for (int x = 0; x < _slots; x += lanes) {
            float* target = pixels.data() + x * _sample;
            if (_sample == 2) {
                hn::StoreInterleaved2(of(x, 0), of(x, 1), d, target);
                continue;
            }
            for (int k = 0; k < _sample; ++k) {
                hn::Store(of(x, k), d, values);
                for (int i = 0; i < lanes; ++i) target[i * _sample + k] = values[i];
            }
        }
    }

    const ParallaxField& _field;
    const int _sample;
    const float _jump;
    const int _slots;
    SlotRow _above, _below;  ///< of the slots around the pixels
    SlotRow _between;        ///< what they are in a row of pixels between them
    const SlotRow* _present = &_above;
    std::vector<float> _pixels, _slopesX, _slopesY;
    int _row = std::numeric_limits<int>::min() / 2;  ///< of `_above`
};

}  // namespace
}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#endif
