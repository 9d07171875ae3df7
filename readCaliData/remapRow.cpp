#include "readCaliData/remapRow.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "readCaliData/remapRow.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>

#include "foundation/vectorTargets.h"

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace Rebuild {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::ScalableTag<float>;
using IntTag = hn::RebindToSigned<FloatTag>;
using ByteTag = hn::Rebind<std::uint8_t, FloatTag>;
using FloatVec = hn::Vec<FloatTag>;

// Coordinates, fetching and blending run over a block each: the fetch is scalar work, and within one vector the
// blend would have to wait for the small stores of the fetch.
constexpr std::size_t BLOCK = 64;

struct Block {
    HWY_ALIGN float fractionX[BLOCK];
    HWY_ALIGN float fractionY[BLOCK];
    HWY_ALIGN std::int32_t offset[BLOCK];
    HWY_ALIGN std::int32_t inside[BLOCK];   ///< all bits set, or none
    HWY_ALIGN std::int32_t corners[BLOCK];  ///< upper left, upper right, lower left, lower right; lowest byte first
};

void find_positions(const RawImage& raw, const float* map, Block& block) {
    const FloatTag d;
    const IntTag di;
    const auto low = hn::Set(d, 3.0F);
    const auto highX = hn::Set(d, static_cast<float>(raw.width - 2));
    const auto highY = hn::Set(d, static_cast<float>(raw.height - 2));
    const auto stride = hn::Set(di, raw.width);
    for (std::size_t i = 0; i < BLOCK; i += hn::Lanes(d)) {
        FloatVec x, y;
        hn::LoadInterleaved2(d, map + 2 * i, x, y);
        const auto inside =
            hn::And(hn::And(hn::Ge(x, low), hn::Lt(x, highX)), hn::And(hn::Ge(y, low), hn::Lt(y, highY)));
        x = hn::IfThenElseZero(inside, x);
        y = hn::IfThenElseZero(inside, y);
        const auto ix = hn::ConvertTo(di, x);
        const auto iy = hn::ConvertTo(di, y);
        hn::Store(hn::Sub(x, hn::ConvertTo(d, ix)), d, block.fractionX + i);
        hn::Store(hn::Sub(y, hn::ConvertTo(d, iy)), d, block.fractionY + i);
        hn::Store(hn::Add(hn::Mul(iy, stride), ix), di, block.offset + i);
        hn::Store(hn::BitCast(di, hn::VecFromMask(d, inside)), di, block.inside + i);
    }
}

void fetch_corners(const RawImage& raw, Block& block) {
    for (std::size_t i = 0; i < BLOCK; ++i) {
        const std::uint8_t* corner = raw.pixels + block.offset[i];
        std::uint16_t upper, lower;
        std::memcpy(&upper, corner, sizeof upper);
        std::memcpy(&lower, corner + raw.width, sizeof lower);
        block.corners[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(lower) << 16U | upper);
    }
}

FloatVec blend(const Block& block, std::size_t i) {
    const FloatTag d;
    const IntTag di;
    const auto byte = hn::Set(di, 255);
    const auto corners = hn::And(hn::Load(di, block.corners + i), hn::Load(di, block.inside + i));
    const auto upperLeft = hn::ConvertTo(d, hn::And(corners, byte));
    const auto upperRight = hn::ConvertTo(d, hn::And(hn::ShiftRight<8>(corners), byte));
    const auto lowerLeft = hn::ConvertTo(d, hn::And(hn::ShiftRight<16>(corners), byte));
    const auto lowerRight = hn::ConvertTo(d, hn::And(hn::ShiftRight<24>(corners), byte));
    // No fused products, so that every instruction set gives the same values.
    const auto fractionX = hn::Load(d, block.fractionX + i);
    const auto top = hn::Add(upperLeft, hn::Mul(hn::Sub(upperRight, upperLeft), fractionX));
    const auto bottom = hn::Add(lowerLeft, hn::Mul(hn::Sub(lowerRight, lowerLeft), fractionX));
    return hn::Add(top, hn::Mul(hn::Sub(bottom, top), hn::Load(d, block.fractionY + i)));
}

void store(FloatVec value, float* target) {
    hn::StoreU(value, FloatTag(), target);
}

void store(FloatVec value, std::uint8_t* target) {
    hn::StoreU(hn::DemoteTo(ByteTag(), hn::ConvertTo(IntTag(), value)), ByteTag(), target);
}

template <class Pixel>
void remap_block(const RawImage& raw, const float* map, Block& block, Pixel* target) {
    find_positions(raw, map, block);
    fetch_corners(raw, block);
    for (std::size_t i = 0; i < BLOCK; i += hn::Lanes(FloatTag())) store(blend(block, i), target + i);
}

template <class Pixel>
void remap_row(const RawImage& raw, const float* map, Pixel* row) {
    const auto width = static_cast<std::size_t>(raw.width);
    if (raw.width < 6 || raw.height < 6) {  // nothing is inside the margin, nor is there a corner to fetch
        std::fill_n(row, width, Pixel{0});
        return;
    }
    Block block;
    std::size_t x = 0;
    for (; x + BLOCK <= width; x += BLOCK) remap_block(raw, map + 2 * x, block, row + x);
    if (x == width) return;
    float tailMap[2 * BLOCK];
    Pixel tail[BLOCK];
    std::fill(std::copy(map + 2 * x, map + 2 * width, tailMap), tailMap + 2 * BLOCK, -1.0F);
    remap_block(raw, tailMap, block, tail);
    std::copy_n(tail, width - x, row + x);
}

}  // namespace

void remap_row_to_bytes(const RawImage& raw, const float* map, std::uint8_t* row) {
    remap_row(raw, map, row);
}

void remap_row_to_floats(const RawImage& raw, const float* map, float* row) {
    remap_row(raw, map, row);
}

}  // namespace HWY_NAMESPACE
}  // namespace Rebuild
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace Rebuild {

HWY_EXPORT(remap_row_to_bytes);
HWY_EXPORT(remap_row_to_floats);

RemapRowToBytes best_remap_row_to_bytes() {
    detect_processor();
    return &HWY_DYNAMIC_DISPATCH(remap_row_to_bytes);
}

RemapRowToFloats best_remap_row_to_floats() {
    detect_processor();
    return &HWY_DYNAMIC_DISPATCH(remap_row_to_floats);
}

}  // namespace Rebuild
}  // namespace VexelAlgorithm
#endif
