// All correspondences of one iteration, found and summed in parallel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "track/correspondenceKernels.h"

namespace VexelAlgorithm {
namespace Track {

/// Slots for correspondences, taken by the chunks of a parallel search through one atomic counter. Memory is kept from
/// one search to the next. One search or sum at a time.
class CorrespondenceSet {
public:
    /// Room for one correspondence a moving slot. Throws std::bad_alloc.
    void resize(std::size_t slots);

    /// Finds the partners of entries 0, step, 2 step, ... of the moving points, count / step of them.
    SearchResult find(const Alignment& alignment, std::size_t movingCount, std::size_t step, float gate, int threads);
    /// Sums the rows of the correspondences that the last search found. Chunks are added in the order of their points,
    /// so that the sums do not depend on the number of threads.
    NormalEquations sum_system(const Alignment& alignment, float disCut, int threads);

    std::size_t count() const { return _count; }
    /// Distance of each correspondence, mm, in no particular order.
    const float* distances() const { return _disCorrespond.data(); }
    Correspondence at(std::size_t i) const;

private:
    struct Chunk {
        std::size_t first = 0;  ///< slot
        std::size_t count = 0;
        std::size_t outOfMap = 0;
        std::int32_t firstOutOfMap = -1;  ///< entry
        NormalEquations system;
    };

    CorrespondenceArrays arrays();
    bool store(const CorrespondenceArrays& found, std::size_t first, std::size_t count);

    // _cloudCorr, one array a field.
    std::vector<std::int32_t> _fixedIndex, _movingEntry, _mode, _pixel;
    std::vector<float> _disCorrespond;
    std::vector<Chunk> _chunks;
    std::size_t _capacity = 0;
    std::size_t _count = 0;
};

}  // namespace Track
}  // namespace VexelAlgorithm
