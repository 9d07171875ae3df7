// Long runs of entries of a volume, written and read in blocks.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <vector>

#include "foundation/archive.h"

namespace VexelOctree {

constexpr std::size_t BytesPerBlock = std::size_t{1} << 16;

/// Takes entries one by one; `flush` after the last one.
template <class Entry>
class BlockWriter {
public:
    explicit BlockWriter(std::ofstream& out) : _out(out) { _block.reserve(Size); }

    /// False when a block could not be written.
    bool push(const Entry& entry) {
        _block.push_back(entry);
        return _block.size() < Size || flush();
    }
    bool flush() {
        const bool isWritten = VexelAlgorithm::Archive::write_array(_out, _block);
        _block.clear();
        return isWritten;
    }

private:
    static constexpr std::size_t Size = BytesPerBlock / sizeof(Entry);

    std::ofstream& _out;
    std::vector<Entry> _block;
};

/// Reads `count` entries and calls `take(i, entries, size)` for those from the i-th on that have come, until it returns
/// false. False when the stream ends before.
template <class Entry, class Take>
bool read_blocks(std::ifstream& in, std::int32_t count, const Take& take) {
    std::array<Entry, BytesPerBlock / sizeof(Entry)> block{};
    for (std::int32_t done = 0; done < count;) {
        const std::int32_t size = std::min(count - done, static_cast<std::int32_t>(block.size()));
        if (!in.read(reinterpret_cast<char*>(block.data()), size * static_cast<std::streamsize>(sizeof(Entry))))
            return false;
        if (!take(done, block.data(), size)) return true;
        done += size;
    }
    return true;
}

}  // namespace VexelOctree
