// The order in which an image's slots are worked off.
#pragma once

#include <algorithm>
#include <cstddef>

namespace VexelAlgorithm {
namespace Fusion {

/// Pixels x0 <= x < x1, y0 <= y < y1.
struct ImageTile {
    int x0, y0, x1, y1;

    bool is_wider_than(int pixels) const { return x1 - x0 > pixels || y1 - y0 > pixels; }

    /// Calls body(x, y), row by row.
    template <class Body>
    void for_each_pixel(const Body& body) const {
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) body(x, y);
        }
    }
};

/// Calls body(quarter) for the four parts of a tile, as far as they have pixels.
template <class Body>
void for_each_quarter(const ImageTile& tile, const Body& body) {
    const int x = (tile.x0 + tile.x1 + 1) / 2, y = (tile.y0 + tile.y1 + 1) / 2;
    for (const ImageTile& quarter : {ImageTile{tile.x0, tile.y0, x, y}, ImageTile{x, tile.y0, tile.x1, y},
                                     ImageTile{tile.x0, y, x, tile.y1}, ImageTile{x, y, tile.x1, tile.y1}}) {
        if (quarter.x0 < quarter.x1 && quarter.y0 < quarter.y1) body(quarter);
    }
}

/// Cuts an image into square tiles. The slots of one tile see one piece of the surface, so what a worker has read
/// of the volume for one of them serves the next; a whole image row would have swept through the scene meanwhile.
class ImageTiles {
public:
    static constexpr int Size = 32;
    static constexpr std::size_t PixelsPerTile = std::size_t{Size} * Size;

    ImageTiles(int width, int height)
        : _width(width), _height(height), _columns((width + Size - 1) / Size), _rows((height + Size - 1) / Size) {}

    std::size_t count() const { return static_cast<std::size_t>(_columns) * static_cast<std::size_t>(_rows); }

    ImageTile operator[](std::size_t i) const {
        const int x0 = static_cast<int>(i % static_cast<std::size_t>(_columns)) * Size;
        const int y0 = static_cast<int>(i / static_cast<std::size_t>(_columns)) * Size;
        return {x0, y0, std::min(x0 + Size, _width), std::min(y0 + Size, _height)};
    }

private:
    int _width, _height, _columns, _rows;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
