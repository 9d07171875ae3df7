// A two-dimensional array of values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VexelAlgorithm {

/// width x height values, row by row without padding.
template <class Value>
class Raster {
public:
    Raster() = default;
    Raster(int width, int height, Value value = Value{}) { assign(width, height, value); }

    /// Keeps the memory when the size stays.
    void assign(int width, int height, Value value = Value{}) {
        _width = width;
        _height = height;
        _values.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), value);
    }
    /// Values of the same size stay as they are.
    void resize(int width, int height) {
        if (width != _width || height != _height) assign(width, height);
    }
    void fill(Value value) { _values.assign(_values.size(), value); }

    int width() const { return _width; }
    int height() const { return _height; }
    std::size_t size() const { return _values.size(); }
    bool empty() const { return _values.empty(); }
    bool contains(int x, int y) const { return x >= 0 && y >= 0 && x < _width && y < _height; }
    template <class Other>
    bool same_size(const Raster<Other>& other) const {
        return _width == other.width() && _height == other.height();
    }

    Value* row(int y) { return _values.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(_width); }
    const Value* row(int y) const {
        return _values.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(_width);
    }
    Value& at(int x, int y) { return row(y)[x]; }
    const Value& at(int x, int y) const { return row(y)[x]; }
    Value* data() { return _values.data(); }
    const Value* data() const { return _values.data(); }
    Value& operator[](std::size_t i) { return _values[i]; }
    const Value& operator[](std::size_t i) const { return _values[i]; }

private:
    int _width = 0;
    int _height = 0;
    std::vector<Value> _values;
};

using GreyImage = Raster<std::uint8_t>;
using Mask = Raster<std::uint8_t>;  ///< 0 or 1

/// Half-open rectangle of pixels.
struct PixelRange {
    int xBegin = 0;
    int xEnd = 0;
    int yBegin = 0;
    int yEnd = 0;
};

}  // namespace VexelAlgorithm
