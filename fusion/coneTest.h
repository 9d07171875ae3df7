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
    /// `cameraToModel` is the rotation of the pose.
    RotatedOffsets(const OffsetCube& cube, const Matrix3d& cameraToModel);

    std::size_t size() const { return _count; }
    /// Padded with NaN, which lies in no cone, to a multiple of `Padding`.
    std::size_t padded_size() const { return _x.size(); }
    const float* x() const { return _x.data(); }
    const float* y() const { return _y.data(); }
    const float* z() const { return _z.data(); }

    static constexpr std::size_t Padding = 64;

private:
    std::size_t _count;
    std::vector<float> _x, _y, _z;
};

/// Writes to `hits` (room for `offsets.size()`) the indices, ascending, of the offsets for which base + offset
/// lies inside the cone; `base` in camera coordinates. Returns their number.
using ConeTest = std::size_t (*)(const RotatedOffsets& offsets, const Vector3f& base, const PixelCone& cone,
                                 std::uint32_t* hits);

/// The implementation for the widest vectors of this processor. All give the same indices.
ConeTest best_cone_test();

}  // namespace Fusion
}  // namespace VexelAlgorithm
