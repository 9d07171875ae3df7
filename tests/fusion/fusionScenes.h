// Frames of a small scene, and what a volume holds.
#pragma once

#include "fusion/FusionTsdf.h"
#include "simulation/cameraPaths.h"
#include "simulation/combinations.h"
#include "simulation/primitives.h"
#include "simulation/render.h"
#include "tests/common.h"

namespace VexelAlgorithm::Fusion {

template <class Leaf>
class EveryLeaf : public testing::Test {};
using TsdfLeaves = testing::Types<LeafTSDFSpeckle, LeafTSDFTeeth, LeafTSDFCloudGenerator, LeafTSDFLaser>;
TYPED_TEST_SUITE(EveryLeaf, TsdfLeaves);

using namespace VexelTest;

/// A ball in front of a wall, both well inside the view of `scene_poses`.
inline Simulation::ShapePtr ball_and_wall() {
    return Simulation::smooth_union(
        {Simulation::sphere({0, 0, 0}, 15.0), Simulation::half_space({0, 20, 0}, {0.2, -1, 0.1})}, 0.0);
}

inline std::vector<RigidMatrix> scene_poses() {
    return {Simulation::look_at({0, -60, 0}, {0, 0, 0}), Simulation::look_at({40, -50, 25}, {2, 0, 1}),
            Simulation::look_at({-30, -45, -40}, {-3, 1, 2})};
}

/// 80 x 60 pixels of about 0.75 mm at the scene; normals, weights and flags enabled.
inline PointImage scene_frame(const RigidMatrix& pose, int width = 80, int height = 60) {
    return Simulation::render(*ball_and_wall(), {80.0, 81.0, 0.5 * width - 0.3, 0.5 * height + 0.2}, width, height,
                              pose);
}

/// A frame whose only `points` points lie on the plane z = depth, seen from the front, from slot 0 on.
inline PointImage flat_frame(int points, float depth = 50.0f, float weight = 1.0f) {
    PointImage frame;
    frame.enable_vNormal();
    frame.enable_vWeight();
    frame.ini(12, 10, {50.0, 50.0, 5.5, 4.5}, 1, Vector2f::Zero());
    for (int i = 0; i < points; ++i) {
        const auto slot = static_cast<std::size_t>(i);
        const Vector3f ray = frame.get_ray_direct(slot);
        frame.set_vCoord(slot, ray * (depth / ray.z()));
        frame.set_vNrv(slot, {0, 0, -1});
        frame.set_vWeight(slot, weight);
    }
    return frame;
}

using VoxelKey = std::array<int, 3>;

struct Voxel {
    VoxelKey at;
    int count;
    float sum, weight;

    bool operator==(const Voxel& other) const {
        return at == other.at && count == other.count && sum == other.sum && weight == other.weight;
    }
};

/// The used voxels in the order of their leaf indices.
template <class Leaf>
std::vector<Voxel> used_voxels(const VexelOctree::Octree<Leaf>& tree) {
    std::vector<Voxel> voxels;
    for (int i = 0; i < tree.get_vaild_leaf_num(); ++i) {
        const Leaf& leaf = tree.leaf_at(i);
        if (!leaf.is_used()) continue;
        const Vector3i at = tree.leaf_coordinates(i);
        voxels.push_back({{at.x(), at.y(), at.z()}, leaf.count(), leaf.tsdfSum, static_cast<float>(leaf.weightSum)});
    }
    return voxels;
}
template <class Leaf>
std::vector<Voxel> used_voxels(const FusionTsdf<Leaf>& volume) {
    return used_voxels(volume.get_fusion_tree());
}

template <class Leaf>
bool fuse(FusionTsdf<Leaf>& volume, const PointImage& frame, const RigidMatrix& pose = {}, bool add = true,
          const std::vector<unsigned char>* labels = nullptr) {
    ChangedLeaves changed;
    return volume.fusion_one_frame_speckle_parallel(frame, pose, changed, add, false, labels);
}

template <class Leaf>
BaseTriMesh extract(FusionTsdf<Leaf>& volume, float minWeight = 0.0f, std::vector<int>* axes = nullptr,
                    bool optimise = false) {
    BaseTriMesh mesh;
    std::vector<int> own;
    EXPECT_EQ(volume.get_result_tbb(minWeight, mesh, axes != nullptr ? *axes : own, optimise), RET_SUCCESS);
    return mesh;
}

/// Gives a voxel `count` contributions of the same distance.
template <class Leaf>
void set_voxel(FusionTsdf<Leaf>& volume, const Vector3i& voxel, float distance, int count = 1) {
    auto& tree = volume.get_fusion_tree();
    Leaf& leaf = tree.leaf_at(tree.find_or_create_leaf(voxel.x(), voxel.y(), voxel.z()).leaf);
    leaf.reset();
    leaf.touch(voxel);
    for (int i = 0; i < count; ++i) leaf.add(distance, 1.0f);
}

}  // namespace VexelAlgorithm::Fusion
