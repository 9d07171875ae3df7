#include "simulation/SpeckleTexture.h"

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"
#include "simulation/counterRandom.h"
#include "simulation/gaussianBlur.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kTexelsPerPixel = 2.0;
constexpr double kLeastFootprint = 0.25;  ///< projector pixels, standard deviation; that of the first level
constexpr double kVarianceStep = 2.0;     ///< from level to level
constexpr double kTexelsPerBlur = 2.0;  ///< texels that a level has at least for the standard deviation of all its blur
constexpr std::size_t kLevels = 12;
constexpr int kSmallestLevel = 8;
constexpr double kFewProbesReach = 0.8;  ///< of the blur that the texture has anyway; longer footprints take more
constexpr double kProbeStep = 0.8;       ///< likewise, between these
constexpr double kProbeReach = 2.5;      ///< standard deviations
constexpr int kMostProbes = 32;

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

    const double patternVariance = pattern.blur * pattern.blur;
    double variance = 0.0;  // of the level, without that of the pattern
    for (double wanted = kLeastFootprint * kLeastFootprint; _levels.size() < kLevels; wanted *= kVarianceStep) {
        const double texel = static_cast<double>(_width) / level.width;
        const bool isCoarser = kTexelsPerBlur * 2.0 * texel <= std::sqrt(wanted + patternVariance) &&
                               std::min(level.width, level.height) > 2 * kSmallestLevel;
        const double byHalving = isCoarser ? 0.25 * texel * texel : 0.0;  // the mean of two texels
        const double blur = std::sqrt(std::max(wanted - variance - byHalving, 0.0));
        gaussian_blur(level.texels, level.width, level.height, blur / texel, threads);
        if (isCoarser) {
            level.texels = halved(level.texels, level.width, level.width / 2, level.height / 2);
            level.width /= 2;
            level.height /= 2;
        }
        variance = wanted;
        level.blur = std::sqrt(wanted);
        _levels.push_back(level);
    }
    _patternBlur = pattern.blur;
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
    const double sigma = std::max(axes.minor, kLeastFootprint);
    const double rest = std::sqrt(std::max(axes.major * axes.major - sigma * sigma, 0.0));
    const double smoothness = std::hypot(sigma, _patternBlur);
    const auto probe = [&](double place) { return round_mean(centre + place * rest * axes.direction, sigma); };
    if (rest < 0.1 * smoothness) return probe(0.0);
    if (rest < kFewProbesReach * smoothness) {
        const double outer = std::sqrt(3.0);  // the points of Gauss and Hermite
        return (probe(-outer) + 4.0F * probe(0.0) + probe(outer)) / 6.0F;
    }
    const int half =
        std::min(static_cast<int>(std::ceil(kProbeReach * rest / (kProbeStep * smoothness))), kMostProbes / 2);
    float sum = 0.0F, weights = 0.0F;
    for (int i = -half; i <= half; ++i) {
        const double place = kProbeReach * i / half;
        const auto weight = static_cast<float>(std::exp(-0.5 * place * place));
        sum += weight * probe(place);
        weights += weight;
    }
    return sum / weights;
}

}  // namespace VexelAlgorithm::Simulation
