// What the four coefficients around a place weigh in a cubic spline.
#if defined(VEXEL_SPLINE_WEIGHTS_INL) == defined(HWY_TARGET_TOGGLE)
#    ifdef VEXEL_SPLINE_WEIGHTS_INL
#        undef VEXEL_SPLINE_WEIGHTS_INL
#    else
#        define VEXEL_SPLINE_WEIGHTS_INL
#    endif

#    include <hwy/highway.h>

#    include <cstdint>

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;

/// The four coefficients around a place, or what they weigh.
struct SplineTaps {
    hn::Vec<hn::ScalableTag<float>> of[4];
};

/// t: from the second coefficient towards the third.
inline SplineTaps spline_weights(hn::Vec<hn::ScalableTag<float>> t) {
    const hn::ScalableTag<float> d;
    const auto one = hn::Set(d, 1.0F), sixth = hn::Set(d, 1.0F / 6.0F), half = hn::Set(d, 0.5F);
    const auto u = hn::Sub(one, t), squared = hn::Mul(t, t);
    const auto first = hn::Mul(sixth, hn::Mul(u, hn::Mul(u, u))), last = hn::Mul(sixth, hn::Mul(t, squared));
    const auto second = hn::Sub(hn::Set(d, 2.0F / 3.0F), hn::Mul(squared, hn::Sub(one, hn::Mul(half, t))));
    return {{first, second, hn::Sub(hn::Sub(one, first), hn::Add(second, last)), last}};
}

/// Derivatives of the weights.
inline SplineTaps spline_slopes(hn::Vec<hn::ScalableTag<float>> t) {
    const hn::ScalableTag<float> d;
    const auto half = hn::Set(d, 0.5F), u = hn::Sub(hn::Set(d, 1.0F), t);
    const auto first = hn::Mul(half, hn::Mul(u, u)), last = hn::Mul(half, hn::Mul(t, t));
    const auto second = hn::Mul(t, hn::Sub(hn::Mul(hn::Set(d, 1.5F), t), hn::Set(d, 2.0F)));
    return {{hn::Neg(first), second, hn::Sub(first, hn::Add(second, last)), last}};
}

/// Four coefficients of a lane, then four of the next.
inline SplineTaps load_taps(const std::int16_t* coefficients) {
    const hn::ScalableTag<float> d;
    const hn::Rebind<std::int16_t, hn::ScalableTag<float>> ds;
    hn::Vec<decltype(ds)> taps[4];
    hn::LoadInterleaved4(ds, coefficients, taps[0], taps[1], taps[2], taps[3]);
    SplineTaps loaded;
    for (int k = 0; k < 4; ++k)
        loaded.of[k] = hn::ConvertTo(d, hn::PromoteTo(hn::RebindToSigned<hn::ScalableTag<float>>(), taps[k]));
    return loaded;
}

inline hn::Vec<hn::ScalableTag<float>> weighted(const SplineTaps& taps, const SplineTaps& weights) {
    return hn::Add(hn::Add(hn::Mul(taps.of[0], weights.of[0]), hn::Mul(taps.of[1], weights.of[1])),
                   hn::Add(hn::Mul(taps.of[2], weights.of[2]), hn::Mul(taps.of[3], weights.of[3])));
}

}  // namespace
}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#endif
