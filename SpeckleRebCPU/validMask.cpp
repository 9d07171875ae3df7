#include "SpeckleRebCPU/validMask.h"

#include <algorithm>
#include <cstdlib>

#include "SpeckleRebCPU/boxSums.h"

namespace VexelAlgorithm {
namespace {

constexpr int GRADIENT_MARGIN = 3;

bool is_inside(const PixelRange& range, int x, int y) {
    return x >= range.xBegin && x < range.xEnd && y >= range.yBegin && y < range.yEnd;
}

}  // namespace

PixelRange mirrored_range(int width, int height, const PixelRange& range, int margin) {
    const int x0 = std::max(range.xBegin, margin);
    const int y0 = std::max(range.yBegin, margin);
    return {x0, std::min(width - x0, range.xEnd), y0, std::min(height - y0, range.yEnd)};
}

bool compute_gradient(const GreyImage& image, const PixelRange& range, int threads, GreyImage& gradient) {
    if (image.empty()) return false;
    gradient.assign(image.width(), image.height());
    const PixelRange inner = mirrored_range(image.width(), image.height(), range, GRADIENT_MARGIN);
    const int rows = inner.yEnd - inner.yBegin - 1;
    if (rows <= 0) return true;
    parallel_ranges(threads, static_cast<std::size_t>(rows), BOX_GRAIN, [&](std::size_t begin, std::size_t end) {
        for (int y = inner.yBegin + 1 + static_cast<int>(begin); y < inner.yBegin + 1 + static_cast<int>(end); ++y) {
            const std::uint8_t* grey = image.row(y);
            std::uint8_t* step = gradient.row(y);
            for (int x = inner.xBegin; x < inner.xEnd; ++x)
                step[x] = static_cast<std::uint8_t>(std::abs(grey[x + 1] - grey[x - 1]));
        }
    });
    return true;
}

bool generate_valid_mask(const GreyImage& gradient, const PixelRange& range, int window, float threshold, int threads,
                         Mask& mask) {
    if (gradient.empty() || window < 0) return false;
    const int radius = window >> 1;
    const PixelRange inner = mirrored_range(gradient.width(), gradient.height(), range, radius + 1);
    mask.assign(gradient.width(), gradient.height());
    const auto pixels = static_cast<float>((2 * radius + 1) * (2 * radius + 1));
    const float least = std::max(threshold, 0.0F) * threshold * pixels;
    for_each_box_sum(
        gradient.width(), gradient.height(), radius, radius, threads,
        [&](int x, int y) { return gradient.at(x, y) * gradient.at(x, y); },
        [&](int x, int y, std::int32_t sum) {
            mask.at(x, y) = is_inside(inner, x, y) && static_cast<float>(sum) >= least ? 1 : 0;
        });
    return true;
}

bool mask_dilate(const Mask& mask, const PixelRange& range, int windowWidth, int windowHeight, int threads,
                 Mask& dilated) {
    if (mask.empty() || windowWidth < 1 || windowHeight < 1) return false;
    dilated.assign(mask.width(), mask.height());
    for_each_box_sum(
        mask.width(), mask.height(), windowWidth >> 1, windowHeight >> 1, threads,
        [&](int x, int y) { return mask.at(x, y); },
        [&](int x, int y, std::int32_t sum) { dilated.at(x, y) = is_inside(range, x, y) && sum > 0 ? 1 : 0; });
    return true;
}

}  // namespace VexelAlgorithm
