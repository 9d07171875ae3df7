#include "fusion/TopTree.h"

#include <algorithm>
#include <fstream>

namespace VexelOctree {
namespace {

using VexelAlgorithm::allocate_zero_pages;
using VexelAlgorithm::PageHint;

template <class Number>
void put(std::ofstream& out, Number number) {
    out.write(reinterpret_cast<const char*>(&number), sizeof(number));
}

template <class Number>
bool take(std::ifstream& in, Number& number) {
    return static_cast<bool>(in.read(reinterpret_cast<char*>(&number), sizeof(number)));
}

}  // namespace

TopTree::TopTree(int bits) : _bits(std::clamp(bits, 1, 10)) {
    std::size_t words = 0;
    for (int blockBits = _bits - 2; blockBits >= 0; blockBits -= 2) {
        _levels.push_back({blockBits, words});
        words += std::size_t{1} << (3 * blockBits);
    }
    reset_mem();
}

void TopTree::reset_mem() {
    const std::size_t count = static_cast<std::size_t>(get_cell_count());
    std::size_t words = 1;
    for (const BlockLevel& level : _levels) words += std::size_t{1} << (3 * level.bits);
    // Fresh zero pages before the old ones go, so that running out of memory changes nothing.
    auto freshCells = allocate_zero_pages(count * sizeof(std::int32_t), PageHint::Sparse);
    auto freshLocks = allocate_zero_pages(count * sizeof(SpinLock), PageHint::Sparse);
    auto freshMasks = allocate_zero_pages(words * sizeof(std::uint64_t), PageHint::Sparse);
    _cells = std::move(freshCells);
    _locks = std::move(freshLocks);
    _masks = std::move(freshMasks);
    _octets.store(0, std::memory_order_relaxed);
}

void TopTree::set_cell(std::int32_t cell, std::int32_t base) noexcept {
    mark_block(cell);
    cells()[cell].store(~base, std::memory_order_release);
}

void TopTree::mark_block(std::int32_t cell) noexcept {
    const int mask = (1 << _bits) - 1;
    int x = cell & mask, y = (cell >> _bits) & mask, z = cell >> (2 * _bits);
    for (const BlockLevel& level : _levels) {
        const std::size_t word = (static_cast<std::size_t>(z >> 2) << (2 * level.bits)) +
                                 (static_cast<std::size_t>(y >> 2) << level.bits) + static_cast<std::size_t>(x >> 2);
        const std::uint64_t bit = std::uint64_t{1} << ((x & 3) + 4 * (y & 3) + 16 * (z & 3));
        masks()[level.offset + word].fetch_or(bit, std::memory_order_relaxed);
        x >>= 2, y >>= 2, z >>= 2;
    }
}

bool TopTree::is_block_empty(int level, int x, int y, int z) const noexcept {
    if (level == 0) return get((z << (2 * _bits)) + (y << _bits) + x) < 0;
    const BlockLevel& block = _levels[static_cast<std::size_t>(level - 1)];
    const int shift = 2 * level;
    const std::size_t word = (static_cast<std::size_t>(z >> shift) << (2 * block.bits)) +
                             (static_cast<std::size_t>(y >> shift) << block.bits) +
                             static_cast<std::size_t>(x >> shift);
    return masks()[block.offset + word].load(std::memory_order_relaxed) == 0;
}

bool TopTree::save_tree_binary(std::ofstream& out) const {
    std::vector<std::int32_t> pairs;
    for (std::int32_t cell = 0; cell < get_cell_count(); ++cell) {
        const std::int32_t base = get(cell);
        if (base >= 0) pairs.insert(pairs.end(), {cell, base});
    }
    put(out, static_cast<std::int32_t>(_bits));
    put(out, get_octet_count());
    put(out, static_cast<std::int32_t>(pairs.size() / 2));
    out.write(reinterpret_cast<const char*>(pairs.data()),
              static_cast<std::streamsize>(pairs.size() * sizeof(std::int32_t)));
    return out.good();
}

bool TopTree::read_tree_binary(std::ifstream& in) {
    std::int32_t bits = 0, octets = 0, filled = 0;
    if (!take(in, bits) || !take(in, octets) || !take(in, filled)) return false;
    if (bits != _bits || octets < 0 || octets > MaxOctets || filled < 0 || filled > get_cell_count()) return false;
    if (filled > octets) return false;  // every octet was handed out for at most one cell

    TopTree fresh(_bits);
    std::vector<std::int32_t> bases;
    std::int32_t previousCell = -1;
    for (std::int32_t i = 0; i < filled; ++i) {
        std::int32_t cell = 0, base = 0;
        if (!take(in, cell) || !take(in, base)) return false;
        if (cell <= previousCell || cell >= get_cell_count()) return false;
        if (base < 0 || base % 8 != 0 || base / 8 >= octets) return false;
        bases.push_back(base);
        fresh.set_cell(cell, base);
        previousCell = cell;
    }
    std::sort(bases.begin(), bases.end());
    if (std::adjacent_find(bases.begin(), bases.end()) != bases.end()) return false;

    _cells = std::move(fresh._cells);
    _locks = std::move(fresh._locks);
    _masks = std::move(fresh._masks);
    _octets.store(octets, std::memory_order_release);
    return true;
}

}  // namespace VexelOctree
