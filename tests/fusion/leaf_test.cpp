// The rules of the leaf types, and reading the field that they hold.
#include "fusion/FieldReader.h"
#include "tests/fusion/fusionScenes.h"

namespace VexelAlgorithm::Fusion {
namespace {

TYPED_TEST(EveryLeaf, StartsUnusedAndHoldsTheMean) {
    TypeParam leaf;
    EXPECT_FALSE(leaf.is_used());
    leaf.touch({0, 7, 3});
    EXPECT_TRUE(leaf.is_used());
    EXPECT_EQ(leaf.value(), 0.0f) << "no weight yet";
    EXPECT_EQ(mean_distance(1.0f, 1e-5f), 0.0f);
    EXPECT_FLOAT_EQ(mean_distance(1.0f, 2e-5f), 5e4f);
    leaf.add(0.5f, 0.25f);
    leaf.add(-0.25f, 0.75f);
    EXPECT_EQ(leaf.count(), 2);
    // The generator counts 100 w + 1.
    const bool scaled = std::is_same_v<TypeParam, LeafTSDFCloudGenerator>;
    EXPECT_EQ(leaf.weight(), scaled ? 102.0f : 1.0f);
    EXPECT_FLOAT_EQ(leaf.value(), scaled ? (26.0f * 0.5f - 76.0f * 0.25f) / 102.0f : -0.0625f);
    leaf.reset();
    EXPECT_FALSE(leaf.is_used() || leaf.count() != 0 || leaf.weight() != 0.0f || leaf.tsdfSum != 0.0f);
}

TEST(LeafTSDFCloudGenerator, WeightStopsWhileTheSumGoesOn) {
    LeafTSDFCloudGenerator leaf;
    leaf.add(1.0f, 0.0199f);  // 2.99 counts 2, but adds 2.99 d
    EXPECT_EQ(leaf.weightSum, 2);
    EXPECT_FLOAT_EQ(leaf.tsdfSum, 2.99f);
    for (int i = 0; i < 599; ++i) leaf.add(1.0f, 0.99f);  // 100 each
    EXPECT_EQ(leaf.weightSum, 59902);
    leaf.add(1.0f, 5.0f);
    EXPECT_EQ(leaf.weightSum, 60403) << "the last step below 60000 is taken whole";
    const float sum = leaf.tsdfSum;
    leaf.add(1.0f, 0.99f);
    EXPECT_EQ(leaf.weightSum, 60403);
    EXPECT_FLOAT_EQ(leaf.tsdfSum, sum + 100.0f);

    LeafTSDFCloudGenerator heavy;
    heavy.add(1.0f, 1e6f);
    EXPECT_EQ(heavy.weightSum, 65535) << "16 bits do not start again";
    heavy.contributions = 65535;
    heavy.add(1.0f, 1.0f);
    EXPECT_EQ(heavy.count(), 65535);
}

TEST(LeafTSDFTeeth, RemovalTakesBackAndLeavesNoResidue) {
    LeafTSDFTeeth leaf;
    leaf.touch({});
    leaf.add(0.1f, 0.7f);
    leaf.add(0.3f, 0.2f);
    leaf.remove(0.3f, 0.2f);
    EXPECT_FLOAT_EQ(leaf.value(), 0.1f);
    leaf.marks[1] = 5;
    for (int i = 0; i < 2; ++i) {  // the second time from nothing
        leaf.remove(0.1f, 0.69999f);
        EXPECT_TRUE(leaf.tsdfSum == 0.0f && leaf.weightSum == 0.0f && leaf.count() == 0 && leaf.marks[1] == 0);
        EXPECT_TRUE(leaf.is_used());
    }
    leaf.add(0.5f, 1.0f);
    leaf.frozen = 1;
    leaf.add(0.5f, 1.0f);
    for (int i = 0; i < 2; ++i) leaf.remove(0.5f, 1.0f);
    EXPECT_TRUE(leaf.count() == 1 && leaf.value() == 0.5f && leaf.weight() == 1.0f);
}

TEST(LeafTSDFTeeth, LabelsAreCountedWithoutWrapping) {
    LeafTSDFTeeth leaf;
    for (const int label : {-1, 0, 5, 255, 1, 4, 4}) leaf.add_label(label);
    for (const int label : {-1, 0, 2, 5, 255, 4}) leaf.remove_label(label);
    EXPECT_EQ(std::vector<int>(leaf.labels, leaf.labels + 4), (std::vector<int>{1, 0, 0, 1}));
    for (int i = 0; i < 300; ++i) leaf.add_label(3);
    EXPECT_EQ(leaf.labels[2], 255);
    EXPECT_EQ(leaf.frozen + leaf.marks[2] + int(leaf.changed), 0) << "neighbours untouched";
}

TEST(LeafTSDFTeeth, ColourIsAWeightedMean) {
    LeafTSDFTeeth leaf;
    leaf.blend_color({0.9f, 0.3f, 0.0f}, 0.75f);
    leaf.blend_color({0.1f, 0.3f, 0.4f}, 0.25f);
    const std::pair<Vector3f, float> ignored[] = {{{1, 1, 1}, 0.9e-5f},
                                                  {{1, 1, 1}, kNaN},
                                                  {{1, 1, 1}, kInfinity},
                                                  {{9e-7f, 9e-7f, 9e-7f}, 1.0f},
                                                  {{1, kNaN, 1}, 1.0f}};
    for (const auto& [rgb, w] : ignored) leaf.blend_color(rgb, w);
    EXPECT_LT((Vector3f(leaf.color[0], leaf.color[1], leaf.color[2]) - Vector3f(0.7f, 0.3f, 0.1f)).norm(), 1e-6f);
    EXPECT_FLOAT_EQ(leaf.colorWeight, 1.0f);
    leaf.blend_color({2e-6f, 0.0f, 0.0f}, 1.0f);
    EXPECT_FLOAT_EQ(leaf.colorWeight, 2.0f) << "one channel suffices";
}

// ---- the field ------------------------------------------------------------------------------------------

// The vector form is compared with a plain march, see raycast_test.
TEST(FieldReader, ReadsBetweenVoxelsWhatIsLinearInSpace) {
    constexpr int side = 6;  // cubes of voxels at both ends of the volume's diagonal
    VexelOctree::Octree<LeafTSDFSpeckle> tree;
    tree.set_point_dis(0.5f);
    tree.set_shift({3.0f, -2.0f, 1.0f});
    const auto truth = [](const Vector3f& p) { return 0.25f * p.x() - 0.125f * p.y() + 0.5f * p.z() + 7.0f; };
    const auto point_at = [&](const Vector3f& q) { return Vector3f(tree.get_shift() + 0.5f * q); };
    const auto sample = [&](const Vector3f& q) {
        return FieldReader<LeafTSDFSpeckle>(tree).trilinear_at_point(point_at(q));
    };
    std::mt19937 random(11);
    for (const int low : {0, tree.get_size() - side}) {
        for (int i = 0; i < side * side * side; ++i) {
            const Vector3i v = Vector3i::Constant(low) + Vector3i(i % side, i / side % side, i / side / side);
            LeafTSDFSpeckle& leaf = tree.leaf_at(tree.find_or_create_leaf(v.x(), v.y(), v.z()).leaf);
            leaf.touch(v);
            leaf.add(truth(tree.voxel_to_world(v)), 2.0f);
        }
        // Known from voxel 1 to two before the last one, where there are eight voxels around.
        std::uniform_real_distribution<float> inside(low == 0 ? 1.0f : low + 0.51f,
                                                     low + side - (low == 0 ? 0.51f : 2.0f));
        for (int i = 0; i < 300; ++i) {
            Vector3f q(inside(random), inside(random), inside(random));
            EXPECT_NEAR(sample(q), truth(point_at(q)), 2e-4f) << q.transpose();
            q[i % 3] = i % 2 == 0 ? 1.0f - 1e-3f : static_cast<float>(tree.get_size() - 2);
            EXPECT_TRUE(std::isnan(sample(q))) << q.transpose();
        }
    }
    tree.leaf_at(tree.find_leaf(3, 3, 3)).reset();
    EXPECT_TRUE(std::isnan(sample({2.6f, 2.6f, 2.6f})) && !std::isnan(sample({2.4f, 2.6f, 2.6f})));
    for (const float far : {kNaN, kInfinity, -1.0f, 3e9f, 500.0f}) EXPECT_TRUE(std::isnan(sample({2.0f, far, 2.0f})));
}

TEST(FieldReader, ReadsVoxelsAnywhere) {
    VexelOctree::Octree<LeafTSDFSpeckle> tree;
    const auto value = [&](int x, int y, int z) {
        return FieldReader<LeafTSDFSpeckle>(tree).value_anywhere({x, y, z});
    };
    LeafTSDFSpeckle& leaf = tree.leaf_at(tree.find_or_create_leaf(3, 3, 3).leaf);
    for (int how = 0; how < 4; ++how) {  // unused, without weight, with hardly any, and hardly any value
        leaf.reset();
        if (how > 0) leaf.touch({});
        if (how == 2) leaf.add(1.0f, 0.9e-5f);
        if (how == 3) leaf.add(0.9e-6f, 1.0f);
        EXPECT_EQ(value(3, 3, 3), how < 3 ? 0.0f : 0.9e-6f);
    }
    tree.leaf_at(0).touch({});
    tree.leaf_at(0).add(7.0f, 1.0f);
    for (const int outside : {-1, 1024, INT32_MIN, INT32_MAX})
        EXPECT_EQ(value(outside, 1, 1), 7.0f) << "leaf 0 answers for the outside";
    EXPECT_EQ(value(8, 0, 0), 0.0f);
    tree.pool().clear();
    EXPECT_TRUE(value(3, 3, 3) == 0.0f && value(-1, 1, 1) == 0.0f) << "beyond the pool";
}

}  // namespace
}  // namespace VexelAlgorithm::Fusion
