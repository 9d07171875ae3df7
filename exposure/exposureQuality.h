// How well an image is exposed, in numbers, and which one of a series is best.
#pragma once

#include <vector>

namespace VexelAlgorithm {
namespace autoExposureFoot {

/// Of the bright, connected places with pattern in the region of one image; the defaults are those of a good image. A
/// region without an area has P0 and P2 that are not a number.
struct ExposureStatistics {
    float P0 = 70.0F;   ///< 70 (1 + 5 (U + 3 B) / A): 70 when all A pixels of the region show pattern, more by the U
                        ///< that do not, and still more by the B that are too bright for it
    float P1 = 120.0F;  ///< mean grey level of the pixels with pattern, 0 without any
    float P2 = 1.0F;    ///< their share of the region
    float P3 = 0.0F;    ///< share of the bright ones, B / U, among those without pattern; 0 when there are none
};

/// At most -3, which is for equal statistics. P2 does not enter.
float quality_factor(const ExposureStatistics& image, const ExposureStatistics& reference);

struct ExposureRecord {
    ExposureStatistics statistics;
    float quality = 0.0F;  ///< minus infinity for an image that could not be measured
};

/// The image with the highest quality among the five with the largest P2; of equals the one with the larger P2, then
/// the earlier one. Only images with P2 > 0 come among the five; places that stay empty stand for image 0, and so does
/// the answer when there is no image at all.
int best_of_five(const std::vector<ExposureRecord>& records);

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
