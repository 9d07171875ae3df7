// The octree used by several threads at once: std::thread only, so that the thread sanitizer sees everything.
#include "fusion/LeafTSDFLaser.h"
#include "fusion/LeafTSDFTeeth.h"
#include "tests/common.h"
#include "tests/fusion/octreeScenes.h"

namespace VexelOctree {
namespace {

using namespace VexelAlgorithm::Fusion;
constexpr int Threads = 4, Rounds = 2000;

/// Runs body(0) ... body(Threads - 1) at the same time.
void run_together(const std::function<void(int)>& body) {
    std::atomic<int> waiting{Threads};
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t)
        threads.emplace_back([&, t] {
            for (--waiting; waiting > 0;) std::this_thread::yield();
            body(t);
        });
    for (std::thread& thread : threads) thread.join();
}

TEST(OctreeConcurrency, AllThreadsGetTheSameOctetsAndReadWholeOnes) {
    for (const int depth : {10, 14, 10, 14}) {
        Tree tree;
        tree.set_depth(depth, 1);
        const std::vector<Vector3i> voxels = scattered_voxels(tree.get_size(), 400, 50);
        const std::size_t count = voxels.size();
        std::array<std::vector<std::int32_t>, Threads> leaves;
        std::atomic<int> created{0};
        run_together([&](int t) {
            std::vector<std::int32_t>& mine = leaves[static_cast<std::size_t>(t)];
            mine.resize(count);
            int made = 0;
            for (std::size_t k = 0; k < count; ++k) {
                // Two threads side by side, one against them, one from the middle on.
                const std::size_t i = t < 2 ? k : t == 2 ? count - 1 - k : (k + count / 2) % count;
                const LeafPath path = tree.find_or_create_leaf(voxels[i].x(), voxels[i].y(), voxels[i].z());
                mine[i] = path.leaf;
                made += path.created;
                ASSERT_EQ(tree.leaf_coordinates(path.leaf), voxels[i]);
                // What others may be making is there as a whole or not at all.
                const Vector3i& v = voxels[7919 * i % count];
                const bool isEmpty = tree.empty_node_bits(v.x(), v.y(), v.z()) > 0;
                const std::int32_t leaf = tree.find_leaf(v);
                ASSERT_TRUE(leaf < 0 ? isEmpty : tree.leaf_coordinates(leaf) == v);
                ASSERT_FALSE(leaf >= 0 && std::as_const(tree).leaf_at(leaf).is_used());
            }
            created += made;
        });
        for (int t = 1; t < Threads; ++t) EXPECT_EQ(leaves[static_cast<std::size_t>(t)], leaves[0]);
        // Every counter has risen by one a node.
        EXPECT_EQ(created, count_nodes(voxels, 1));
        EXPECT_EQ(tree.top_tree().get_octet_count(), count_nodes(voxels, depth - 8));
        for (int i = 0; i < tree.get_level_count(); ++i)
            EXPECT_EQ(tree.level(i).octets, count_nodes(voxels, depth - 9 - i));
        EXPECT_EQ(check_octree(tree), Findings());
    }
}

TEST(OctreeConcurrency, PoolGrowsAcrossPagesUnderEverybody) {
    Tree tree;
    tree.set_depth(10, 1);
    LeafTSDFSpeckle* const first = &tree.leaf_at(0);
    // 300000 octets fill two pages of leaves, and two of entries and coordinates, and reach into the third ones.
    constexpr int octets = 300000;
    run_together([&](int t) {
        for (int k = 0; k < octets; ++k) {
            if (k % 2 == 0 && k / 2 % Threads != t) continue;  // half for one thread, half for all
            const Vector3i v(2 * (k & 127), 2 * (k >> 7 & 127), 2 * (k >> 14));
            const std::int32_t index = tree.find_or_create_leaf(v.x(), v.y(), v.z()).leaf;
            LeafTSDFSpeckle& leaf = tree.leaf_at(index);
            const std::lock_guard<SpinLock> guard(tree.leaf_lock(index, leaf));
            leaf.touch(v);
            leaf.add(1.0f, 1.0f);
        }
    });
    EXPECT_EQ(tree.get_vaild_leaf_num(), 8 * octets);
    EXPECT_EQ(tree.pool().size(), 3 << 20);
    EXPECT_EQ(&tree.leaf_at(0), first);
    int once = 0, byAll = 0;
    for (int i = 0; i < 8 * octets; i += 8) {
        once += tree.leaf_at(i).count() == 1;
        byAll += tree.leaf_at(i).count() == Threads;
    }
    EXPECT_EQ(once, octets / 2);
    EXPECT_EQ(byAll, octets / 2);
    EXPECT_EQ(check_octree(tree), Findings());

    tree.clear();
    run_together([&](int t) {
        for (int i = t; i < 4 << 20; i += 4099) {
            // Half of the threads make pages, the others read the ones they see.
            while (t % 2 == 1 && tree.pool().size() <= i) std::this_thread::yield();
            EXPECT_FALSE(tree.leaf_at(i).is_used());
        }
    });
    EXPECT_EQ(tree.pool().size(), 4 << 20) << "each page was made once";
}

/// Updates from all threads of the eight leaves of an octet, each many times.
template <class Leaf>
void update_together(Octree<Leaf>& tree, const std::function<void(Leaf&, int round)>& update) {
    run_together([&](int) {
        for (int i = 0; i < 8 * Rounds; ++i) {
            const Vector3i v(i & 1, i >> 1 & 1, i >> 2 & 1);
            const std::int32_t index = tree.find_or_create_leaf(v.x(), v.y(), v.z()).leaf;
            Leaf& leaf = tree.leaf_at(index);
            const std::lock_guard<SpinLock> guard(tree.leaf_lock(index, leaf));
            if (!leaf.is_used()) leaf.touch(v);
            update(leaf, i / 8);
        }
    });
    EXPECT_EQ(tree.get_vaild_leaf_num(), 8);
    EXPECT_EQ(check_octree(tree), Findings());
}

TEST(OctreeConcurrency, LeafUpdatesAreExact) {
    constexpr int updates = Rounds * Threads;
    Octree<LeafTSDFTeeth> teeth;  // its lock is its own
    std::atomic<int> newlyChanged{0};
    // Of every four rounds three add and one takes back; whole numbers add up exactly in any order.
    update_together<LeafTSDFTeeth>(teeth, [&](LeafTSDFTeeth& leaf, int round) {
        round % 4 == 3 ? leaf.remove(2.0f, 1.0f) : leaf.add(2.0f, 1.0f);
        round % 4 == 3 ? leaf.remove_label(2) : leaf.add_label(round % 4 + 1);
        newlyChanged += leaf.mark_changed();
    });
    Octree<LeafTSDFLaser> laser;  // locks are shared
    update_together<LeafTSDFLaser>(
        laser, [](LeafTSDFLaser& leaf, int round) { leaf.add(static_cast<float>(round % 2 * 2), 1.0f); });
    EXPECT_EQ(newlyChanged, 8);
    for (int i = 0; i < 8; ++i) {
        const LeafTSDFTeeth& leaf = teeth.leaf_at(i);
        EXPECT_TRUE(leaf.count() == updates / 2 && leaf.weightSum == updates / 2 && leaf.tsdfSum == updates) << i;
        EXPECT_TRUE(leaf.labels[0] == 255 && leaf.labels[1] == 0) << i;
        EXPECT_TRUE(laser.leaf_at(i).count() == updates && laser.leaf_at(i).tsdfSum == updates) << i;
    }
}

}  // namespace
}  // namespace VexelOctree
