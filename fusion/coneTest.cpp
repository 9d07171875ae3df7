#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "fusion/coneTest.cpp"
#include "fusion/coneTest.h"

#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <limits>

#include "foundation/vectorTargets.h"

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace Fusion {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Three loads, three additions, four products and four comparisons for each vector of voxels. Products are not
// fused with the comparison's subtraction, so that every instruction set finds the same voxels.
void find_inside(const RotatedOffsets& offsets, const Vector3f& base, const PixelCone& cone, std::uint64_t* inside) {
    const hn::CappedTag<float, RotatedOffsets::Padding> d;
    const std::size_t lanes = hn::Lanes(d);
    const auto baseX = hn::Set(d, base.x());
    const auto baseY = hn::Set(d, base.y());
    const auto baseZ = hn::Set(d, base.z());
    const auto left = hn::Set(d, cone.left);
    const auto right = hn::Set(d, cone.right);
    const auto top = hn::Set(d, cone.top);
    const auto bottom = hn::Set(d, cone.bottom);

    for (std::size_t first = 0; first < offsets.padded_size(); first += 64) {
        std::uint64_t word = 0;
        for (std::size_t i = 0; i < 64; i += lanes) {
            const auto x = hn::Add(hn::LoadU(d, offsets.x() + first + i), baseX);
            const auto y = hn::Add(hn::LoadU(d, offsets.y() + first + i), baseY);
            const auto z = hn::Add(hn::LoadU(d, offsets.z() + first + i), baseZ);
            const auto insideX = hn::And(hn::Ge(x, hn::Mul(left, z)), hn::Le(x, hn::Mul(right, z)));
            const auto insideY = hn::And(hn::Ge(y, hn::Mul(top, z)), hn::Le(y, hn::Mul(bottom, z)));
            std::uint8_t bytes[8];
            hn::StoreMaskBits(d, hn::And(insideX, insideY), bytes);
            for (std::size_t lane = 0; lane < lanes; lane += 8) {
                word |= static_cast<std::uint64_t>(bytes[lane / 8]) << (i + lane);
            }
        }
        inside[first / 64] = word;
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace Fusion
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace Fusion {

HWY_EXPORT(find_inside);

ConeTest best_cone_test() {
    detect_processor();
    return &HWY_DYNAMIC_DISPATCH(find_inside);
}

void RotatedOffsets::resize(std::size_t count) {
    _count = count;
    const std::size_t padded = (count + Padding - 1) / Padding * Padding;
    const float nowhere = std::numeric_limits<float>::quiet_NaN();
    for (std::vector<float>* coordinates : {&_x, &_y, &_z}) {
        coordinates->resize(padded);
        std::fill(coordinates->begin() + static_cast<std::ptrdiff_t>(count), coordinates->end(), nowhere);
    }
}

RotatedOffsets::RotatedOffsets(const OffsetCube& cube, const Matrix3d& cameraToModel) {
    resize(cube.voxels.size());
    for (std::size_t i = 0; i < _count; ++i) {
        const Vector3f offset_C = (cameraToModel.transpose() * cube.offsets[i].cast<double>()).cast<float>();
        _x[i] = offset_C.x();
        _y[i] = offset_C.y();
        _z[i] = offset_C.z();
    }
}

void RotatedOffsets::select(const RotatedOffsets& all, const std::vector<std::size_t>& numbers) {
    resize(numbers.size());
    for (std::size_t i = 0; i < _count; ++i) {
        _x[i] = all._x[numbers[i]];
        _y[i] = all._y[numbers[i]];
        _z[i] = all._z[numbers[i]];
    }
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
#endif
