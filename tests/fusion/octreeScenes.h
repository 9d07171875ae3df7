// Voxels to fill an octree with.
#pragma once

#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "fusion/LeafTSDFSpeckle.h"
#include "fusion/octreeChecker.h"

namespace VexelOctree {

using VexelAlgorithm::Vector3i;
using Tree = Octree<VexelAlgorithm::Fusion::LeafTSDFSpeckle>;
using Findings = std::vector<std::string>;
using NodeSet = std::set<std::tuple<int, int, int>>;

/// The node of 2^bits voxels a side that holds a voxel.
inline std::tuple<int, int, int> node_of(const Vector3i& v, int bits = 0) {
    return {v.x() >> bits, v.y() >> bits, v.z() >> bits};
}

inline int count_nodes(const std::vector<Vector3i>& voxels, int bits) {
    NodeSet nodes;
    for (const Vector3i& v : voxels) nodes.insert(node_of(v, bits));
    return static_cast<int>(nodes.size());
}

/// Different voxels in a few clusters anywhere in the volume, corners among them.
inline std::vector<Vector3i> scattered_voxels(int size, int clusters, int perCluster) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> anywhere(0, size - 1), near(-9, 9);
    std::vector<Vector3i> voxels{Vector3i::Zero(), Vector3i::Constant(size - 1), {size - 1, 0, 0}, {0, size - 1, 0}};
    NodeSet seen;
    for (const Vector3i& v : voxels) seen.insert(node_of(v));
    for (int i = 0; i < clusters; ++i) {
        const Vector3i centre(anywhere(random), anywhere(random), anywhere(random));
        for (int k = 0; k < perCluster; ++k) {
            const Vector3i v = centre + Vector3i(near(random), near(random), near(random));
            const Vector3i inside = v.cwiseMax(0).cwiseMin(size - 1);
            if (seen.insert(node_of(inside)).second) voxels.push_back(inside);
        }
    }
    return voxels;
}

}  // namespace VexelOctree
