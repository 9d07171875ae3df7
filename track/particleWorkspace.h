// Working arrays of a particle while it runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "track/correspondenceKernels.h"

namespace VexelAlgorithm {
namespace Track {

/// The correspondences of one iteration of one particle.
struct ParticleWorkspace {
    std::vector<std::int32_t> fixedIndex, movingEntry, mode, pixel;
    std::vector<float> distance;
    std::vector<float> scratch;  ///< of the search for the trimming cut
    std::size_t count = 0;

    /// Room for so many correspondences and for what kernels write behind them.
    void reserve(std::size_t points) {
        count = 0;
        const std::size_t room = points + CorrespondencePadding;
        if (distance.size() >= room) return;
        for (auto* field : {&fixedIndex, &movingEntry, &mode, &pixel}) field->resize(room);
        distance.resize(room);
    }
    CorrespondenceArrays arrays() {
        return {fixedIndex.data(), movingEntry.data(), mode.data(), pixel.data(), distance.data()};
    }
};

}  // namespace Track
}  // namespace VexelAlgorithm
