#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "fusion/coneTest.cpp"
#include "fusion/coneTest.h"

#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <limits>

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace Fusion {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Three loads, three additions, four products and four comparisons for each vector of voxels. Products are not
// fused with the comparison's subtraction, so that every instruction set finds the same voxels.
std::size_t cone_hits(const RotatedOffsets& offsets, const Vector3f& base, const PixelCone& cone, std::uint32_t* hits) {
    const hn::CappedTag<float, RotatedOffsets::Padding> d;
    const std::size_t lanes = hn::Lanes(d);
    const auto baseX = hn::Set(d, base.x());
    const auto baseY = hn::Set(d, base.y());
    const auto baseZ = hn::Set(d, base.z());
    const auto left = hn::Set(d, cone.left);
    const auto right = hn::Set(d, cone.right);
    const auto top = hn::Set(d, cone.top);
    const auto bottom = hn::Set(d, cone.bottom);

    std::size_t found = 0;
    for (std::size_t i = 0; i < offsets.padded_size(); i += lanes) {
        const auto x = hn::Add(hn::LoadU(d, offsets.x() + i), baseX);
        const auto y = hn::Add(hn::LoadU(d, offsets.y() + i), baseY);
        const auto z = hn::Add(hn::LoadU(d, offsets.z() + i), baseZ);
        const auto insideX = hn::And(hn::Ge(x, hn::Mul(left, z)), hn::Le(x, hn::Mul(right, z)));
        const auto insideY = hn::And(hn::Ge(y, hn::Mul(top, z)), hn::Le(y, hn::Mul(bottom, z)));
        std::uint64_t bits = 0;
        hn::StoreMaskBits(d, hn::And(insideX, insideY), reinterpret_cast<std::uint8_t*>(&bits));
        for (; bits != 0; bits &= bits - 1) {
            hits[found++] = static_cast<std::uint32_t>(i + hwy::Num0BitsBelowLS1Bit_Nonzero64(bits));
        }
    }
    return found;
}

}  // namespace HWY_NAMESPACE
}  // namespace Fusion
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace Fusion {

HWY_EXPORT(cone_hits);

ConeTest best_cone_test() {
    // Taking the address does not detect the processor, as a call would; so that comes first.
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    return &HWY_DYNAMIC_DISPATCH(cone_hits);
}

RotatedOffsets::RotatedOffsets(const OffsetCube& cube, const Matrix3d& cameraToModel) : _count(cube.voxels.size()) {
    const std::size_t padded = (_count + Padding - 1) / Padding * Padding;
    const float nowhere = std::numeric_limits<float>::quiet_NaN();
    _x.assign(padded, nowhere);
    _y.assign(padded, nowhere);
    _z.assign(padded, nowhere);
    for (std::size_t i = 0; i < _count; ++i) {
        const Vector3f offset_C = (cameraToModel.transpose() * cube.offsets[i].cast<double>()).cast<float>();
        _x[i] = offset_C.x();
        _y[i] = offset_C.y();
        _z[i] = offset_C.z();
    }
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
#endif
