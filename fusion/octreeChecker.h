// Proof that an octree is consistent, for tests and diagnosis.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "foundation/diagnostics.h"
#include "fusion/Octree.h"

namespace VexelOctree {

/// Walks the whole tree from the top grid, by its own reading of paths, and says what is wrong:
///   - bases are multiples of eight below their counter, inside their table, and each is used once;
///   - counters equal the octets that the walk reached, so every leaf index below the number handed out is
///     reachable; entries and records behind the counters are untouched;
///   - every unit's recorded coordinates agree with the way to it, inside the volume, and a search finds it;
///   - the pool holds all leaves in whole pages; the top grid's block masks agree with its cells.
///
/// Takes the tree for itself. Reads no page that is not there, so that damaged trees can be checked.
template <class Leaf>
class OctreeChecker {
public:
    explicit OctreeChecker(const Octree<Leaf>& tree) : _tree(tree), _top(tree.top_tree()) {}

    /// The findings, the first ones of many; empty for a consistent tree.
    std::vector<std::string> run() {
        const int levels = _tree.get_level_count();
        for (int table = 0; table <= levels; ++table) {
            _reached.emplace_back(static_cast<std::size_t>(octet_count(table)), false);
        }
        check_sizes();
        walk_top_grid();
        for (int table = 0; table <= levels; ++table) check_all_reached(table);
        for (int table = 0; table < levels; ++table) check_untouched_entries(table);
        check_untouched_records();
        check_block_masks();
        return _findings;
    }

private:
    static constexpr std::size_t MaxFindings = 50;

    template <class... Numbers>
    void find(const char* format, Numbers... numbers) {
        if (_findings.size() < MaxFindings) _findings.push_back(VexelAlgorithm::format_text(format, numbers...));
    }

    /// What the counter of a level table says; table number `levels` stands for the leaves.
    std::int32_t counter(int table) const {
        return table == 0 ? _top.get_octet_count() : _tree.level(table - 1).octets.load(std::memory_order_acquire);
    }
    /// The same as far as there is room for octets.
    std::int32_t octet_count(int table) const {
        const bool isLevel = table < _tree.get_level_count();
        const std::int32_t room =
            isLevel ? _tree.level(table).entries.size() / 8 : _tree.pool().size() >> (3 * _tree.get_leafBits());
        return std::clamp(counter(table), 0, room);
    }

    void check_sizes() {
        for (int table = 0; table <= _tree.get_level_count(); ++table) {
            const std::int32_t room = octet_count(table);
            if (counter(table) != room) find("counter %d of table %d, room for %d", counter(table), table, room);
        }
        const std::int32_t records = _tree.pool().size();
        if (records < 1 || records % leafPool<Leaf>::PageSize != 0) find("the pool has %d records", records);
    }

    void walk_top_grid() {
        const int bits = _top.get_topBits(), mask = (1 << bits) - 1;
        for (std::int32_t cell = 0; cell < _top.get_cell_count(); ++cell) {
            const std::int32_t base = _top.get(cell);
            if (base == -1) continue;
            _filled.emplace_back(cell & mask, (cell >> bits) & mask, cell >> (2 * bits));
            walk(0, base, _filled.back());
        }
    }

    /// `path`: the coordinate bits above those that the octet's children resolve.
    void walk(int table, std::int32_t base, const Vector3i& path) {
        std::vector<bool>& reached = _reached[static_cast<std::size_t>(table)];
        const auto octet = static_cast<std::size_t>(base) / 8;
        if (base < 0 || base % 8 != 0 || octet >= reached.size()) {
            return find("base %d in table %d, where %zu octets are handed out", base, table, reached.size());
        }
        if (reached[octet]) return find("octet %zu of table %d is used twice", octet, table);
        reached[octet] = true;
        if (table == _tree.get_level_count()) return check_unit(static_cast<std::int32_t>(octet), path);

        const auto& entries = _tree.level(table).entries;
        for (int code = 0; code < 8; ++code) {
            const std::int32_t child = entries[base + code].child.load(std::memory_order_acquire);
            if (child != -1) walk(table + 1, child, 2 * path + Vector3i(code & 1, (code >> 1) & 1, code >> 2));
        }
    }

    void check_unit(std::int32_t unit, const Vector3i& path) {
        const int leafBits = _tree.get_leafBits();
        const Vector3i low = path * (1 << leafBits);
        if (!_tree.is_inside(low.x(), low.y(), low.z())) {
            return find("unit %d at %d %d %d outside the volume", unit, low.x(), low.y(), low.z());
        }
        if (unit >= _tree.unit_coordinates().size()) return find("unit %d has no coordinates", unit);
        const std::int32_t first = unit << (3 * leafBits);
        const Vector3i recorded = _tree.leaf_coordinates(first);
        if (recorded != low) {
            find("unit %d at %d %d %d has coordinates %d %d %d", unit, low.x(), low.y(), low.z(), recorded.x(),
                 recorded.y(), recorded.z());
        }
        const std::int32_t found = _tree.find_leaf(low);
        if (found != first) {
            find("leaf %d at %d %d %d is found as %d", first, low.x(), low.y(), low.z(), found);
        }
    }

    void check_all_reached(int table) {
        const std::vector<bool>& reached = _reached[static_cast<std::size_t>(table)];
        for (std::size_t octet = 0; octet < reached.size(); ++octet) {
            if (!reached[octet]) find("octet %zu of table %d cannot be reached", octet, table);
        }
    }

    void check_untouched_entries(int table) {
        const auto& entries = _tree.level(table).entries;
        for (std::int32_t i = 8 * octet_count(table); i < entries.size(); ++i) {
            const std::int32_t child = entries[i].child.load(std::memory_order_acquire);
            if (child != -1) find("entry %d of table %d, which is not handed out, is %d", i, table, child);
        }
    }

    void check_untouched_records() {
        const std::int32_t leaves = octet_count(_tree.get_level_count()) << (3 * _tree.get_leafBits());
        for (std::int32_t i = leaves; i < _tree.pool().size(); ++i) {
            if (_tree.leaf_at(i).is_used()) find("leaf %d, which is not handed out, is used", i);
        }
    }

    void check_block_masks() {
        int shift = 0;
        for (const auto& level : _top._levels) {
            std::vector<std::uint64_t> expected(std::size_t{1} << (3 * level.bits), 0);
            for (const Vector3i& cell : _filled) {
                const int x = cell.x() >> shift, y = cell.y() >> shift, z = cell.z() >> shift;
                expected[level.word(x, y, z) - level.offset] |= level.bit(x, y, z);
            }
            for (std::size_t i = 0; i < expected.size(); ++i) {
                const std::uint64_t mask = _top.masks()[level.offset + i].load(std::memory_order_relaxed);
                if (mask != expected[i]) find("the mask of block %zu of 4^3 x 2^%d cells is wrong", i, 3 * shift);
            }
            shift += 2;
        }
    }

    const Octree<Leaf>& _tree;
    const TopTree& _top;
    std::vector<std::vector<bool>> _reached;  // octets of each table
    std::vector<Vector3i> _filled;            // cells of the top grid
    std::vector<std::string> _findings;
};

/// What is wrong with a tree, one line a finding; empty when it is consistent.
template <class Leaf>
std::vector<std::string> check_octree(const Octree<Leaf>& tree) {
    return OctreeChecker<Leaf>(tree).run();
}

}  // namespace VexelOctree
