// Rows of a rectified image, interpolated from the raw one.
#pragma once

#include <cstdint>

namespace VexelAlgorithm {
namespace Rebuild {

/// An 8-bit grey image without padding between its rows. At most 2^31 - 1 pixels.
struct RawImage {
    const std::uint8_t* pixels;
    int width;
    int height;
};

/// One row of the output. `map` holds `raw.width` pairs (x, y) of raw pixel coordinates. Where the truncated
/// coordinates satisfy 2 < ix < width - 2 and 2 < iy < height - 2 the value is the bilinear interpolation of the
/// four pixels from (ix, iy) on, elsewhere (NaN included) it is 0. Bytes are truncated toward zero.
using RemapRowToBytes = void (*)(const RawImage& raw, const float* map, std::uint8_t* row);
using RemapRowToFloats = void (*)(const RawImage& raw, const float* map, float* row);

/// The implementations for the widest vectors of this processor. All give the same values.
RemapRowToBytes best_remap_row_to_bytes();
RemapRowToFloats best_remap_row_to_floats();

}  // namespace Rebuild
}  // namespace VexelAlgorithm
