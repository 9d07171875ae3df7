// The order in which an image's slots are worked off.
#pragma once

#include <algorithm>
#include <cstddef>

namespace VexelAlgorithm {
namespace Fusion {

/// Cuts an image into square tiles. The slots of one tile see one piece of the surface, so what a worker has read
/// of the volume for one of them serves the next; a whole image row would have swept through the scene meanwhile.
class ImageTiles {
public:
    ImageTiles(int width, int height)
        : _width(width), _height(height), _columns((width + Size - 1) / Size), _rows((height + Size - 1) / Size) {}

    std::size_t count() const { return static_cast<std::size_t>(_columns) * static_cast<std::size_t>(_rows); }

    /// Calls body(x, y, slot) for the slots of the tiles [begin, end), row by row within a tile.
    template <class Body>
    void for_each_slot(std::size_t begin, std::size_t end, const Body& body) const {
        for (std::size_t tile = begin; tile < end; ++tile) {
            const int x0 = static_cast<int>(tile % static_cast<std::size_t>(_columns)) * Size;
            const int y0 = static_cast<int>(tile / static_cast<std::size_t>(_columns)) * Size;
            for (int y = y0; y < std::min(y0 + Size, _height); ++y) {
                const std::size_t row = static_cast<std::size_t>(y) * static_cast<std::size_t>(_width);
                for (int x = x0; x < std::min(x0 + Size, _width); ++x) body(x, y, row + static_cast<std::size_t>(x));
            }
        }
    }

private:
    static constexpr int Size = 32;

    int _width, _height, _columns, _rows;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
