// Small images, masks and parallax fields.
#pragma once

#include <algorithm>
#include <random>

#include "SpeckleRebCPU/ParallaxField.h"

namespace VexelAlgorithm {

inline GreyImage noise_image(int width, int height, unsigned seed, int smoothing = 1) {
    std::mt19937 random(seed);
    Raster<int> raw(width + 8, height + 8);
    for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<int>(random() % 256);
    GreyImage image(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            int sum = 0;
            for (int dy = 0; dy < smoothing; ++dy)
                for (int dx = 0; dx < smoothing; ++dx) sum += raw.at(x + dx, y + dy);
            image.at(x, y) = static_cast<std::uint8_t>(sum / (smoothing * smoothing));
        }
    return image;
}

inline GreyImage shifted(const GreyImage& image, int by) {
    GreyImage result(image.width(), image.height());
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) result.at(x, y) = image.at(std::clamp(x - by, 0, image.width() - 1), y);
    return result;
}

inline Mask random_mask(int width, int height, unsigned seed, int percent) {
    std::mt19937 random(seed);
    Mask mask(width, height);
    for (std::size_t i = 0; i < mask.size(); ++i) mask[i] = static_cast<int>(random() % 100) < percent ? 1 : 0;
    return mask;
}

inline ParallaxField slanted_field(int width, int height, int sample, double noise) {
    std::mt19937 random(8);
    std::normal_distribution<double> error(0.0, 1.0);
    ParallaxField field;
    field.assign(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (random() % 20 == 0) continue;
            field.parallax.at(x, y) =
                static_cast<float>(4.0 + 0.15 * x * sample - 0.05 * y * sample + noise * error(random));
            field.slopeX.at(x, y) = 0.15F;
            field.slopeY.at(x, y) = -0.05F;
        }
    return field;
}

/// The slots' own slopes are anything, some of them beyond what a camera sees.
inline ParallaxField rough_field(int width, int height, int sample) {
    ParallaxField field = slanted_field(width, height, sample, 0.4);
    std::mt19937 random(18);
    std::normal_distribution<float> slope(0.1F, 0.4F);
    for (Raster<float>* slopes : {&field.slopeX, &field.slopeY})
        for (std::size_t i = 0; i < slopes->size(); ++i) (*slopes)[i] = slope(random);
    return field;
}

}  // namespace VexelAlgorithm
