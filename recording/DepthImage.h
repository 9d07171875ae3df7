// One depth image as the camera delivered it, and its PNG file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// Depth (z, not ray length) of each pixel in millimetres, row by row; 0 and 65535 mean no value.
struct DepthImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint16_t> millimetres;

    static bool is_value(std::uint16_t depth) { return depth != 0 && depth != 65535; }
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

/// Reads a 16-bit grey PNG whose every block is intact. Anything else is refused with the file's name and
/// the cause. Never throws.
Outcome<DepthImage> read_depth_png(const std::filesystem::path& path);

/// Writes a 16-bit grey PNG; the file appears only when it is complete.
Outcome<Done> write_depth_png(const std::filesystem::path& path, const DepthImage& image);

}  // namespace VexelAlgorithm
