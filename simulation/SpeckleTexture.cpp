#include "simulation/SpeckleTexture.h"

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"
#include "simulation/counterRandom.h"
#include "simulation/gaussianBlur.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kTexelsPerPixel = 2.0;
constexpr int kMostProbes = 8;
constexpr int kSmallestLevel = 8;

std::vector<float> white_noise(int width, int height, std::uint64_t seed, int threads) {
    const auto count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<float> noise(count);
    parallel_ranges(threads, count, 65536, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            noise[i] = static_cast<float>(PixelRandom(seed, 0, i).uniform(0) - 0.5);
    });
    return noise;
}

/// Half the size; the filter before it keeps out what the coarser grid cannot hold.
std::vector<float> halved(const std::vector<float>& image, int width, int newWidth, int newHeight) {
    std::vector<float> half;
    half.reserve(static_cast<std::size_t>(newWidth) * static_cast<std::size_t>(newHeight));
    for (int y = 0; y < newHeight; ++y)
        for (int x = 0; x < newWidth; ++x) {
            const float* four = &image[static_cast<std::size_t>(2 * y) * static_cast<std::size_t>(width) +
                                       static_cast<std::size_t>(2 * x)];
            half.push_back(0.25F * (four[0] + four[1] + four[width] + four[width + 1]));
        }
    return half;
}

struct Axes {
    double major = 0.0;  ///< standard deviations
    double minor = 0.0;
    Vector2d direction;  ///< of the major one
};

Axes principal_axes(const Eigen::Matrix2d& covariance) {
    const double mean = 0.5 * (covariance(0, 0) + covariance(1, 1));
    const double half = 0.5 * (covariance(0, 0) - covariance(1, 1));
    const double mixed = covariance(0, 1);
    const double spread = std::hypot(half, mixed);
    const Vector2d direction = half >= 0.0 ? Vector2d(half + spread, mixed) : Vector2d(mixed, spread - half);
    const double length = direction.norm();
    return {std::sqrt(mean + spread), std::sqrt(std::max(mean - spread, 0.0)),
            length > 0.0 ? Vector2d(direction / length) : Vector2d(1.0, 0.0)};
}

}  // namespace

SpeckleTexture::SpeckleTexture(const SpecklePattern& pattern, int threads)
    : _width(pattern.width), _height(pattern.height) {
    const auto texels = [](int pixels) { return static_cast<int>(kTexelsPerPixel) * pixels; };
    Level level{texels(pattern.width), texels(pattern.height), 0.0, {}};
    const double wavelength = 2.0 * pattern.spotSize * kTexelsPerPixel;
    // The difference of two Gaussians passes a band of about an octave; its peak lies at this wavelength.
    const double fine = 0.19 * wavelength;
    level.texels = white_noise(level.width, level.height, pattern.seed, threads);
    std::vector<float> coarse = level.texels;
    gaussian_blur(level.texels, level.width, level.height, fine, threads);
    gaussian_blur(coarse, level.width, level.height, 1.6 * fine, threads);
    const auto dark = static_cast<float>(pattern.darkLevel);
    for (std::size_t i = 0; i < coarse.size(); ++i) level.texels[i] = level.texels[i] > coarse[i] ? 1.0F : dark;
    gaussian_blur(level.texels, level.width, level.height, kTexelsPerPixel * pattern.blur, threads);

    _levels.push_back(std::move(level));
    while (std::min(_levels.back().width, _levels.back().height) > 2 * kSmallestLevel) {
        const Level& finer = _levels.back();
        const double texel = static_cast<double>(_width) / finer.width;
        Level next{finer.width / 2, finer.height / 2, 0.0, finer.texels};
        constexpr double filter = 0.8;  // texels
        gaussian_blur(next.texels, finer.width, finer.height, filter, threads);
        next.texels = halved(next.texels, finer.width, next.width, next.height);
        // The mean of two texels is a filter of half a texel.
        next.blur = std::sqrt(finer.blur * finer.blur + (filter * filter + 0.25) * texel * texel);
        _levels.push_back(std::move(next));
    }
}

float SpeckleTexture::bilinear(const Level& level, double size, const Vector2d& place) const {
    // The first pixel's centre is (0, 0) and its left edge -0.5, whatever the size of the texels.
    const double x = std::clamp((place.x() + 0.5) / size - 0.5, 0.0, level.width - 1.001);
    const double y = std::clamp((place.y() + 0.5) / size - 0.5, 0.0, level.height - 1.001);
    const auto column = static_cast<std::size_t>(x);
    const auto row = static_cast<std::size_t>(y);
    const auto u = static_cast<float>(x - static_cast<double>(column));
    const auto v = static_cast<float>(y - static_cast<double>(row));
    const float* upper = &level.texels[row * static_cast<std::size_t>(level.width) + column];
    const float* lower = upper + level.width;
    return (1.0F - v) * (upper[0] + u * (upper[1] - upper[0])) + v * (lower[0] + u * (lower[1] - lower[0]));
}

float SpeckleTexture::round_mean(const Vector2d& centre, double sigma) const {
    std::size_t coarser = 1;
    while (coarser + 1 < _levels.size() && _levels[coarser].blur < sigma) ++coarser;
    const Level& low = _levels[coarser - 1];
    const Level& high = _levels[coarser];
    const double share =
        std::clamp((sigma * sigma - low.blur * low.blur) / (high.blur * high.blur - low.blur * low.blur), 0.0, 1.0);
    const auto size = [&](const Level& level) { return static_cast<double>(_width) / level.width; };
    const float fine = bilinear(low, size(low), centre);
    return fine + static_cast<float>(share) * (bilinear(high, size(high), centre) - fine);
}

float SpeckleTexture::mean_under(const Vector2d& centre, const Eigen::Matrix2d& covariance) const {
    const bool isInside =
        centre.x() >= -0.5 && centre.y() >= -0.5 && centre.x() <= _width - 0.5 && centre.y() <= _height - 0.5;
    if (!isInside) return 0.0F;
    const Axes axes = principal_axes(covariance);
    const double least = 0.5 / kTexelsPerPixel;
    const double sigma = std::max(axes.minor, least);
    const int probes = std::clamp(static_cast<int>(std::ceil(axes.major / sigma)), 1, kMostProbes);
    if (probes == 1) return round_mean(centre, sigma);
    // Probes with Gaussian weights along the major axis over two standard deviations of what the round part leaves.
    const double rest = std::sqrt(std::max(axes.major * axes.major - sigma * sigma, 0.0));
    float sum = 0.0F, weights = 0.0F;
    for (int i = 0; i < probes; ++i) {
        const double place = 2.0 * ((2.0 * i + 1.0) / probes - 1.0);
        const auto weight = static_cast<float>(std::exp(-0.5 * place * place));
        sum += weight * round_mean(centre + place * rest * axes.direction, sigma);
        weights += weight;
    }
    return sum / weights;
}

}  // namespace VexelAlgorithm::Simulation
