#include "fusion/TopTree.h"

#include <algorithm>
#include <fstream>

#include "foundation/handle.h"

namespace VexelOctree {
namespace {

using VexelAlgorithm::allocate_zero_pages;
using VexelAlgorithm::PageHint;

struct CellEntry {
    std::int32_t cell, base;
};
static_assert(sizeof(CellEntry) == 8, "the binary form has no padding");

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
    for (int blockBits = std::max(_bits - 2, 0); blockBits >= 0; blockBits -= 2) {
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
        masks()[level.word(x, y, z)].fetch_or(BlockLevel::bit(x, y, z), std::memory_order_relaxed);
        x >>= 2, y >>= 2, z >>= 2;
    }
}

bool TopTree::is_box_empty(const std::array<int, 3>& low, const std::array<int, 3>& high) const noexcept {
    const int last = (1 << _bits) - 1;
    std::array<int, 3> first{}, end{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        first[axis] = std::max(low[axis], 0);
        end[axis] = std::min(high[axis], last);
        if (first[axis] > end[axis]) return true;
    }
    return is_box_empty(_levels.size(), first, end);
}

// The box in blocks of one level (0: cells), which is empty when none of its blocks is filled inside the box.
bool TopTree::is_box_empty(std::size_t level, std::array<int, 3> low, std::array<int, 3> high) const noexcept {
    if (level == 0) {
        for (int z = low[2]; z <= high[2]; ++z) {
            for (int y = low[1]; y <= high[1]; ++y) {
                for (int x = low[0]; x <= high[0]; ++x) {
                    if ((masks()[_levels[0].word(x, y, z)].load(std::memory_order_relaxed) &
                         BlockLevel::bit(x, y, z)) != 0) {
                        return false;
                    }
                }
            }
        }
        return true;
    }
    const BlockLevel& block = _levels[level - 1];
    const int shift = 2 * static_cast<int>(level);
    for (int z = low[2] >> shift; z <= high[2] >> shift; ++z) {
        for (int y = low[1] >> shift; y <= high[1] >> shift; ++y) {
            for (int x = low[0] >> shift; x <= high[0] >> shift; ++x) {
                if (masks()[block.word(4 * x, 4 * y, 4 * z)].load(std::memory_order_relaxed) == 0) continue;
                const std::array<int, 3> at = {x, y, z};
                std::array<int, 3> insideLow{}, insideHigh{};
                for (std::size_t axis = 0; axis < 3; ++axis) {
                    insideLow[axis] = std::max(low[axis], at[axis] << shift);
                    insideHigh[axis] = std::min(high[axis], ((at[axis] + 1) << shift) - 1);
                }
                if (!is_box_empty(level - 1, insideLow, insideHigh)) return false;
            }
        }
    }
    return true;
}

bool TopTree::save_tree_binary(std::ofstream& out) const {
    return VexelAlgorithm::guarded<bool>("save_tree_binary", false, [&] { return write_cells(out); });
}

bool TopTree::read_tree_binary(std::ifstream& in) {
    return VexelAlgorithm::guarded<bool>("read_tree_binary", false, [&] { return read_cells(in); });
}

bool TopTree::write_cells(std::ofstream& out) const {
    std::vector<CellEntry> entries;
    for_each_filled([&](int x, int y, int z, std::int32_t base) {
        entries.push_back({(z << (2 * _bits)) + (y << _bits) + x, base});
    });
    std::sort(entries.begin(), entries.end(), [](const CellEntry& a, const CellEntry& b) { return a.cell < b.cell; });
    put(out, static_cast<std::int32_t>(_bits));
    put(out, get_octet_count());
    put(out, static_cast<std::int32_t>(entries.size()));
    out.write(reinterpret_cast<const char*>(entries.data()),
              static_cast<std::streamsize>(entries.size() * sizeof(CellEntry)));
    return out.good();
}

bool TopTree::read_cells(std::ifstream& in) {
    std::int32_t bits = 0, octets = 0, filled = 0;
    if (!take(in, bits) || !take(in, octets) || !take(in, filled)) return false;
    if (bits != _bits || octets < 0 || octets > MaxOctets || filled < 0 || filled > get_cell_count()) return false;
    if (filled != octets) return false;  // every octet was handed out for one cell

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
