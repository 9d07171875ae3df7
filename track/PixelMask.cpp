#include "track/PixelMask.h"

#include <hwy/base.h>

#include <algorithm>
#include <cmath>
#include <tuple>

namespace VexelAlgorithm {
namespace Track {
namespace {

constexpr int WordBits = 64;
constexpr std::uint64_t AllBits = ~std::uint64_t{0};
constexpr int Reach = 1001;  // columns or rows; what is farther has no squared distance below SquaredReach

std::uint64_t bits_of(const unsigned char* pixels, int count) {
    std::uint64_t bits = 0;
    for (int i = 0; i < count; ++i) bits |= std::uint64_t{pixels[i] != 0} << i;
    return bits;
}

float squared(float value) {
    return value * value;
}

}  // namespace

void PixelMask::assign(const unsigned char* image, const Vector2i& size) {
    _width = std::max(size.x(), 0);
    _height = std::max(size.y(), 0);
    _wordsPerRow = (static_cast<std::size_t>(_width) + WordBits - 1) / WordBits;
    _words.resize(_wordsPerRow * static_cast<std::size_t>(_height));
    std::uint64_t* word = _words.data();
    for (int row = 0; row < _height; ++row, image += _width) {
        for (int column = 0; column < _width; column += WordBits) {
            *word++ = bits_of(image + column, std::min(WordBits, _width - column));
        }
    }
}

bool PixelMask::is_out_of_reach(float x, float y) const {
    constexpr float margin = Reach;
    const bool isNear = x > -margin && y > -margin && x < static_cast<float>(_width) + margin &&
                        y < static_cast<float>(_height) + margin;
    return !isNear;  // also NaN
}

bool PixelMask::find_nearest(float x, float y, int halfWindow, NearestPixel& nearest) const {
    if (is_out_of_reach(x, y)) return false;
    const int half = std::min(halfWindow, Reach);
    const int middleColumn = static_cast<int>(x), middleRow = static_cast<int>(y);
    const ColumnRange columns{std::max(middleColumn - half, 0), static_cast<int>(std::floor(x - 0.5F)),
                              std::min(middleColumn + half, _width - 1)};
    nearest = {-1, -1, SquaredReach};
    for (int away = 0; away <= half; ++away) {
        const int above = middleRow - away, below = middleRow + away;
        const float stepAbove = static_cast<float>(above) + 0.5F - y, stepBelow = static_cast<float>(below) + 0.5F - y;
        if (std::min(squared(stepAbove), squared(stepBelow)) > nearest.squaredDistance) break;
        if (above >= 0 && above < _height) improve_by_row(above, columns, x, y, nearest);
        if (away > 0 && below >= 0 && below < _height) improve_by_row(below, columns, x, y, nearest);
    }
    return nearest.row >= 0;
}

// In a row only the last pixel with its centre up to x and the first one behind it can be the nearest.
void PixelMask::improve_by_row(int row, const ColumnRange& columns, float x, float y, NearestPixel& nearest) const {
    const std::uint64_t* words = _words.data() + static_cast<std::size_t>(row) * _wordsPerRow;
    const int left = last_set_from(words, std::min(columns.split, columns.last), columns.first);
    const int right = first_set_from(words, std::max(columns.split + 1, columns.first), columns.last);
    const float squaredRowStep = squared(static_cast<float>(row) + 0.5F - y);
    for (const int column : {left, right}) {
        if (column < 0) continue;
        const float distance = squared(static_cast<float>(column) + 0.5F - x) + squaredRowStep;
        if (std::tie(distance, row, column) < std::tie(nearest.squaredDistance, nearest.row, nearest.column)) {
            nearest = {column, row, distance};
        }
    }
}

// Column of the last set bit in [downTo, from], or -1.
int PixelMask::last_set_from(const std::uint64_t* row, int from, int downTo) const {
    if (from < downTo) return -1;
    int word = from / WordBits;
    std::uint64_t bits = row[word] & (AllBits >> (WordBits - 1 - from % WordBits));
    while (bits == 0 && word > downTo / WordBits) bits = row[--word];
    if (bits == 0) return -1;
    const int column = word * WordBits + WordBits - 1 - static_cast<int>(hwy::Num0BitsAboveMS1Bit_Nonzero64(bits));
    return column >= downTo ? column : -1;
}

// Column of the first set bit in [from, upTo], or -1.
int PixelMask::first_set_from(const std::uint64_t* row, int from, int upTo) const {
    if (from > upTo) return -1;
    int word = from / WordBits;
    std::uint64_t bits = row[word] & (AllBits << (from % WordBits));
    while (bits == 0 && word < upTo / WordBits) bits = row[++word];
    if (bits == 0) return -1;
    const int column = word * WordBits + static_cast<int>(hwy::Num0BitsBelowLS1Bit_Nonzero64(bits));
    return column <= upTo ? column : -1;
}

}  // namespace Track
}  // namespace VexelAlgorithm
