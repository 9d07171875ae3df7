// The per-correspondence mathematics over many points at once: plain loops, and the widest vectors of the processor.
#pragma once

#include <cstddef>
#include <cstdint>

#include "track/FixedImage.h"
#include "track/correspondence.h"
#include "track/normalEquations.h"
#include "track/projection.h"

namespace VexelAlgorithm {
namespace Track {

/// Correspondences, one array a field (see `Correspondence`).
struct CorrespondenceArrays {
    std::int32_t* fixedIndex;
    std::int32_t* movingEntry;
    std::int32_t* mode;
    std::int32_t* pixel;
    float* distance;

    CorrespondenceArrays from(std::size_t first) const {
        return {fixedIndex + first, movingEntry + first, mode + first, pixel + first, distance + first};
    }
    Correspondence at(std::size_t i) const {
        return {fixedIndex[i], movingEntry[i], static_cast<CorrMode>(mode[i]), pixel[i], distance[i]};
    }
};

/// A kernel may write so many entries behind the last correspondence that it reports.
constexpr std::size_t CorrespondencePadding = 16;
/// At most so many points or correspondences a call.
constexpr std::size_t KernelChunk = 1024;

/// What stays the same during one iteration.
struct Alignment {
    const FixedImage& fixed;
    const MovingPoint* moving;
    FloatPose movingToFixed;
};

/// Entries first, first + step, ... of the moving points, `count` of them.
struct EntryRange {
    std::size_t first;
    std::size_t count;
    std::size_t step;
};

struct SearchResult {
    std::size_t found = 0;
    std::size_t outOfMap = 0;
    std::int32_t firstOutOfMap = -1;  ///< entry
};

struct ResidualSum {
    std::int64_t count = 0;
    /// Each distance in units of 1e-6 mm, rounded down, so that the sum does not depend on the order.
    std::int64_t sum = 0;
};
constexpr int _tbbfloattoint = 1000000;
/// Distances above this one (mm) count as this one, so that the sum over `points` distances stays within 64 bits.
inline double largest_summed_distance(std::size_t points) {
    return 9e12 / static_cast<double>(points > 0 ? points : 1);
}

/// One implementation of the kernels. They know nothing of threads; calls for different ranges may overlap. All give
/// the same correspondences and the same residual sums; system sums agree to the rounding of double.
struct CorrespondenceKernels {
    /// `find_correspond` over the range; results in the order of the entries.
    SearchResult (*find)(const Alignment& alignment, const EntryRange& range, float gate,
                         const CorrespondenceArrays& found);
    /// `getmat_tbb` over `count` correspondences; adds to `system`.
    void (*accumulate)(const Alignment& alignment, const CorrespondenceArrays& correspondences, std::size_t count,
                       float disCut, NormalEquations& system);
    /// `measure_residual` over the range, distances not above `saturation` (mm).
    ResidualSum (*residual)(const Alignment& alignment, const EntryRange& range, const ResidualRule& rule,
                            double saturation);
};

/// One point at a time.
const CorrespondenceKernels& plain_correspondence_kernels();
/// The widest vectors of this processor.
const CorrespondenceKernels& best_correspondence_kernels();

}  // namespace Track
}  // namespace VexelAlgorithm
