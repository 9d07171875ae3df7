// The octree alone: coordinates, finding and creating, growth, the top grid's file form, and what its checker sees.
#include "fusion/Octree.h"

#include <climits>

#include "fusion/LaserGrid.h"
#include "fusion/LeafNormal.h"
#include "fusion/LeafTSDFLaser.h"
#include "tests/common.h"
#include "tests/fusion/octreeScenes.h"
#include "trials/TemporaryFolder.h"

namespace VexelOctree {
namespace {

using namespace VexelAlgorithm::Fusion;
using namespace VexelTest;
using namespace VexelTrial;

TEST(OctreeCoordinates, WorldToVoxel) {
    Tree tree;
    tree.set_point_dis(0.25f);
    tree.set_shift({8.0f, -4.0f, 0.0f});
    const std::pair<float, int> cases[] = {{0.0f, 0},   {-0.0f, 0},      {0.96875f, 0},        {1.0f, 1},
                                           {5.75f, 5},  {-0.5f, -1},     {-1.0f, -2},          {-1.5f, -2},
                                           {-2.0f, -3}, {kNaN, -1},      {3e9f, -1},           {-3e9f, -1},
                                           {1e38f, -1}, {-INFINITY, -1}, {1048575.5f, 1048575}};
    for (const auto& [q, voxel] : cases) {
        EXPECT_EQ(Tree::voxel_coordinate(q), voxel) << q;
        if (!(std::abs(q) < 1e4f)) continue;
        const Vector3f point = tree.get_shift() + 0.25f * Vector3f(q, 2.0f, q);
        EXPECT_EQ(tree.world_to_voxel(point), Vector3i(voxel, 2, voxel)) << q;
    }
    EXPECT_EQ(tree.find_leaf(tree.world_to_voxel({7.75f, 0.0f, 0.0f})), 0) << "one voxel below the shift is outside";
    EXPECT_EQ(tree.voxel_to_world({0, 3, 1023}), Vector3f(8.125f, -3.125f, 255.875f));
}

TEST(OctreeDepth, IsClampedAndGivesTheLevels) {
    const std::tuple<int, int, int, int, int> cases[] = {
        {INT_MIN, INT_MIN, 10, 1, 1}, {10, 3, 10, 3, 0}, {13, 3, 13, 3, 2},
        {21, 1, 20, 1, 11},           {12, 9, 12, 3, 1}, {INT_MAX, 2, 20, 2, 10}};
    Tree tree;
    for (const auto& [depth, leafBits, clampedDepth, clampedBits, levels] : cases) {
        tree.find_or_create_leaf(1, 2, 3);
        tree.set_depth(depth, leafBits);
        EXPECT_EQ(tree.get_treeDepth(), clampedDepth);
        EXPECT_EQ(tree.get_leafBits(), clampedBits);
        EXPECT_EQ(tree.get_level_count(), levels);
        EXPECT_EQ(tree.get_vaild_leaf_num(), 0);
        EXPECT_EQ(tree.find_leaf(1, 2, 3), -1);
    }
    Octree<LeafTSDFLaser> laser;
    laser.set_depth(20, 1);
    EXPECT_EQ(laser.get_treeDepth(), 15) << "its coordinates are 16-bit";
    Octree<LaserGrid> grid;
    EXPECT_EQ(grid.find_or_create_leaf(1, 0, 1).leaf, 5);
}

TEST(Octree, FindsNothingOutsideAndMakesNothingByLooking) {
    Tree tree;
    for (const Vector3i& v :
         {Vector3i(-1, 0, 0), Vector3i(0, 0, 1024), Vector3i(INT_MIN, 0, 0), Vector3i(0, INT_MAX, 0)}) {
        EXPECT_EQ(tree.find_leaf(v), 0);
        EXPECT_EQ(tree.find_or_create_leaf(v.x(), v.y(), v.z()).leaf, -1);
    }
    EXPECT_EQ(tree.find_leaf(5, 6, 7), -1);
    EXPECT_EQ(tree.get_vaild_leaf_num(), 0);
}

TEST(Octree, EveryDepthAndLeafSizeKeepsItsVoxelsApart) {
    for (const int leafBits : {1, 2, 3}) {
        for (const int depth : {10, 13, 20}) {
            SCOPED_TRACE(testing::Message() << "depth " << depth << ", leaf bits " << leafBits);
            Tree tree;
            tree.set_depth(depth, leafBits);
            const bool isCovered = depth >= 8 + leafBits;  // the top grid reaches just as far as the volume
            EXPECT_TRUE(!isCovered || tree.empty_node_bits(3, 2, 1) == depth) << "nothing there at all";
            NodeSet units;
            std::set<std::int32_t> leaves;
            const std::vector<Vector3i> voxels = scattered_voxels(tree.get_size(), 12, 100);
            for (const Vector3i& v : voxels) {
                const LeafPath path = tree.find_or_create_leaf(v.x(), v.y(), v.z());
                EXPECT_EQ(path.created, units.insert(node_of(v, leafBits)).second);
                leaves.insert(path.leaf);
                EXPECT_EQ(tree.find_leaf(v), path.leaf);
                EXPECT_EQ(tree.leaf_coordinates(path.leaf), v);
                int morton = 0;
                for (int bit = leafBits - 1; bit >= 0; --bit)
                    morton = 8 * morton + 4 * (v.z() >> bit & 1) + 2 * (v.y() >> bit & 1) + (v.x() >> bit & 1);
                EXPECT_EQ(path.leaf % (1 << (3 * leafBits)), morton);
            }
            EXPECT_EQ(leaves.size(), voxels.size());
            EXPECT_EQ(tree.get_vaild_leaf_num(), static_cast<int>(units.size()) << (3 * leafBits));
            EXPECT_EQ(check_octree(tree), Findings());

            // The largest empty node around a voxel. Below the top grid every power of two is a node, above it every
            // second one.
            std::vector<NodeSet> nodes(static_cast<std::size_t>(depth + 1));
            for (int bits = leafBits; bits <= depth; ++bits)
                for (const Vector3i& v : voxels) nodes[static_cast<std::size_t>(bits)].insert(node_of(v, bits));
            std::mt19937 random(3);
            std::uniform_int_distribution<int> anywhere(0, tree.get_size() - 1), near(0, 40);
            for (int i = 0; isCovered && i < 3000; ++i) {
                const auto draw = [&] { return i % 2 ? anywhere(random) : near(random); };
                const Vector3i v(draw(), draw(), draw());
                int expected = 0;
                for (int bits = leafBits, cell = depth - 8; bits <= depth; ++bits) {
                    const bool isNode = bits < cell || (bits - cell) % 2 == 0;
                    const bool isEmpty = nodes[static_cast<std::size_t>(bits)].count(node_of(v, bits)) == 0;
                    if (isNode && isEmpty) expected = bits;
                }
                ASSERT_EQ(tree.empty_node_bits(v.x(), v.y(), v.z()), expected) << v.transpose();
            }

            tree.clear();
            EXPECT_EQ(tree.get_vaild_leaf_num(), 0);
            EXPECT_EQ(tree.pool().size(), 1 << 20);
            EXPECT_EQ(tree.find_leaf(0, 0, 0), -1);
            EXPECT_EQ(tree.get_treeDepth(), depth);
        }
    }
}

/// A leaf whose page cannot be made while memory is short.
struct ScarceLeaf : LeafNormal {
    static inline bool isShort = false;
    ScarceLeaf() {
        if (isShort) throw std::bad_alloc();
    }
};

TEST(LeafPool, RunningOutOfMemoryLosesNothing) {
    Octree<ScarceLeaf> tree;
    tree.find_or_create_leaf(1, 1, 1);
    const auto fill_page = [&] {  // 2^17 octets
        for (int i = 0; i <= 1 << 17; ++i) tree.find_or_create_leaf(2 * (i & 511), 2 * (i >> 9 & 511), 600);
    };
    ScarceLeaf::isShort = true;
    EXPECT_THROW(fill_page(), std::bad_alloc);
    EXPECT_EQ(tree.get_vaild_leaf_num(), tree.pool().size());
    EXPECT_EQ(check_octree(tree), Findings());
    ScarceLeaf::isShort = false;
    fill_page();
    EXPECT_EQ(tree.get_vaild_leaf_num(), 8 * ((1 << 17) + 2));
    EXPECT_EQ(check_octree(tree), Findings());

    ScarceLeaf::isShort = true;
    EXPECT_THROW(tree.set_depth(12, 1), std::bad_alloc) << "no first page";
    ScarceLeaf::isShort = false;
    EXPECT_EQ(tree.get_vaild_leaf_num(), 0);
    tree.find_or_create_leaf(1, 1, 1);
    EXPECT_EQ(check_octree(tree), Findings());
    EXPECT_THROW(tree.leaf_at(INT32_MAX), std::bad_alloc) << "beyond the last page";
}

// ---- the top grid ---------------------------------------------------------------------------------------

TopTree& fill(TopTree& top, std::initializer_list<std::int32_t> cells) {
    const auto next = [](std::atomic<std::int32_t>& counter) { return 8 * counter++; };
    bool created = false;
    for (const std::int32_t cell : cells) top.get_or_create(cell, created, next);
    return top;
}

class TopTreeFile : public testing::Test {
protected:
    std::string save(const TopTree& top) {
        std::ofstream out(path, std::ios::binary);
        EXPECT_TRUE(top.save_tree_binary(out));
        out.close();
        return bytes_of(path);
    }
    bool read(TopTree& top, const std::string& bytes) {
        put_bytes(path, bytes);
        std::ifstream in(path, std::ios::binary);
        return top.read_tree_binary(in);
    }

    const TemporaryFolder folder;
    const std::filesystem::path path = folder.path() / "top.bin";
};

TEST_F(TopTreeFile, RoundTripAndRefusals) {
    TopTree top(4), other(4);
    const std::string bytes = save(fill(top, {700, 3, 4095, 512}));
    ASSERT_EQ(bytes.size(), (3 + 2 * 4) * sizeof(std::int32_t));
    ASSERT_TRUE(read(fill(other, {9}), bytes));
    EXPECT_EQ(other.get(9), -1);
    EXPECT_EQ(other.get(700), 0);
    EXPECT_EQ(other.get(4095), 16);
    EXPECT_EQ(other.empty_block_bits(14, 15, 15), 0);
    EXPECT_EQ(save(other), bytes);

    std::vector<std::string> refused;
    for (std::size_t length = 0; length < bytes.size(); ++length) refused.push_back(bytes.substr(0, length));
    // int32 number, new value. The file: bits, octets, filled cells, then (3, 8), (512, 24), (700, 0), (4095, 16).
    const std::pair<std::size_t, std::int32_t> hostile[] = {
        {0, 8},    {0, -1},      {1, 3},       {1, 5},       {1, -1}, {1, INT_MAX}, {2, 3},
        {2, 5},    {2, -1},      {2, INT_MAX}, {2, INT_MIN}, {3, -1}, {3, 512},     {3, 701},
        {9, 4096}, {9, INT_MAX}, {4, 12},      {4, -8},      {4, 0},  {4, 32},      {6, INT_MAX - 7}};
    for (const auto& [number, value] : hostile) {
        refused.push_back(bytes);
        std::memcpy(&refused.back()[4 * number], &value, sizeof(value));
    }
    for (const std::string& file : refused) {
        EXPECT_FALSE(read(other, file)) << testing::PrintToString(file);
        EXPECT_EQ(other.get_octet_count(), 4);
        EXPECT_EQ(other.get(4095), 16);
    }
    EXPECT_EQ(save(other), bytes) << "what was refused has changed nothing";
    other.clear();
    EXPECT_EQ(other.get_octet_count(), 0);
    EXPECT_EQ(save(other).size(), 3 * sizeof(std::int32_t));
    EXPECT_EQ(other.empty_block_bits(14, 15, 15), 4);
    std::ofstream closed;
    EXPECT_FALSE(top.save_tree_binary(closed));
}

TEST(TopTree, EmptyBoxesAgreeWithTheCells) {
    for (const int bits : {1, 2, 5}) {
        TopTree top(bits);
        const int size = 1 << bits;
        EXPECT_TRUE(top.is_box_empty({0, 0, 0}, {size, size, size}));
        std::mt19937 random(static_cast<unsigned>(bits));
        std::uniform_int_distribution<int> cell(0, top.get_cell_count() - 1), edge(-3, size + 2);
        fill(top, {cell(random), cell(random), cell(random)});
        for (int i = 0; i < 2000; ++i) {
            const std::array<int, 3> low = {edge(random), edge(random), edge(random)};
            const std::array<int, 3> high = {low[0] + i % 5, low[1] + i % 3, low[2] + i % 7};
            bool expected = true;
            for (int c = 0; c < top.get_cell_count(); ++c) {
                const std::array<int, 3> at = {c & (size - 1), (c >> bits) & (size - 1), c >> (2 * bits)};
                bool inside = top.get(c) >= 0;
                for (std::size_t k = 0; k < 3; ++k) inside = inside && low[k] <= at[k] && at[k] <= high[k];
                expected = expected && !inside;
            }
            ASSERT_EQ(top.is_box_empty(low, high), expected) << testing::PrintToString(low);
        }
    }
}

// ---- the checker ----------------------------------------------------------------------------------------

TEST(OctreeChecker, NoticesDamage) {
    using Damage = std::function<void(Tree&)>;
    const auto level = [](Tree& tree, int i) -> LevelTable& { return const_cast<LevelTable&>(tree.level(i)); };
    const auto child = [&](Tree& tree, int i, int entry) -> std::atomic<std::int32_t>& {
        return level(tree, i).entries[entry].child;
    };
    const std::pair<const char*, Damage> cases[] = {
        {"base 4 in table 1", [&](Tree& tree) { child(tree, 0, 0) = 4; }},
        {"octet 0 of table 1 is used twice", [&](Tree& tree) { child(tree, 0, 1) = 0; }},
        {"octet 0 of table 1 cannot be reached", [&](Tree& tree) { child(tree, 0, 0) = -1; }},
        {"unit 1 at 0 2 0 has coordinates 2 0 0",
         [&](Tree& tree) { child(tree, 1, 2) = child(tree, 1, 1).exchange(-1); }},
        {"unit 2 at 2046 2046 2046 has coordinates 2 2046 2046",
         [](Tree& tree) {
             const_cast<PagedArray<std::uint64_t, 17>&>(tree.unit_coordinates())[2] &= ~std::uint64_t{1022};
         }},
        {"counter 3 of table 2, room for 0", [](Tree& tree) { tree.pool().clear(); }},
        {"leaf 24, which is not handed out, is used", [](Tree& tree) { tree.leaf_at(24).touch({}); }},
        {"entry 16 of table 1, which is not handed out, is 0", [&](Tree& tree) { child(tree, 1, 16) = 0; }},
    };
    for (const auto& [finding, damage] : cases) {
        Tree tree;
        tree.set_depth(11, 1);
        for (const Vector3i& v : {Vector3i(0, 0, 0), Vector3i(2, 0, 0), Vector3i(2047, 2047, 2047)})
            tree.find_or_create_leaf(v.x(), v.y(), v.z());
        damage(tree);
        std::string found;
        for (const std::string& line : check_octree(tree)) found += line + '\n';
        EXPECT_NE(found.find(finding), std::string::npos) << "no '" << finding << "' in:\n" << found;
    }
}

}  // namespace
}  // namespace VexelOctree
