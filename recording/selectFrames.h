// Frames chosen by their numbers.
#pragma once

#include <vector>

namespace VexelAlgorithm {

/// Those with the numbers first, first + step, ... up to last, in their order. `Recorded` has a member `number`.
template <class Recorded>
std::vector<Recorded> select_frames(const std::vector<Recorded>& all, int first, int last, int step) {
    std::vector<Recorded> selected;
    for (const Recorded& frame : all) {
        if (frame.number < first || frame.number > last) continue;
        if ((frame.number - first) % step == 0) selected.push_back(frame);
    }
    return selected;
}

}  // namespace VexelAlgorithm
