// The dense grid in which every search in the octree starts.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <mutex>
#include <vector>

#include "foundation/export.h"
#include "foundation/zeroPages.h"
#include "fusion/SpinLock.h"

namespace VexelOctree {

/// (2^bits)^3 cells, x fastest, each empty (-1) or the base index of an octet of the first level table.
/// Entries are stored as their bitwise complement, so that untouched zero pages of the system read as empty
/// cells and an empty grid occupies no memory.
///
/// A pyramid of bit masks beside the cells tells which blocks of 4^3, 16^3, 64^3, ... cells hold anything, so
/// that a ray can pass empty space in large steps.
///
/// Thread-safety: `get`, `get_or_create` and the questions for empty blocks may run at the same time; everything else
/// needs the grid for itself.
class VEXEL_API TopTree {
public:
    /// bits per axis, clamped to [1, 10].
    explicit TopTree(int bits);

    int get_topBits() const { return _bits; }
    std::int32_t get_cell_count() const { return std::int32_t{1} << (3 * _bits); }
    /// Octets handed out in the first level table.
    std::int32_t get_octet_count() const { return _octets.load(std::memory_order_acquire); }

    /// The entry of a cell; -1 when it is empty or there is no such cell.
    std::int32_t get(std::int32_t cell) const noexcept {
        if (cell < 0 || cell >= get_cell_count()) return -1;
        return ~cells()[cell].load(std::memory_order_acquire);
    }
    /// The entry of a cell, which gets the next octet when it is empty. -1 when there is no such cell or no
    /// further octet. `takeOctet(counter)` is called under the cell's lock and hands out a base, or -1; whatever
    /// it throws leaves the cell empty.
    template <class TakeOctet>
    std::int32_t get_or_create(std::int32_t cell, bool& created, const TakeOctet& takeOctet);

    /// The edge length, as a power of two of cells, of the largest block around a cell that holds nothing: 0 for
    /// the cell alone, 2 for 4^3 cells, ...; -1 when the cell is filled. The cell must exist.
    int empty_block_bits(int x, int y, int z) const noexcept {
        int bits = -1;
        for (const BlockLevel& level : _levels) {
            const std::uint64_t mask = masks()[level.word(x, y, z)].load(std::memory_order_relaxed);
            if (bits < 0 && (mask & BlockLevel::bit(x, y, z)) != 0) return -1;
            bits += bits < 0 ? 1 : 2;
            if (mask != 0) return bits;
            x >>= 2, y >>= 2, z >>= 2;
        }
        return bits + 2;
    }
    /// Whether all cells of the box low <= (x, y, z) <= high are empty. Cells outside the grid count as empty.
    bool is_box_empty(const std::array<int, 3>& low, const std::array<int, 3>& high) const noexcept;

    /// Calls `visit(x, y, z, base)` for each filled cell, block by block of 4^3 cells. Needs the grid for itself.
    template <class Visit>
    void for_each_filled(const Visit& visit) const;

    /// Empties the grid.
    void clear() { reset_mem(); }
    /// Empties the grid and gives its memory back.
    void reset_mem();

    /// Binary form, little-endian, without padding: int32 bits, int32 octets handed out, int32 number of
    /// filled cells n, then n pairs of int32 (cell, base) with ascending cells.
    bool save_tree_binary(std::ofstream& out) const;
    /// Reads that form. Refuses, leaving the grid as it was, another number of bits, cells out of range or
    /// not ascending, and bases that are not the octets handed out, each once.
    bool read_tree_binary(std::ifstream& in);

    /// More octets than this cannot be numbered: eight entries each, indexed by int32.
    static constexpr std::int32_t MaxOctets = (std::int32_t{1} << 28) - 1;

private:
    template <class Leaf>
    friend class OctreeChecker;
    /// One word a block, one bit for each of its 4^3 cells or smaller blocks.
    struct BlockLevel {
        int bits;            // blocks per axis are 2^bits
        std::size_t offset;  // of the level's first word

        /// The word and the bit in it of a cell or smaller block.
        std::size_t word(int x, int y, int z) const noexcept {
            return offset + (static_cast<std::size_t>(z >> 2) << (2 * bits)) +
                   (static_cast<std::size_t>(y >> 2) << bits) + static_cast<std::size_t>(x >> 2);
        }
        static std::uint64_t bit(int x, int y, int z) noexcept {
            return std::uint64_t{1} << ((x & 3) + 4 * (y & 3) + 16 * (z & 3));
        }
    };

    std::atomic<std::int32_t>* cells() const noexcept { return static_cast<std::atomic<std::int32_t>*>(_cells.get()); }
    SpinLock* locks() const noexcept { return static_cast<SpinLock*>(_locks.get()); }
    std::atomic<std::uint64_t>* masks() const noexcept {
        return static_cast<std::atomic<std::uint64_t>*>(_masks.get());
    }
    bool is_box_empty(std::size_t level, std::array<int, 3> low, std::array<int, 3> high) const noexcept;
    bool write_cells(std::ofstream& out) const;
    bool read_cells(std::ifstream& in);
    void mark_block(std::int32_t cell) noexcept;
    void set_cell(std::int32_t cell, std::int32_t base) noexcept;

    int _bits;
    std::vector<BlockLevel> _levels;
    VexelAlgorithm::ZeroPages _cells;
    VexelAlgorithm::ZeroPages _locks;
    VexelAlgorithm::ZeroPages _masks;  // 64-bit words, one a block of 4^3 cells or of 4^3 smaller blocks
    std::atomic<std::int32_t> _octets{0};
};

/// Takes the next octet of a table that holds at most `limit`; -1 when it is full. `makeRoom(octet)` comes before
/// the octet counts as handed out, so that memory running out there changes nothing.
template <class MakeRoom>
std::int32_t take_octet(std::atomic<std::int32_t>& counter, std::int32_t limit, const MakeRoom& makeRoom) {
    std::int32_t octet = counter.load(std::memory_order_relaxed);
    do {
        if (octet >= limit) return -1;
        makeRoom(octet);
    } while (!counter.compare_exchange_weak(octet, octet + 1, std::memory_order_acq_rel));
    return octet * 8;
}

template <class Visit>
void TopTree::for_each_filled(const Visit& visit) const {
    const BlockLevel& blocks = _levels.front();
    const std::int32_t mask = (std::int32_t{1} << blocks.bits) - 1;
    for (std::int32_t block = 0; block < std::int32_t{1} << (3 * blocks.bits); ++block) {
        std::uint64_t word = masks()[blocks.offset + static_cast<std::size_t>(block)].load(std::memory_order_relaxed);
        for (int bit = 0; word != 0; ++bit, word >>= 1) {
            if ((word & 1) == 0) continue;
            const int x = 4 * (block & mask) + (bit & 3);
            const int y = 4 * (block >> blocks.bits & mask) + (bit >> 2 & 3);
            const int z = 4 * (block >> (2 * blocks.bits)) + (bit >> 4);
            const std::int32_t base = get((z << (2 * _bits)) + (y << _bits) + x);
            if (base >= 0) visit(x, y, z, base);
        }
    }
}

template <class TakeOctet>
std::int32_t TopTree::get_or_create(std::int32_t cell, bool& created, const TakeOctet& takeOctet) {
    created = false;
    if (cell < 0 || cell >= get_cell_count()) return -1;
    const std::int32_t present = ~cells()[cell].load(std::memory_order_acquire);
    if (present >= 0) return present;

    const std::lock_guard<SpinLock> guard(locks()[cell]);
    const std::int32_t winner = ~cells()[cell].load(std::memory_order_relaxed);
    if (winner >= 0) return winner;
    const std::int32_t base = takeOctet(_octets);
    if (base < 0) return -1;
    set_cell(cell, base);
    created = true;
    return base;
}

}  // namespace VexelOctree
