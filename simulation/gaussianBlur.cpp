#include "simulation/gaussianBlur.h"

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kLeastSigma = 0.05;
constexpr double kReach = 3.5;

/// From the middle outwards.
std::vector<float> half_kernel(double sigma) {
    const int radius = static_cast<int>(std::ceil(kReach * sigma));
    std::vector<double> values;
    for (int i = 0; i <= radius; ++i) values.push_back(std::exp(-0.5 * i * i / (sigma * sigma)));
    double sum = values[0];
    for (int i = 1; i <= radius; ++i) sum += 2.0 * values[static_cast<std::size_t>(i)];
    std::vector<float> kernel;
    for (const double value : values) kernel.push_back(static_cast<float>(value / sum));
    return kernel;
}

void add_scaled(float factor, const float* one, const float* other, int count, float* sums) {
    for (int x = 0; x < count; ++x) sums[x] += factor * (one[x] + other[x]);
}

void blur_row(float* row, int width, const std::vector<float>& kernel, std::vector<float>& padded) {
    const int radius = static_cast<int>(kernel.size()) - 1;
    padded.assign(static_cast<std::size_t>(width + 2 * radius), row[0]);
    std::copy(row, row + width, padded.begin() + radius);
    std::fill(padded.end() - radius, padded.end(), row[width - 1]);
    const float* middle = padded.data() + radius;
    for (int x = 0; x < width; ++x) row[x] = kernel[0] * middle[x];
    for (int i = 1; i <= radius; ++i)
        add_scaled(kernel[static_cast<std::size_t>(i)], middle - i, middle + i, width, row);
}

}  // namespace

void gaussian_blur(std::vector<float>& image, int width, int height, double sigma, int threads) {
    if (!(sigma >= kLeastSigma) || width < 1 || height < 1) return;
    const std::vector<float> kernel = half_kernel(sigma);
    const int radius = static_cast<int>(kernel.size()) - 1;
    const auto rowLength = static_cast<std::size_t>(width);
    const auto rows = static_cast<std::size_t>(height);
    parallel_ranges(threads, rows, 32, [&](std::size_t begin, std::size_t end) {
        std::vector<float> padded;
        for (std::size_t y = begin; y < end; ++y) blur_row(&image[y * rowLength], width, kernel, padded);
    });
    const std::vector<float> source = image;
    const auto source_row = [&](int y) {
        return &source[static_cast<std::size_t>(std::clamp(y, 0, height - 1)) * rowLength];
    };
    parallel_ranges(threads, rows, 32, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y) {
            float* row = &image[y * rowLength];
            const int middle = static_cast<int>(y);
            for (std::size_t x = 0; x < rowLength; ++x) row[x] = kernel[0] * source_row(middle)[x];
            for (int i = 1; i <= radius; ++i)
                add_scaled(kernel[static_cast<std::size_t>(i)], source_row(middle - i), source_row(middle + i), width,
                           row);
        }
    });
}

}  // namespace VexelAlgorithm::Simulation
