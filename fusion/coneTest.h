// Which voxels around a point lie inside its pixel's viewing cone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "foundation/types.h"
#include "fusion/FusionCone.h"
#include "fusion/OffsetCube.h"

namespace VexelAlgorithm {
namespace Fusion {

/// The offsets of a cube rotated into camera coordinates, one array a coordinate. Rotating the offsets once a
/// frame instead of four plane normals for every pixel leaves two products a plane pair and voxel.
class RotatedOffsets {
public:
    RotatedOffsets() = default;
    /// `cameraToModel` is the rotation of the pose.
    RotatedOffsets(const OffsetCube& cube, const Matrix3d& cameraToModel);
    /// Becomes those of `all` with these numbers.
    void select(const RotatedOffsets& all, const std::vector<std::size_t>& numbers);

    std::size_t size() const { return _count; }
    /// Padded with NaN, which lies in no cone, to a multiple of `Padding`.
    std::size_t padded_size() const { return _x.size(); }
    std::size_t word_count() const { return padded_size() / 64; }
    const float* x() const { return _x.data(); }
    const float* y() const { return _y.data(); }
    const float* z() const { return _z.data(); }

    static constexpr std::size_t Padding = 64;

private:
    void resize(std::size_t count);

    std::size_t _count = 0;
    std::vector<float> _x, _y, _z;
};

/// Writes one bit an offset to `inside` (`offsets.word_count()` words, lowest bit first): whether base + offset lies
/// inside the cone; `base` in camera coordinates.
using ConeTest = void (*)(const RotatedOffsets& offsets, const Vector3f& base, const PixelCone& cone,
                          std::uint64_t* inside);

/// The implementation for the widest vectors of this processor. All give the same bits.
ConeTest best_cone_test();

}  // namespace Fusion
}  // namespace VexelAlgorithm
