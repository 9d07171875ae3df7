// Short ways to leaves for searches that stay in one neighbourhood.
#pragma once

#include <hwy/base.h>

#include <cstdint>
#include <memory>

#include "fusion/Octree.h"

namespace VexelAlgorithm {
namespace Fusion {

/// A direct-mapped cache from octets of voxels to their leaf indices, owned by one worker. Neighbouring pixels
/// ask for the same octets again and again; a hit costs a few instructions where the search from the root
/// reads three tables. Octets never move while the tree stands, so entries stay true until it is cleared.
///
/// For trees with one leaf bit, as every volume has.
class OctetCache {
public:
    OctetCache() : _entries(new Entry[Size]) {}

    /// The leaf of a voxel for reading; -1 when there is none. The voxel must lie inside the volume. Absent
    /// octets are remembered too: only for times when nobody creates leaves.
    template <class Tree>
    std::int32_t find(const Tree& tree, int x, int y, int z) {
        const std::uint64_t key = key_of(x, y, z);
        Entry& entry = entry_of(key);
        if (entry.key != key) {
            entry.base = tree.find_unit(x >> 1, y >> 1, z >> 1);
            entry.key = key;
        }
        return entry.base < 0 ? -1 : entry.base + code(x, y, z);
    }

    /// The leaf of a voxel, made when it is missing; -1 outside the volume and when the tables are full.
    template <class Tree>
    HWY_INLINE std::int32_t find_or_create(Tree& tree, int x, int y, int z) {
        if (!tree.is_inside(x, y, z)) return -1;
        const std::uint64_t key = key_of(x, y, z);
        Entry& entry = entry_of(key);
        if (entry.key != key && !create(tree, entry, key, x, y, z)) return -1;
        return entry.base + code(x, y, z);
    }

private:
    struct Entry {
        std::uint64_t key = ~std::uint64_t{0};
        std::int32_t base = -1;
    };
    // More than the octets that two image rows' stretch of a worker touch, which the next row asks for again.
    static constexpr int Bits = 13;
    static constexpr std::size_t Size = std::size_t{1} << Bits;

    // Out of line, so that hits inline.
    template <class Tree>
    HWY_NOINLINE static bool create(Tree& tree, Entry& entry, std::uint64_t key, int x, int y, int z) {
        const std::int32_t base = tree.find_or_create_unit(x >> 1, y >> 1, z >> 1).leaf;
        if (base < 0) return false;
        entry.base = base;
        entry.key = key;
        return true;
    }

    static std::uint64_t key_of(int x, int y, int z) {
        return static_cast<std::uint64_t>(x >> 1) | (static_cast<std::uint64_t>(y >> 1) << 21) |
               (static_cast<std::uint64_t>(z >> 1) << 42);
    }
    // Fibonacci hashing: scatters an image row's octets, which lie on a line or a plane, over all entries.
    Entry& entry_of(std::uint64_t key) {
        return _entries[static_cast<std::size_t>((key * UINT64_C(0x9E3779B97F4A7C15)) >> (64 - Bits))];
    }
    static std::int32_t code(int x, int y, int z) { return (x & 1) + 2 * (y & 1) + 4 * (z & 1); }

    std::unique_ptr<Entry[]> _entries;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
