// Samples of a ray that need not be taken.
#pragma once

#include <hwy/base.h>

#include <Eigen/Core>
#include <algorithm>
#include <cstdint>

#include "fusion/BrickCache.h"
#include "fusion/rayMarch.h"

namespace VexelAlgorithm {
namespace Fusion {

/// The empty nodes of the octree along a ray (S. Laine and T. Karras, "Efficient sparse voxel octrees", I3D 2010). The
/// three axes share a vector, whose fourth number is of no use.
class EmptySpace {
public:
    EmptySpace(const RayBundle& bundle, const BrickSource& source, const MarchRay& ray)
        : _bundle(bundle),
          _source(source),
          _ray(ray),
          _origin(axes(bundle.origin)),
          _direction(axes(ray.direction)),
          _shift(axes(bundle.shift)),
          _margin(rounding_margin(bundle.sampleEnd)) {
        // Along an axis to which the ray is perpendicular it takes very many steps to the next voxel.
        const Eigen::Array4f perStep = 0.5f * _direction;
        _stepsPerVoxel = (perStep.abs() > 1e-30f).select(1.0f / perStep, 1e30f);
        _isForward = (_stepsPerVoxel > 0.0f).cast<int>();
        _inside = (_stepsPerVoxel > 0.0f).select(Eigen::Array4f::Constant(-_margin), _margin);
    }

    /// How many samples from n on are sure to read 0; 0 when sample n is not valid or may read something.
    HWY_INLINE int count_samples(std::int32_t n) const {
        const float t = length_at(_bundle, _ray, n);
        const Eigen::Array4f q = (_origin + t * _direction - _shift) / _bundle.pointDis;
        const float low = std::min(std::min(q[0], q[1]), q[2]), high = std::max(std::max(q[0], q[1]), q[2]);
        if (!(low >= 1.0f && high < _bundle.sampleEnd)) return 0;
        const Eigen::Array4i voxel = q.cast<int>();
        const int bits = _source.empty_node_bits(voxel[0], voxel[1], voxel[2]);
        return bits == 0 ? 0 : 1 + count_further(q, voxel, bits);
    }

private:
    /// How many further samples are sure to lie in the node of 2^bits voxels around the voxel. Those outside the
    /// valid range may be among them: a ray that has left the range does not come back.
    HWY_INLINE int count_further(const Eigen::Array4f& q, const Eigen::Array4i& voxel, int bits) const {
        float least = 1e6f;
        for (int axis = 0; axis < 3; ++axis) {
            const int side = ((voxel[axis] >> bits) + _isForward[axis]) << bits;
            least = std::min(least, (static_cast<float>(side) + _inside[axis] - q[axis]) * _stepsPerVoxel[axis]);
        }
        return least > 0.0f ? static_cast<int>(least) : 0;
    }

    static Eigen::Array4f axes(const float* v) { return {v[0], v[1], v[2], 0.0f}; }

    const RayBundle& _bundle;
    const BrickSource& _source;
    const MarchRay& _ray;
    Eigen::Array4f _origin, _direction, _shift;
    float _margin;
    Eigen::Array4f _stepsPerVoxel, _inside;
    Eigen::Array4i _isForward;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
