#include "exposure/exposureQuality.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace VexelAlgorithm {
namespace autoExposureFoot {
namespace {

float penalty(float value, float reference, float range) {
    return std::exp(std::abs(value - reference) / std::max(range - reference, reference));
}

struct Slot {
    float share = 0.0F;
    std::size_t index = 0;
};
using Slots = std::array<Slot, 5>;

/// In descending order; an equal share does not displace an earlier one.
void insert(Slots& slots, const Slot& entry) {
    const auto place = std::find_if(slots.begin(), slots.end(), [&](const Slot& s) { return entry.share > s.share; });
    if (place == slots.end()) return;
    std::move_backward(place, slots.end() - 1, slots.end());
    *place = entry;
}

}  // namespace

float quality_factor(const ExposureStatistics& image, const ExposureStatistics& reference) {
    return -penalty(image.P0, reference.P0, 256.0F) - penalty(image.P1, reference.P1, 256.0F) -
           penalty(image.P3, reference.P3, 1.0F);
}

int best_of_five(const std::vector<ExposureRecord>& records) {
    if (records.empty()) return 0;
    Slots slots;
    for (std::size_t i = 0; i < records.size(); ++i) insert(slots, {records[i].statistics.P2, i});
    std::size_t best = slots.front().index;
    for (const Slot& slot : slots) {
        if (records[slot.index].quality > records[best].quality) best = slot.index;
    }
    return static_cast<int>(best);
}

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
