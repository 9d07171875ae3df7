// Rectified images as sub-pixel matching takes them, from ones that need no rectification.
#pragma once

#include <cstddef>
#include <cstdint>

#include "SpeckleRebCPU/fineImages.h"

namespace VexelTrial {

inline VexelAlgorithm::FineImage fine_image(const VexelAlgorithm::GreyImage& image) {
    using namespace VexelAlgorithm;
    FineImage fine(image.width(), image.height());
    for (std::size_t i = 0; i < fine.size(); ++i)
        fine[i] = static_cast<std::int16_t>(FINE_SCALE * (static_cast<float>(image[i]) - FINE_ZERO));
    return fine;
}

inline VexelAlgorithm::FinePair fine_pair(const VexelAlgorithm::GreyImage& left,
                                          const VexelAlgorithm::GreyImage& right) {
    VexelAlgorithm::FinePair pair{fine_image(left), {}};
    VexelAlgorithm::spline_rows(fine_image(right), 2, pair.right);
    return pair;
}

}  // namespace VexelTrial
