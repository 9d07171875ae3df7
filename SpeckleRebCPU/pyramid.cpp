#include "SpeckleRebCPU/pyramid.h"

#include <algorithm>
#include <cstdlib>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 16;

void add_weighted_row(const std::uint8_t* row, int width, std::int32_t weight, std::int32_t* sums) {
    for (int x = 0; x < width; ++x) sums[x] += weight * row[x];
}

void smooth_columns(const GreyImage& image, int centre, int ratio, std::int32_t* sums) {
    std::fill_n(sums, image.width(), 0);
    for (int dy = 1 - ratio; dy < ratio; ++dy) {
        const int y = std::clamp(centre + dy, 0, image.height() - 1);
        add_weighted_row(image.row(y), image.width(), ratio - std::abs(dy), sums);
    }
}

std::int32_t smooth_at(const std::int32_t* sums, int width, int centre, int ratio) {
    std::int32_t total = 0;
    for (int dx = 1 - ratio; dx < ratio; ++dx)
        total += (ratio - std::abs(dx)) * sums[std::clamp(centre + dx, 0, width - 1)];
    return total;
}

void sample_row(const std::int32_t* sums, int width, int ratio, int count, std::uint8_t* row) {
    const std::int32_t area = ratio * ratio * ratio * ratio;
    if (ratio == 2) {  // the common case without its clamps and divisions
        for (int x = 1; x < count; ++x) {
            const std::int32_t* s = sums + 2 * x;
            if (2 * x + 1 >= width) break;
            row[x] = static_cast<std::uint8_t>((s[-1] + 2 * s[0] + s[1] + 8) >> 4);
        }
        row[0] = static_cast<std::uint8_t>((smooth_at(sums, width, 0, ratio) + 8) / area);
        return;
    }
    for (int x = 0; x < count; ++x)
        row[x] = static_cast<std::uint8_t>((smooth_at(sums, width, x * ratio, ratio) + area / 2) / area);
}

}  // namespace

void build_sampled_image(const GreyImage& image, int ratio, int threads, GreyImage& sampled) {
    if (ratio == 1) {
        sampled = image;
        return;
    }
    sampled.assign(image.width() / ratio, image.height() / ratio);
    parallel_ranges(threads, static_cast<std::size_t>(sampled.height()), ROW_GRAIN,
                    [&](std::size_t begin, std::size_t end) {
                        std::vector<std::int32_t> sums(static_cast<std::size_t>(image.width()));
                        for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y) {
                            smooth_columns(image, y * ratio, ratio, sums.data());
                            sample_row(sums.data(), image.width(), ratio, sampled.width(), sampled.row(y));
                        }
                    });
}

}  // namespace VexelAlgorithm
