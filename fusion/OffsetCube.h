// The cube of voxels around a point that one measurement may touch.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm {
namespace Fusion {

/// n^3 offsets from a base voxel: k = 0 ... n^3 - 1 gives (k mod n, (k mod n^2) div n, k div n^2) - n div 2,
/// x fastest. An even n reaches one voxel further down than up.
struct OffsetCube {
    std::vector<Vector3i> voxels;
    std::vector<Vector3f> offsets;  ///< the same in mm

    OffsetCube() = default;
    OffsetCube(int n, float pointDis) {
        const int half = n / 2;
        for (int z = 0; z < n; ++z) {
            for (int y = 0; y < n; ++y) {
                for (int x = 0; x < n; ++x) voxels.emplace_back(x - half, y - half, z - half);
            }
        }
        scale(pointDis);
    }

    /// The same cube with the offsets nearest to the base voxel first.
    static OffsetCube nearest_first(int n, float pointDis) {
        OffsetCube cube(n, pointDis);
        std::stable_sort(cube.voxels.begin(), cube.voxels.end(),
                         [](const Vector3i& a, const Vector3i& b) { return a.squaredNorm() < b.squaredNorm(); });
        cube.scale(pointDis);
        return cube;
    }

    void scale(float pointDis) {
        offsets.clear();
        offsets.reserve(voxels.size());
        for (const Vector3i& voxel : voxels) offsets.push_back(voxel.cast<float>() * pointDis);
    }
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
