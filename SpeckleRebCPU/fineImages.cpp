#include "SpeckleRebCPU/fineImages.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/fineImages.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

#include "SpeckleRebCPU/splineWeights-inl.h"
#include "foundation/parallel.h"

#ifndef VEXEL_FINE_IMAGES_DEFINED
#    define VEXEL_FINE_IMAGES_DEFINED
namespace VexelAlgorithm {

constexpr int SPLINE_REACH = 6;  // pixels to each side

/// The direct filter of the cubic spline, sqrt(3) (sqrt(3) - 2)^|k|, cut, and its sum made 1.
struct SplineFilter {
    float weights[SPLINE_REACH + 1];

    SplineFilter() {
        const double root = std::sqrt(3.0);
        double sum = 0.0;
        for (int k = 0; k <= SPLINE_REACH; ++k) sum += (k == 0 ? 1.0 : 2.0) * root * std::pow(root - 2.0, k);
        for (int k = 0; k <= SPLINE_REACH; ++k) weights[k] = static_cast<float>(root * std::pow(root - 2.0, k) / sum);
    }
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

void store_shorts(FloatVec value, std::int16_t* target) {
    hn::StoreU(hn::DemoteTo(ShortTag(), hn::NearestInt(value)), ShortTag(), target);
}

/// A row with mirrored ends, padded so that whole vectors fit.
class SplineLine {
public:
    explicit SplineLine(int width)
        : _width(static_cast<std::size_t>(width)), _values(_width + 2 * MARGIN), _coefficients(_width + MARGIN) {}

    float* values() { return _values.data() + MARGIN; }

    void filter(std::int16_t* target) {
        mirror();
        const FloatTag d;
        for (std::size_t x = 0; x < _width; x += hn::Lanes(d)) {
            const float* at = values() + x;
            auto sum = hn::Mul(hn::Set(d, _filter.weights[0]), hn::LoadU(d, at));
            for (int k = 1; k <= SPLINE_REACH; ++k) {
                const auto both = hn::Add(hn::LoadU(d, at - k), hn::LoadU(d, at + k));
                sum = hn::Add(sum, hn::Mul(hn::Set(d, _filter.weights[k]), both));
            }
            store_shorts(sum, _coefficients.data() + x);
        }
        std::copy_n(_coefficients.data(), _width, target);
    }

    float weight(int k) const { return _filter.weights[k]; }

    static constexpr std::size_t MARGIN = 64;

private:
    void mirror() {
        const auto last = static_cast<std::ptrdiff_t>(_width) - 1;
        for (std::ptrdiff_t k = 1; k <= SPLINE_REACH; ++k) {
            values()[-k] = values()[std::min(k, last)];
            values()[last + k] = values()[std::max<std::ptrdiff_t>(last - k, 0)];
        }
    }

    const SplineFilter _filter;
    const std::size_t _width;
    std::vector<float> _values;
    std::vector<std::int16_t> _coefficients;
};

/// Raw pixels that several outputs are interpolated from, four of each of four rows.
struct Block {
    static constexpr std::size_t SIZE = 64;
    HWY_ALIGN float fractionX[SIZE];
    HWY_ALIGN float fractionY[SIZE];
    HWY_ALIGN std::int32_t offset[SIZE];
    HWY_ALIGN std::int16_t taps[4][4 * SIZE];
};

/// What lies outside is moved to where there are pixels around; NaN to the first ones.
void find_positions(const FineImage& image, const float* map, Block& block) {
    const FloatTag d;
    const IntTag di;
    const auto low = hn::Set(d, 1.0F);
    const auto highX = hn::Set(d, static_cast<float>(image.width()) - 2.001F);
    const auto highY = hn::Set(d, static_cast<float>(image.height()) - 2.001F);
    const auto stride = hn::Set(di, image.width()), one = hn::Set(di, 1);
    const auto inside = [&](FloatVec value, FloatVec high) {
        return hn::Min(hn::IfThenElse(hn::Ge(value, low), value, low), high);
    };
    for (std::size_t i = 0; i < Block::SIZE; i += hn::Lanes(d)) {
        FloatVec x, y;
        hn::LoadInterleaved2(d, map + 2 * i, x, y);
        x = inside(x, highX), y = inside(y, highY);
        const auto ix = hn::ConvertTo(di, x), iy = hn::ConvertTo(di, y);
        hn::Store(hn::Sub(x, hn::ConvertTo(d, ix)), d, block.fractionX + i);
        hn::Store(hn::Sub(y, hn::ConvertTo(d, iy)), d, block.fractionY + i);
        hn::Store(hn::Add(hn::Mul(hn::Sub(iy, one), stride), hn::Sub(ix, one)), di, block.offset + i);
    }
}

void fetch_taps(const FineImage& image, Block& block) {
    for (std::size_t v = 0; v < 4; ++v) {
        const std::int16_t* row = image.data() + v * static_cast<std::size_t>(image.width());
        for (std::size_t i = 0; i < Block::SIZE; ++i)
            std::memcpy(block.taps[v] + 4 * i, row + block.offset[i], 4 * sizeof(std::int16_t));
    }
}

FloatVec blend(const Block& block, std::size_t i) {
    const FloatTag d;
    const SplineTaps alongX = spline_weights(hn::Load(d, block.fractionX + i));
    const SplineTaps alongY = spline_weights(hn::Load(d, block.fractionY + i));
    SplineTaps rows;
    for (int v = 0; v < 4; ++v) rows.of[v] = weighted(load_taps(block.taps[v] + 4 * i), alongX);
    return weighted(rows, alongY);
}

void rectify_block(const FineImage& image, const float* map, Block& block, std::int16_t* target) {
    find_positions(image, map, block);
    fetch_taps(image, block);
    for (std::size_t i = 0; i < Block::SIZE; i += hn::Lanes(FloatTag())) store_shorts(blend(block, i), target + i);
}

}  // namespace

void find_coefficients(const std::uint8_t* raw, int begin, int end, FineImage& coefficients) {
    const int width = coefficients.width(), height = coefficients.height();
    SplineLine line(width);
    float* values = line.values();
    const auto row = [&](int y) {
        const int mirrored = y < 0 ? -y : y >= height ? 2 * height - 2 - y : y;
        return raw + static_cast<std::size_t>(std::clamp(mirrored, 0, height - 1)) * static_cast<std::size_t>(width);
    };
    for (int y = begin; y < end; ++y) {
        const std::uint8_t* middle = row(y);
        for (int x = 0; x < width; ++x)
            values[x] = FINE_SCALE * (line.weight(0) * static_cast<float>(middle[x]) - FINE_ZERO);
        for (int k = 1; k <= SPLINE_REACH; ++k) {
            const float weight = FINE_SCALE * line.weight(k);
            const std::uint8_t *above = row(y - k), *below = row(y + k);
            for (int x = 0; x < width; ++x) values[x] += weight * static_cast<float>(above[x] + below[x]);
        }
        line.filter(coefficients.row(y));
    }
}

void find_row_coefficients(const FineImage& image, int begin, int end, FineImage& coefficients) {
    const auto width = static_cast<std::size_t>(image.width());
    SplineLine line(image.width());
    for (int y = begin; y < end; ++y) {
        const std::int16_t* row = image.row(y);
        for (std::size_t x = 0; x < width; ++x) line.values()[x] = row[x];
        line.filter(coefficients.row(y));
    }
}

void rectify_rows(const FineImage& coefficients, const float* map, int begin, int end, FineImage& rectified) {
    Block block;
    const auto width = static_cast<std::size_t>(rectified.width());
    float tailMap[2 * Block::SIZE];
    std::int16_t tail[Block::SIZE];
    for (int y = begin; y < end; ++y) {
        const float* positions = map + 2 * static_cast<std::size_t>(y) * width;
        std::int16_t* row = rectified.row(y);
        std::size_t x = 0;
        for (; x + Block::SIZE <= width; x += Block::SIZE)
            rectify_block(coefficients, positions + 2 * x, block, row + x);
        if (x == width) continue;
        std::fill(std::copy(positions + 2 * x, positions + 2 * width, tailMap), tailMap + 2 * Block::SIZE, 0.0F);
        rectify_block(coefficients, tailMap, block, tail);
        std::copy_n(tail, width - x, row + x);
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 32;

HWY_EXPORT(find_coefficients);
HWY_EXPORT(find_row_coefficients);
HWY_EXPORT(rectify_rows);

template <class Body>
void for_rows(int threads, const FineImage& image, const Body& body) {
    parallel_ranges(threads, static_cast<std::size_t>(image.height()), ROW_GRAIN,
                    [&](std::size_t begin, std::size_t end) { body(static_cast<int>(begin), static_cast<int>(end)); });
}

}  // namespace

void FineRectification::rectify(const std::uint8_t* raw, const float* map, int threads, FineImage& rectified) {
    _coefficients.resize(rectified.width(), rectified.height());
    for_rows(threads, rectified, [&](int begin, int end) {
        HWY_DYNAMIC_DISPATCH(find_coefficients)(raw, begin, end, _coefficients);
    });
    for_rows(threads, rectified, [&](int begin, int end) {
        HWY_DYNAMIC_DISPATCH(rectify_rows)(_coefficients, map, begin, end, rectified);
    });
}

void spline_rows(const FineImage& image, int threads, FineImage& coefficients) {
    coefficients.resize(image.width(), image.height());
    for_rows(threads, image, [&](int begin, int end) {
        HWY_DYNAMIC_DISPATCH(find_row_coefficients)(image, begin, end, coefficients);
    });
}

}  // namespace VexelAlgorithm
#endif
