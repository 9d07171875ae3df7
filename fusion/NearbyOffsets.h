// The voxels of the cube around a point that come into question for neighbouring pixels.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "fusion/FusionCone.h"
#include "fusion/coneTest.h"

namespace VexelAlgorithm {
namespace Fusion {

/// A measured point lies on its pixel's ray, and the cone around that ray is narrow: of the cube of voxels around the
/// point only those of a slim tube can lie in the cone. For the pixels of an image tile, whose rays are nearly
/// parallel, it is one tube.
class NearbyOffsets {
public:
    /// `cones` spans the cones of the pixels, none of them wider or higher than `widest`; `farthest` is the largest
    /// depth (mm) of a base voxel's centre, `cameraToModel` the rotation of the pose.
    void select(const RotatedOffsets& all, const PixelCone& cones, const Vector2f& widest, float farthest,
                const Matrix3d& cameraToModel, float pointDis) {
        _farthest = farthest;
        _reachX = lateral_reach(cameraToModel, 0, cones.left, cones.right, pointDis);
        _reachY = lateral_reach(cameraToModel, 1, cones.top, cones.bottom, pointDis);
        const float marginX = 1.001f * (_reachX + 0.5f * widest.x() * farthest),
                    marginY = 1.001f * (_reachY + 0.5f * widest.y() * farthest);
        _numbers.clear();
        for (std::size_t k = 0; k < all.size(); ++k) {
            const float x = all.x()[k], y = all.y()[k], z = all.z()[k];
            const bool isNearX = x >= std::min(cones.left * z, cones.right * z) - marginX &&
                                 x <= std::max(cones.left * z, cones.right * z) + marginX;
            const bool isNearY = y >= std::min(cones.top * z, cones.bottom * z) - marginY &&
                                 y <= std::max(cones.top * z, cones.bottom * z) + marginY;
            if (isNearX && isNearY) _numbers.push_back(k);
        }
        _offsets.select(all, _numbers);
    }

    /// Whether no other offset can lie in the cone, seen from a base voxel's centre (camera coordinates).
    bool suffice(const Vector3f& base, const PixelCone& cone) const {
        const float x = 0.5f * (cone.left + cone.right) * base.z(), y = 0.5f * (cone.top + cone.bottom) * base.z();
        return base.z() > 0.0f && base.z() <= _farthest && std::abs(base.x() - x) <= _reachX &&
               std::abs(base.y() - y) <= _reachY;
    }

    const RotatedOffsets& offsets() const { return _offsets; }
    /// Which offset of the whole cube the i-th one is.
    std::size_t number(std::size_t i) const { return _numbers[i]; }

private:
    /// How far (mm) the centre of a voxel may lie beside the ray through a point of the voxel, along a camera axis.
    static float lateral_reach(const Matrix3d& cameraToModel, int axis, float lowSlope, float highSlope,
                               float pointDis) {
        double reach = 0.0;
        for (const float slope : {lowSlope, highSlope}) {
            const Vector3d across = cameraToModel.col(axis) - static_cast<double>(slope) * cameraToModel.col(2);
            reach = std::max(reach, across.cwiseAbs().sum());
        }
        return static_cast<float>(0.51 * reach * static_cast<double>(pointDis));
    }

    RotatedOffsets _offsets;
    std::vector<std::size_t> _numbers;
    float _farthest = 0.0f;
    float _reachX = 0.0f, _reachY = 0.0f;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
