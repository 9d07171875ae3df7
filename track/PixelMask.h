// The non-zero pixels of an image as rows of bits, and the nearest of them within a window. Internal to the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm {
namespace Track {

struct NearestPixel {
    int column = -1;
    int row = -1;
    float squaredDistance = 0.0F;  ///< pixels^2, from the centre (column + 0.5, row + 0.5)
};

/// One bit a pixel, so that the mask of a whole image stays in the cache next to the processor, and one instruction
/// looks at 64 columns. Queries may run on several threads.
class PixelMask {
public:
    /// No pixel is found whose squared distance is not below this one.
    static constexpr float SquaredReach = 1e6F;

    /// `image`: rows of `size` (width, height) without padding; sizes below 1 give an empty mask.
    void assign(const unsigned char* image, const Vector2i& size);

    /// The non-zero pixel whose centre is nearest to (x, y) among those at most `halfWindow` columns and rows from the
    /// pixel (int(x), int(y)); of equally near ones the first in the order of rows, then columns. False when there is
    /// none. Rows are visited from the middle outwards until no farther one can hold a nearer pixel.
    bool find_nearest(float x, float y, int halfWindow, NearestPixel& nearest) const;

private:
    struct ColumnRange {
        int first, split, last;  ///< `split`: the last column with its centre up to x
    };
    bool is_out_of_reach(float x, float y) const;
    void improve_by_row(int row, const ColumnRange& columns, float x, float y, NearestPixel& nearest) const;
    int last_set_from(const std::uint64_t* row, int from, int downTo) const;
    int first_set_from(const std::uint64_t* row, int from, int upTo) const;

    int _width = 0;
    int _height = 0;
    std::size_t _wordsPerRow = 0;
    std::vector<std::uint64_t> _words;
};

}  // namespace Track
}  // namespace VexelAlgorithm
