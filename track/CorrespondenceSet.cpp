#include "track/CorrespondenceSet.h"

#include <algorithm>
#include <atomic>

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

/// What one chunk finds, before it knows its slots.
struct ChunkBuffer {
    static constexpr std::size_t Size = KernelChunk + CorrespondencePadding;
    alignas(64) std::int32_t fixedIndex[Size], movingEntry[Size], mode[Size], pixel[Size];
    alignas(64) float distance[Size];

    CorrespondenceArrays arrays() { return {fixedIndex, movingEntry, mode, pixel, distance}; }
};

std::size_t chunk_count(std::size_t points) {
    return (points + KernelChunk - 1) / KernelChunk;
}

}  // namespace

void CorrespondenceSet::resize(std::size_t slots) {
    _count = 0;
    _capacity = slots;
    const std::size_t padded = slots + CorrespondencePadding;
    for (auto* field : {&_fixedIndex, &_movingEntry, &_mode, &_pixel}) field->resize(padded);
    _disCorrespond.resize(padded);
}

CorrespondenceArrays CorrespondenceSet::arrays() {
    return {_fixedIndex.data(), _movingEntry.data(), _mode.data(), _pixel.data(), _disCorrespond.data()};
}

Correspondence CorrespondenceSet::at(std::size_t i) const {
    return {_fixedIndex[i], _movingEntry[i], static_cast<CorrMode>(_mode[i]), _pixel[i], _disCorrespond[i]};
}

bool CorrespondenceSet::store(const CorrespondenceArrays& found, std::size_t first, std::size_t count) {
    if (first + count > _capacity) {
        print_line("wrong pointId < 0 || pointId >= _disCorrespond.size() || pointId >= _cloudCorr.size() ");
        return false;
    }
    const CorrespondenceArrays to = arrays().from(first);
    std::copy_n(found.fixedIndex, count, to.fixedIndex);
    std::copy_n(found.movingEntry, count, to.movingEntry);
    std::copy_n(found.mode, count, to.mode);
    std::copy_n(found.pixel, count, to.pixel);
    std::copy_n(found.distance, count, to.distance);
    return true;
}

SearchResult CorrespondenceSet::find(const Alignment& alignment, std::size_t movingCount, std::size_t step, float gate,
                                     int threads) {
    const CorrespondenceKernels& kernels = best_correspondence_kernels();
    const std::size_t searched = movingCount / step, chunks = chunk_count(searched);
    std::atomic<std::size_t> counter{0};
    _chunks.resize(chunks);
    parallel_ranges(threads, chunks, 1, [&](std::size_t begin, std::size_t end) {
        ChunkBuffer buffer;
        for (std::size_t c = begin; c < end; ++c) {
            const std::size_t k = c * KernelChunk;
            const EntryRange range{k * step, std::min(KernelChunk, searched - k), step};
            const SearchResult result = kernels.find(alignment, range, gate, buffer.arrays());
            const std::size_t first = counter.fetch_add(result.found, std::memory_order_relaxed);
            const std::size_t stored = store(buffer.arrays(), first, result.found) ? result.found : 0;
            _chunks[c] = {first, stored, result.outOfMap, result.firstOutOfMap, {}};
        }
    });

    _count = std::min(counter.load(), _capacity);
    SearchResult total{_count, 0, -1};
    for (const Chunk& chunk : _chunks) {
        if (total.outOfMap == 0) total.firstOutOfMap = chunk.firstOutOfMap;
        total.outOfMap += chunk.outOfMap;
    }
    return total;
}

NormalEquations CorrespondenceSet::sum_system(const Alignment& alignment, float disCut, int threads) {
    const CorrespondenceKernels& kernels = best_correspondence_kernels();
    parallel_ranges(threads, _chunks.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            Chunk& chunk = _chunks[c];
            chunk.system = {};
            kernels.accumulate(alignment, arrays().from(chunk.first), chunk.count, disCut, chunk.system);
        }
    });
    NormalEquations total;
    for (const Chunk& chunk : _chunks) total += chunk.system;
    return total;
}

}  // namespace Track
}  // namespace VexelAlgorithm
