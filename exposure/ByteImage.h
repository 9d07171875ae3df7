// An 8-bit image, or a mask of one. Internal to the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VexelAlgorithm {
namespace autoExposureFoot {

/// Rows without padding.
struct ByteImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;

    void assign(int newWidth, int newHeight, std::uint8_t value = 0) {
        width = newWidth;
        height = newHeight;
        pixels.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), value);
    }
    std::uint8_t* row(int y) { return pixels.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width); }
    const std::uint8_t* row(int y) const {
        return pixels.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
    }
};

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
