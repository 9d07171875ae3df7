#include <algorithm>
#include <cmath>

#include "track/correspondenceKernels.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

SearchResult find_plain(const Alignment& alignment, const EntryRange& range, float gate,
                        const CorrespondenceArrays& found) {
    SearchResult result;
    for (std::size_t k = 0; k < range.count; ++k) {
        const std::size_t entry = range.first + k * range.step;
        Correspondence c;
        const Association association = find_correspond(alignment.moving[entry], static_cast<std::int32_t>(entry),
                                                        alignment.movingToFixed, alignment.fixed, gate, c);
        if (association == Association::OutOfMap && result.outOfMap++ == 0) {
            result.firstOutOfMap = static_cast<std::int32_t>(entry);
        }
        if (association != Association::Found) continue;
        found.fixedIndex[result.found] = c.fixedIndex;
        found.movingEntry[result.found] = c.movingEntry;
        found.mode[result.found] = c.mode;
        found.pixel[result.found] = c.pixel;
        found.distance[result.found] = c.distance;
        ++result.found;
    }
    return result;
}

void accumulate_plain(const Alignment& alignment, const CorrespondenceArrays& correspondences, std::size_t count,
                      float disCut, NormalEquations& system) {
    for (std::size_t i = 0; i < count; ++i) {
        const Correspondence c = correspondences.at(i);
        getmat_tbb(alignment.moving[c.movingEntry], alignment.movingToFixed, c, alignment.fixed, disCut, system);
    }
}

ResidualSum residual_plain(const Alignment& alignment, const EntryRange& range, const ResidualRule& rule,
                           double saturation) {
    ResidualSum result;
    for (std::size_t k = 0; k < range.count; ++k) {
        float distance = 0.0F;
        const MovingPoint& moving = alignment.moving[range.first + k * range.step];
        if (measure_residual(moving, alignment.movingToFixed, alignment.fixed, rule, distance) != Association::Found) {
            continue;
        }
        ++result.count;
        result.sum += static_cast<std::int64_t>(std::min<double>(distance, saturation) * _tbbfloattoint);
    }
    return result;
}

}  // namespace

const CorrespondenceKernels& plain_correspondence_kernels() {
    static const CorrespondenceKernels kernels{&find_plain, &accumulate_plain, &residual_plain};
    return kernels;
}

}  // namespace Track
}  // namespace VexelAlgorithm
