// One depth image as the camera delivered it, and its PNG file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// Depth (z, not ray length) of each pixel in millimetres, row by row; 0 means no value.
struct DepthImage {
    int width = 0;
    int height = 0;
    std::vector<float> millimetres;
    double step = 1.0;  ///< mm; the file holds whole multiples of it

    static bool is_value(float depth) { return depth > 0.0F; }
};

struct ImageSize {
    int width = 0;
    int height = 0;

    bool operator==(const ImageSize& other) const { return width == other.width && height == other.height; }
    bool operator!=(const ImageSize& other) const { return !(*this == other); }
};

/// The size of a 16-bit grey PNG from its first bytes; also looks at the last ones, so that a file that is
/// cut short is found without decoding it.
Outcome<ImageSize> inspect_depth_png(const std::filesystem::path& path);

/// Reads a 16-bit grey PNG whose every block is intact and whose values are multiples of `step` (mm), 0 and 65535 for
/// no value. Anything else is refused with the file's name and the cause. Never throws.
Outcome<DepthImage> read_depth_png(const std::filesystem::path& path, double step);

/// Writes a 16-bit grey PNG of depths rounded to multiples of the image's step; depths that do not fit into it are
/// written as no value. The file appears only when it is complete.
Outcome<Done> write_depth_png(const std::filesystem::path& path, const DepthImage& image);

}  // namespace VexelAlgorithm
