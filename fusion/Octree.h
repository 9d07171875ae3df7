// The sparse voxel volume: a fixed-depth octree of index tables over a paged pool of leaf records.
//
// The way to a leaf: the dense top grid resolves the upper 8 bits of each coordinate, one level table each of
// the next bits, and an octet of 2 x 2 x 2 leaves the last one. Nodes are int32 indices into append-only
// tables; eight children are handed out by one atomic increment; nothing ever moves.
#pragma once

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/types.h"
#include "fusion/PagedArray.h"
#include "fusion/SpinLock.h"
#include "fusion/TopTree.h"

namespace VexelOctree {

using VexelAlgorithm::Vector3f;
using VexelAlgorithm::Vector3i;

/// Leaf records in pages of 2^20. Every record starts as `Leaf()`, whose state is negative: never used.
template <class Leaf>
using leafPool = PagedArray<Leaf, 20>;

/// Index of one node's eight children in the next table, or -1, and the lock under which it is made.
struct ChildEntry {
    std::atomic<std::int32_t> child{-1};
    SpinLock lock;

    ChildEntry() = default;
    ChildEntry(const ChildEntry& other) : child(other.child.load(std::memory_order_relaxed)) {}
};

/// The child entries of one intermediate level, and how many octets it has handed out in the next table.
struct LevelTable {
    PagedArray<ChildEntry, 17> entries;
    std::atomic<std::int32_t> octets{0};
};

/// Where a leaf was found: its index, whether the last node on the way was made by this call, and the entry
/// that the search went through last (null when the way leads from the top grid straight to the leaves).
struct LeafPath {
    std::int32_t leaf = -1;
    bool created = false;
    ChildEntry* entry = nullptr;
};

template <class Leaf>
class OctreeReader;

/// Leaf locks for leaf types that have no lock byte: a table beside the pool, one lock for each residue of the
/// leaf index. Two leaves may share a lock; a thread never holds two.
class LeafLockTable {
public:
    SpinLock& of(std::int32_t leaf) { return _locks[static_cast<std::uint32_t>(leaf) & (Count - 1)]; }

private:
    static constexpr std::uint32_t Count = 1u << 14;
    std::unique_ptr<SpinLock[]> _locks{new SpinLock[Count]};
};

/// The volume. Coordinates are voxel coordinates, 0 <= x, y, z < 2^treeDepth; lengths are in millimetres.
///
/// Thread-safety: finding, finding or creating, and growing the pool may run from any number of threads at the
/// same time. Leaf contents are guarded by `leaf_lock`. Clearing, set-up and the setters need the tree for
/// themselves. No operation removes nodes while others run.
template <class Leaf>
class Octree {
public:
    static constexpr int TopBits = 8;
    static constexpr int MinTreeDepth = 10;
    /// 2^20 voxels an axis: leaves 4 of the 24 bits of a float coordinate below the voxel, and three packed
    /// octet coordinates fit 64 bits. Leaf types with narrower coordinates lower it (`Leaf::MaxTreeDepth`).
    static constexpr int MaxTreeDepth = 20;

    Octree() { set_depth(MinTreeDepth, 1); }

    /// Sets depth and leaf bits and empties the tree. The depth is clamped to [10, MaxTreeDepth], leaf bits
    /// to [1, 3]. Throws std::bad_alloc: the tree is then as it was, or empty at the new depth with its first leaf
    /// page still to be made.
    void set_depth(int depth, int leafBits) {
        const int bits = std::clamp(leafBits, 1, 3);
        const int clampedDepth = std::clamp(depth, MinTreeDepth, max_tree_depth());
        std::vector<std::unique_ptr<LevelTable>> levels(
            static_cast<std::size_t>(std::max(clampedDepth - TopBits - bits, 0)));
        for (auto& level : levels) level = std::make_unique<LevelTable>();
        _top.reset_mem();
        _levels = std::move(levels);
        _leafBits = bits;
        _treeDepth = clampedDepth;
        clear_tables();
    }

    int get_treeDepth() const { return _treeDepth; }
    int get_leafBits() const { return _leafBits; }
    int get_level_count() const { return static_cast<int>(_levels.size()); }
    /// Voxels along one axis.
    int get_size() const { return 1 << _treeDepth; }
    float get_pointDis() const { return _pointDis; }
    void set_point_dis(float pointDis) { _pointDis = pointDis; }
    /// Model coordinates of the corner of voxel (0, 0, 0).
    const Vector3f& get_shift() const { return _shift; }
    void set_shift(const Vector3f& shift) { _shift = shift; }

    const TopTree& top_tree() const { return _top; }
    TopTree& top_tree() { return _top; }
    const LevelTable& level(int i) const { return *_levels[static_cast<std::size_t>(i)]; }
    leafPool<Leaf>& pool() { return _pool; }
    const leafPool<Leaf>& pool() const { return _pool; }

    /// Leaf slots handed out so far, used and unused ones of the allocated octets alike.
    int get_vaild_leaf_num() const { return last_octet_count() << (3 * _leafBits); }
    std::int32_t last_octet_count() const {
        return _levels.empty() ? _top.get_octet_count() : _levels.back()->octets.load(std::memory_order_acquire);
    }

    /// Empties the tree and makes the first leaf page. Depth, spacing and shift stay. Throws std::bad_alloc as
    /// `set_depth` does.
    void clear() {
        _top.reset_mem();
        clear_tables();
    }

    // ---- coordinates --------------------------------------------------------------------------------

    /// One coordinate of world-to-voxel: truncated toward zero, then lowered by one when negative. So -1.0
    /// becomes -2, one lower than floor: negative coordinates lie outside the volume in any case. Values
    /// without a voxel number (NaN, beyond 2^30) give -1.
    static int voxel_coordinate(float q) {
        if (!(std::abs(q) < 1073741824.0f)) return -1;
        return static_cast<int>(q) - (q < 0.0f ? 1 : 0);
    }
    Vector3i world_to_voxel(const Vector3f& point) const {
        const Vector3f q = (point - _shift) / _pointDis;
        return {voxel_coordinate(q.x()), voxel_coordinate(q.y()), voxel_coordinate(q.z())};
    }
    /// The centre of a voxel in model coordinates.
    Vector3f voxel_to_world(const Vector3i& voxel) const {
        return _shift + (voxel.cast<float>() + Vector3f::Constant(0.5f)) * _pointDis;
    }
    bool is_inside(int x, int y, int z) const {
        // The size is a power of two: a coordinate that is negative or too large has a bit above all of it.
        return static_cast<std::uint32_t>(x | y | z) < static_cast<std::uint32_t>(get_size());
    }
    /// The voxel of a leaf slot that has been handed out.
    Vector3i leaf_coordinates(std::int32_t leaf) const {
        const std::uint64_t packed = _unitCoordinates[leaf >> (3 * _leafBits)];
        Vector3i voxel(static_cast<int>(packed & UnitMask), static_cast<int>((packed >> UnitBits) & UnitMask),
                       static_cast<int>(packed >> (2 * UnitBits)));
        for (int bit = _leafBits - 1; bit >= 0; --bit) {
            const int code = leaf >> (3 * bit);
            voxel = 2 * voxel + Vector3i(code & 1, (code >> 1) & 1, (code >> 2) & 1);
        }
        return voxel;
    }

    // ---- finding ------------------------------------------------------------------------------------

    /// The leaf index of a voxel, -1 when the way to it does not exist. A voxel outside the volume gives 0.
    std::int32_t find_leaf(int x, int y, int z) const {
        if (!is_inside(x, y, z)) return 0;
        const std::int32_t unit = find_unit(x >> _leafBits, y >> _leafBits, z >> _leafBits);
        return unit < 0 ? -1 : unit + morton(x, y, z);
    }
    std::int32_t find_leaf(const Vector3i& voxel) const { return find_leaf(voxel.x(), voxel.y(), voxel.z()); }

    /// The same, making the nodes that are missing; -1 outside the volume and when the tables are full.
    /// Throws std::bad_alloc.
    LeafPath find_or_create_leaf(int x, int y, int z) {
        if (!is_inside(x, y, z)) return {};
        LeafPath path = find_or_create_unit(x >> _leafBits, y >> _leafBits, z >> _leafBits);
        if (path.leaf >= 0) path.leaf += morton(x, y, z);
        return path;
    }

    /// The coordinates of each allocation unit that has been handed out: x, y, z of 20 bits each, x lowest.
    const PagedArray<std::uint64_t, 17>& unit_coordinates() const { return _unitCoordinates; }

    /// First leaf index of the allocation unit with unit coordinates (voxel >> leafBits) inside the volume,
    /// -1 when it does not exist.
    std::int32_t find_unit(int ux, int uy, int uz) const {
        const std::int32_t node = find_node(ux, uy, uz, get_level_count());
        return node < 0 ? -1 : first_leaf(node);
    }

    /// The node of a brick of eight units, 2 b and 2 b + 1 along each axis, inside the volume; -1 when there is none.
    /// For trees with level tables, as all with one leaf bit are.
    std::int32_t find_brick(int bx, int by, int bz) const {
        return find_node(2 * bx, 2 * by, 2 * bz, get_level_count() - 1);
    }
    /// First leaf index of one of a brick's units, x fastest; negative when it does not exist.
    std::int32_t brick_unit(std::int32_t brick, std::int32_t code) const {
        const auto& entries = _levels.back()->entries;
        if (brick < 0 || brick >= entries.size()) return -1;
        return first_leaf(entries[brick + code].child.load(std::memory_order_acquire));
    }

    /// The edge length, as a power of two of voxels, of the largest empty node around a voxel inside the volume;
    /// 0 when the voxel's unit exists.
    int empty_node_bits(int x, int y, int z) const {
        const int ux = x >> _leafBits, uy = y >> _leafBits, uz = z >> _leafBits;
        const int levels = get_level_count();
        const int cellBits = _leafBits + levels;
        const int blockBits = _top.empty_block_bits(x >> cellBits, y >> cellBits, z >> cellBits);
        if (blockBits >= 0) return cellBits + blockBits;
        std::int32_t node = _top.get(top_cell(ux, uy, uz));
        if (node < 0) return cellBits;  // marked by a thread that is just about to fill it
        for (int i = 0; i < levels; ++i) {
            const std::int32_t slot = node + child_code(ux, uy, uz, levels - 1 - i);
            node = _levels[static_cast<std::size_t>(i)]->entries[slot].child.load(std::memory_order_acquire);
            if (node < 0) return _leafBits + levels - 1 - i;
        }
        return 0;
    }

    /// Whether the top grid has nothing in the box of voxels low <= voxel <= high. Voxels outside the volume
    /// count as empty.
    bool is_box_empty(const Vector3i& low, const Vector3i& high) const {
        const int cellBits = _leafBits + get_level_count();
        return _top.is_box_empty({low.x() >> cellBits, low.y() >> cellBits, low.z() >> cellBits},
                                 {high.x() >> cellBits, high.y() >> cellBits, high.z() >> cellBits});
    }

    /// `find_or_create_leaf` for the first leaf of a unit inside the volume. On success the pool holds the unit's
    /// leaves.
    LeafPath find_or_create_unit(int ux, int uy, int uz) {
        const int levels = get_level_count();
        // Octets of table 0 are handed out by the top grid, those behind the last table are the leaves.
        const auto octetOf = [&](int table) {
            return [this, table, ux, uy, uz](std::atomic<std::int32_t>& counter) {
                return table < get_level_count() ? take_children(counter, table) : take_unit(counter, ux, uy, uz);
            };
        };
        LeafPath path;
        std::int32_t node = _top.get_or_create(top_cell(ux, uy, uz), path.created, octetOf(0));
        for (int i = 0; i < levels && node >= 0; ++i) {
            LevelTable& table = *_levels[static_cast<std::size_t>(i)];
            path.entry = &table.entries[node + child_code(ux, uy, uz, levels - 1 - i)];
            node = get_or_create_child(table, *path.entry, path.created, octetOf(i + 1));
        }
        path.leaf = node < 0 ? -1 : first_leaf(node);
        return path;
    }

    /// The record at a leaf index >= 0; the pool grows when it is not there yet. Throws std::bad_alloc.
    Leaf& leaf_at(std::int32_t leaf) {
        if (leaf >= _pool.size()) _pool.grow_to(leaf);
        return _pool[leaf];
    }
    const Leaf& leaf_at(std::int32_t leaf) const { return _pool[leaf]; }

    /// The lock of a leaf's contents.
    SpinLock& leaf_lock(std::int32_t leaf, Leaf& record) {
        if constexpr (Leaf::HasLock) {
            (void)leaf;
            return record.lock;
        } else {
            (void)record;
            return _leafLocks.of(leaf);
        }
    }

private:
    friend class OctreeReader<Leaf>;

    static constexpr int UnitBits = 20;
    static constexpr std::uint64_t UnitMask = (std::uint64_t{1} << UnitBits) - 1;

    static constexpr int max_tree_depth() { return std::min(MaxTreeDepth, Leaf::MaxTreeDepth); }

    std::int32_t top_cell(int ux, int uy, int uz) const {
        const int s = get_level_count();
        return ((uz >> s) << (2 * TopBits)) + ((uy >> s) << TopBits) + (ux >> s);
    }
    /// The node of a unit `depth` level tables down: the index of its first child in the next table. -1: none.
    std::int32_t find_node(int ux, int uy, int uz, int depth) const {
        std::int32_t node = _top.get(top_cell(ux, uy, uz));
        for (int i = 0; i < depth && node >= 0; ++i) {
            const std::int32_t slot = node + child_code(ux, uy, uz, get_level_count() - 1 - i);
            const auto& entries = _levels[static_cast<std::size_t>(i)]->entries;
            if (slot >= entries.size()) return -1;
            node = entries[slot].child.load(std::memory_order_acquire);
        }
        return node;
    }
    std::int32_t first_leaf(std::int32_t node) const { return node * (1 << (3 * (_leafBits - 1))); }
    static std::int32_t child_code(int ux, int uy, int uz, int bit) {
        return ((ux >> bit) & 1) + 2 * ((uy >> bit) & 1) + 4 * ((uz >> bit) & 1);
    }
    std::int32_t morton(int x, int y, int z) const {
        std::int32_t code = 0;
        for (int bit = _leafBits - 1; bit >= 0; --bit) {
            code = ((code * 2 + ((z >> bit) & 1)) * 2 + ((y >> bit) & 1)) * 2 + ((x >> bit) & 1);
        }
        return code;
    }

    void clear_tables() {
        for (auto& level : _levels) {
            level->entries.clear();
            level->octets.store(0, std::memory_order_relaxed);
        }
        _unitCoordinates.clear();
        _pool.clear();
        _pool.grow_to(0);
    }

    template <class TakeOctet>
    static std::int32_t get_or_create_child(LevelTable& table, ChildEntry& entry, bool& created,
                                            const TakeOctet& takeOctet) {
        created = false;
        const std::int32_t present = entry.child.load(std::memory_order_acquire);
        if (present >= 0) return present;

        const std::lock_guard<SpinLock> guard(entry.lock);
        const std::int32_t winner = entry.child.load(std::memory_order_relaxed);
        if (winner >= 0) return winner;
        const std::int32_t base = takeOctet(table.octets);
        if (base < 0) return -1;
        entry.child.store(base, std::memory_order_release);
        created = true;
        return base;
    }

    /// The next octet of a level table.
    std::int32_t take_children(std::atomic<std::int32_t>& counter, int table) {
        auto& entries = _levels[static_cast<std::size_t>(table)]->entries;
        return take_octet(counter, entries.Capacity / 8, [&](std::int32_t octet) { entries.grow_to(8 * octet + 7); });
    }
    /// The next unit of leaves, and where it lies, noted before anybody can find it.
    std::int32_t take_unit(std::atomic<std::int32_t>& counter, int ux, int uy, int uz) {
        const std::int32_t base =
            take_octet(counter, leafPool<Leaf>::Capacity >> (3 * _leafBits), [&](std::int32_t unit) {
                _pool.grow_to(((unit + 1) << (3 * _leafBits)) - 1);
                _unitCoordinates.grow_to(unit);
            });
        if (base < 0) return -1;
        _unitCoordinates[base / 8] = static_cast<std::uint64_t>(ux) | (static_cast<std::uint64_t>(uy) << UnitBits) |
                                     (static_cast<std::uint64_t>(uz) << (2 * UnitBits));
        return base;
    }

    leafPool<Leaf> _pool;
    int _leafBits = 1;
    int _treeDepth = MinTreeDepth;
    TopTree _top{TopBits};
    std::vector<std::unique_ptr<LevelTable>> _levels;
    float _pointDis = 1.0f;
    Vector3f _shift = Vector3f::Zero();
    PagedArray<std::uint64_t, 17> _unitCoordinates;  // 8 bytes a unit: x, y, z of 20 bits each
    LeafLockTable _leafLocks;
};

}  // namespace VexelOctree
