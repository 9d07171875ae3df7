// The octree's tables as a byte stream; docs/project-format.md describes the form for readers without this code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <utility>
#include <vector>

#include "foundation/archive.h"
#include "fusion/Octree.h"
#include "fusion/blockStream.h"

namespace VexelOctree {

/// Why the trees of a file could not be read.
enum class TreesRead {
    Whole,
    Ended,   ///< the stream ended or failed
    Damaged  ///< the tables do not make a tree
};

/// Writes one level table: int32 octets handed out in the next table, int32 number of entries, the entries as int32.
/// `entryCount`: eight for each octet that the table above has handed out.
inline bool save_level_binary(const LevelTable& level, std::int32_t entryCount, std::ofstream& out) {
    using VexelAlgorithm::Archive::write_value;
    if (!write_value(out, level.octets.load(std::memory_order_acquire)) || !write_value(out, entryCount)) return false;
    BlockWriter<std::int32_t> writer(out);
    for (std::int32_t i = 0; i < entryCount; ++i) {
        if (!writer.push(level.entries[i].child.load(std::memory_order_relaxed))) return false;
    }
    return writer.flush();
}

/// Writes the top grid and the level tables in their order. Nobody may change the tree meanwhile.
template <class Leaf>
bool save_trees_binary(const Octree<Leaf>& tree, std::ofstream& out) {
    if (!tree.top_tree().save_tree_binary(out)) return false;
    std::int32_t octets = tree.top_tree().get_octet_count();
    for (int i = 0; i < tree.get_level_count(); ++i) {
        if (!save_level_binary(tree.level(i), 8 * octets, out)) return false;
        octets = tree.level(i).octets.load(std::memory_order_acquire);
    }
    return true;
}

/// Reads what `save_trees_binary` wrote into an empty octree of the same depth, and makes its leaves, unused. Nothing
/// that the stream says is trusted: each entry must lead to an octet of the next table, each octet must be reached
/// exactly once. So every path ends, no two paths meet, and where each unit of leaves lies follows from the way to it.
/// Memory grows with the bytes that were really there: the eight leaves of a unit for each four of them at most, beside
/// the pages of the top grid.
///
/// Takes the tree for itself. After a failure the tree is not consistent; `clear` makes it usable again.
template <class Leaf>
class OctreeReader {
public:
    OctreeReader(Octree<Leaf>& tree, std::ifstream& in) : _tree(tree), _in(in) {}

    TreesRead run() {
        if (!_tree._top.read_tree_binary(_in)) return why_not();
        Places places = places_of_top_octets();
        for (auto& level : _tree._levels) {
            std::int32_t children = 0;
            if (!read_entries(*level, places.size(), children)) return why_not();
            if (!place_children(*level, places, children)) return TreesRead::Damaged;
        }
        if (places.size() > static_cast<std::size_t>(leafPool<Leaf>::Capacity >> (3 * _tree._leafBits))) {
            return TreesRead::Damaged;
        }
        make_leaves(places);
        return TreesRead::Whole;
    }

private:
    /// Of each octet the coordinates of the node whose children it is, packed as those of units.
    using Places = std::vector<std::uint64_t>;
    static constexpr std::uint64_t NotPlaced = ~std::uint64_t{0};

    TreesRead why_not() const { return _in.good() ? TreesRead::Damaged : TreesRead::Ended; }

    static std::uint64_t pack(int x, int y, int z) {
        constexpr int bits = Octree<Leaf>::UnitBits;
        return static_cast<std::uint64_t>(x) | (static_cast<std::uint64_t>(y) << bits) |
               (static_cast<std::uint64_t>(z) << (2 * bits));
    }

    Places places_of_top_octets() const {
        Places places(static_cast<std::size_t>(_tree._top.get_octet_count()), NotPlaced);
        _tree._top.for_each_filled([&](int x, int y, int z, std::int32_t base) {
            places[static_cast<std::size_t>(base) / 8] = pack(x, y, z);
        });
        return places;
    }

    /// False when the stream ends or the two counts cannot be those of a table below `octets` octets.
    bool read_entries(LevelTable& level, std::size_t octets, std::int32_t& children) {
        using VexelAlgorithm::Archive::read_value;
        std::int32_t entryCount = 0;
        if (!read_value(_in, children) || !read_value(_in, entryCount)) return false;
        if (entryCount < 0 || static_cast<std::size_t>(entryCount) != 8 * octets) return false;
        if (entryCount > level.entries.Capacity || children < 0 || children > entryCount) return false;

        const auto take = [&](std::int32_t first, const std::int32_t* entries, std::int32_t size) {
            level.entries.grow_to(first + size - 1);
            for (std::int32_t i = 0; i < size; ++i) {
                level.entries[first + i].child.store(entries[i], std::memory_order_relaxed);
            }
            return true;
        };
        if (!read_blocks<std::int32_t>(_in, entryCount, take)) return false;
        level.octets.store(children, std::memory_order_release);
        return true;
    }

    /// From the places of a table's octets to those of its children. False unless the table's entries name all
    /// children, each once.
    static bool place_children(const LevelTable& level, Places& places, std::int32_t children) {
        Places below(static_cast<std::size_t>(children), NotPlaced);
        std::int32_t placed = 0;
        for (std::size_t octet = 0; octet < places.size(); ++octet) {
            for (int code = 0; code < 8; ++code) {
                const std::int32_t base =
                    level.entries[static_cast<std::int32_t>(8 * octet) + code].child.load(std::memory_order_relaxed);
                if (base == -1) continue;
                if (base < 0 || base % 8 != 0 || base / 8 >= children) return false;
                std::uint64_t& place = below[static_cast<std::size_t>(base) / 8];
                if (place != NotPlaced) return false;
                place = 2 * places[octet] + pack(code & 1, code >> 1 & 1, code >> 2);
                ++placed;
            }
        }
        places = std::move(below);
        return placed == children;
    }

    void make_leaves(const Places& places) {
        if (places.empty()) return;
        const auto last = static_cast<std::int32_t>(places.size() - 1);
        _tree._unitCoordinates.grow_to(last);
        for (std::int32_t unit = 0; unit <= last; ++unit) {
            _tree._unitCoordinates[unit] = places[static_cast<std::size_t>(unit)];
        }
        _tree._pool.grow_to(((last + 1) << (3 * _tree._leafBits)) - 1);
    }

    Octree<Leaf>& _tree;
    std::ifstream& _in;
};

}  // namespace VexelOctree
