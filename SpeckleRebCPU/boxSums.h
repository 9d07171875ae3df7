// Sums over sliding windows.
#pragma once

#include <algorithm>
#include <vector>

#include "SpeckleRebCPU/Raster.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {

constexpr std::size_t BOX_GRAIN = 32;  ///< rows; building up the first window costs as much as a window of rows

/// Calls `emit(x, y, sum)` with the sum of value(x', y') over the window of half-widths (rx, ry) around every pixel;
/// what lies outside the image counts as zero. Values are integers; the sum must fit into `Sum`.
template <class Sum = std::int32_t, class ValueAt, class Emit>
void for_each_box_sum(int width, int height, int rx, int ry, int threads, const ValueAt& value, const Emit& emit) {
    parallel_ranges(threads, static_cast<std::size_t>(height), BOX_GRAIN, [&](std::size_t begin, std::size_t end) {
        std::vector<Sum> columns(static_cast<std::size_t>(width), 0);
        const auto add_row = [&](int y) {
            if (y < 0 || y >= height) return;
            for (int x = 0; x < width; ++x) columns[static_cast<std::size_t>(x)] += value(x, y);
        };
        const auto drop_row = [&](int y) {
            if (y < 0 || y >= height) return;
            for (int x = 0; x < width; ++x) columns[static_cast<std::size_t>(x)] -= value(x, y);
        };
        const int first = static_cast<int>(begin);
        for (int y = first - ry; y < first + ry; ++y) add_row(y);
        for (int y = first; y < static_cast<int>(end); ++y) {
            add_row(y + ry);
            Sum sum = 0;
            for (int x = 0; x < std::min(rx, width); ++x) sum += columns[static_cast<std::size_t>(x)];
            for (int x = 0; x < width; ++x) {
                if (x + rx < width) sum += columns[static_cast<std::size_t>(x + rx)];
                emit(x, y, sum);
                if (x - rx >= 0) sum -= columns[static_cast<std::size_t>(x - rx)];
            }
            drop_row(y - ry);
        }
    });
}

}  // namespace VexelAlgorithm
