// An image of the colour camera.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VexelAlgorithm {

/// The order of a pixel's bytes.
enum class ColorOrder : std::int32_t { Rgb = 0, Bgr = 1 };

/// 8 bits a channel: pixel (x, y) is the three bytes from bytes[y * stride + 3 * x] on.
struct ColorImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> bytes;
    int stride = 0;  ///< bytes from row to row, at least 3 width; 0: rows follow each other without a gap
    ColorOrder order = ColorOrder::Rgb;

    std::size_t row_bytes() const { return 3 * static_cast<std::size_t>(width); }
    std::size_t row_stride() const { return stride == 0 ? row_bytes() : static_cast<std::size_t>(stride); }
    /// Whether there are pixels, and bytes for just these; the last row's gap may be missing.
    bool is_legal() const {
        if (width < 1 || height < 1 || stride < 0 || row_stride() < row_bytes()) return false;
        if (order != ColorOrder::Rgb && order != ColorOrder::Bgr) return false;
        const std::size_t rows = static_cast<std::size_t>(height);
        return bytes.size() >= row_stride() * (rows - 1) + row_bytes() && bytes.size() <= row_stride() * rows;
    }
};

}  // namespace VexelAlgorithm
