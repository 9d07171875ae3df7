#include "SpeckleRebCPU/secondDifferences.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 32;

/// Two columns to the left of the row and two to the right repeat its border.
void fine_and_coarse_row(const GreyImage& image, int y, std::vector<std::int32_t>& fine,
                         std::vector<std::int32_t>& coarse) {
    const auto row = [&](int dy) { return image.row(std::clamp(y + dy, 0, image.height() - 1)); };
    const std::uint8_t *a = row(-2), *b = row(-1), *c = row(0), *d = row(1), *e = row(2);
    const auto width = static_cast<std::size_t>(image.width());
    for (std::size_t x = 0; x < width; ++x) {
        fine[x + 2] = 4 * (b[x] + 2 * c[x] + d[x]);
        coarse[x + 2] = a[x] + 4 * (b[x] + d[x]) + 6 * c[x] + e[x];
    }
    for (auto* sums : {&fine, &coarse}) {
        (*sums)[0] = (*sums)[1] = (*sums)[2];
        (*sums)[width + 2] = (*sums)[width + 3] = (*sums)[width + 1];
    }
}

void find_mixed_row(const GreyImage& image, int y, std::int16_t* mixed) {
    const std::uint8_t *above = image.row(std::max(0, y - 1)), *below = image.row(std::min(image.height() - 1, y + 1));
    const int last = image.width() - 1;
    for (int x = 0; x <= last; ++x) {
        const int before = std::max(0, x - 1), behind = std::min(last, x + 1);
        mixed[x] = static_cast<std::int16_t>(below[behind] + above[before] - below[before] - above[behind]);
    }
}

}  // namespace

void find_second_differences(const GreyImage& image, int multiple, int threads, SecondDifferences& differences) {
    const int width = image.width(), height = image.height();
    const int stride = (width + multiple - 1) / multiple * multiple;
    differences.alongX.assign(stride, height);
    differences.alongY.assign(stride, height);
    differences.mixed.assign(stride, height);
    parallel_ranges(threads, static_cast<std::size_t>(height), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
        std::vector<std::int32_t> fine(static_cast<std::size_t>(width) + 4), coarse(fine.size());
        for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y) {
            fine_and_coarse_row(image, y, fine, coarse);
            find_mixed_row(image, y, differences.mixed.row(y));
            std::int16_t* alongX = differences.alongX.row(y);
            std::int16_t* alongY = differences.alongY.row(y);
            for (int x = 0; x < width; ++x) {
                const std::int32_t *s = fine.data() + x + 2, *t = coarse.data() + x + 2;
                const std::int32_t both = t[-2] + 4 * (t[-1] + t[1]) + 6 * t[0] + t[2];  // of 256
                const std::int32_t fineX = 4 * (t[-1] + 2 * t[0] + t[1]);
                const std::int32_t fineY = s[-2] + 4 * (s[-1] + s[1]) + 6 * s[0] + s[2];
                alongX[x] = static_cast<std::int16_t>((both - fineX + 8) >> 4);
                alongY[x] = static_cast<std::int16_t>((both - fineY + 8) >> 4);
            }
        }
    });
}

}  // namespace VexelAlgorithm
