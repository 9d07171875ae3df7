#include "platform/surfaceFeatures.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr float PI = 3.14159265F;
constexpr float INNER_SUPPORT = 0.5F;      ///< share of the frame's radius from which z is taken
constexpr float KEYPOINT_DISTANCE = 2.5F;  ///< spacings
constexpr float LEAST_SUPPORT = 0.5F;      ///< share of the samples of a flat disc of that radius
constexpr float LEAST_BEND = 0.002F;
constexpr float LEAST_DISTANCE = 1e-3F;  ///< share of the radius; nearer samples have no direction
constexpr std::size_t GRAIN = 16;

using Features = SurfaceFeatures;

/// How much the normals within the radius differ, from 0 on a plane to 1 at most; 0 too at borders and where samples
/// are sparse, which is no property of the surface.
std::vector<float> bending(const SampledCloud& samples, float radius, float spacing) {
    const float leastCount = LEAST_SUPPORT * PI * radius * radius / (spacing * spacing);
    std::vector<float> result(samples.size());
    parallel_ranges(default_thread_number(), samples.size(), GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            Vector3f sum = Vector3f::Zero();
            float count = 0.0F;
            samples.tree.for_each_within(samples.points[i], radius, [&](std::size_t j, float) {
                sum += samples.normals[j];
                count += 1.0F;
            });
            result[i] = count < leastCount ? 0.0F : 1.0F - sum.norm() / count;
        }
    });
    return result;
}

/// The places where the surface bends most, which are the same ones in another view, `distance` apart.
std::vector<std::size_t> choose_keypoints(const SampledCloud& samples, const FeatureSettings& settings) {
    const std::vector<float> bends = bending(samples, INNER_SUPPORT * settings.frameRadius, settings.spacing);
    std::vector<std::size_t> order(samples.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return bends[a] > bends[b]; });

    const float distance = KEYPOINT_DISTANCE * settings.spacing;
    std::vector<std::size_t> keypoints;
    std::vector<char> isTaken(samples.size(), 0);
    for (const std::size_t i : order) {
        if (isTaken[i] != 0) continue;
        if (keypoints.size() == settings.mostFeatures || bends[i] < LEAST_BEND) break;
        keypoints.push_back(i);
        samples.tree.for_each_within(samples.points[i], distance, [&](std::size_t j, float) { isTaken[j] = 1; });
    }
    return keypoints;
}

Vector3f mean_normal(const SampledCloud& samples, std::size_t keypoint, float radius) {
    Vector3f sum = Vector3f::Zero();
    samples.tree.for_each_within(samples.points[keypoint], radius,
                                 [&](std::size_t j, float) { sum += samples.normals[j]; });
    return sum.squaredNorm() > 0.0F ? Vector3f(sum.normalized()) : samples.normals[keypoint];
}

/// Far neighbours weigh little, because a neighbour may be missing there, and high ones much.
Vector3f leaving_direction(const SampledCloud& samples, const Vector3f& centre, const Vector3f& z, float radius) {
    Vector3f sum = Vector3f::Zero();
    samples.tree.for_each_within(centre, radius, [&](std::size_t j, float distanceSquared) {
        const Vector3f offset = (samples.points[j] - centre) / radius;
        const float height = offset.dot(z);
        const float nearness = 1.0F - std::sqrt(distanceSquared) / radius;
        sum += nearness * nearness * height * height * (offset - height * z);
    });
    return sum;
}

SurfaceFrame local_frame(const SampledCloud& samples, std::size_t keypoint, float radius) {
    SurfaceFrame frame;
    frame.position = samples.points[keypoint];
    const Vector3f z = mean_normal(samples, keypoint, INNER_SUPPORT * radius);
    const Vector3f leaving = leaving_direction(samples, frame.position, z, radius);
    const Vector3f x = leaving.squaredNorm() > 0.0F ? Vector3f(leaving.normalized()) : z.unitOrthogonal();
    frame.axes << x, z.cross(x), z;
    return frame;
}

/// The two bins that share a value, and the share of the second.
struct BinPair {
    int first;
    int second;
    float secondShare;
};

/// `value` counts bins from the middle of bin 0; beyond the outer middles one bin takes all.
BinPair clamped_bins(float value, int bins) {
    const float inside = std::clamp(value, 0.0F, static_cast<float>(bins - 1));
    const int first = std::min(static_cast<int>(inside), bins - 2);
    return {first, first + 1, inside - static_cast<float>(first)};
}

BinPair cyclic_bins(float value, int bins) {
    const float floor = std::floor(value);
    const int first = (static_cast<int>(floor) + bins) % bins;
    return {first, (first + 1) % bins, value - floor};
}

/// Azimuth in sectors from the middle of sector 0, in about [-4.5, 3.5].
float azimuth_sectors(const Vector3f& local) {
    constexpr float SECTORS_A_RADIAN = Features::AZIMUTH_SECTORS / (2.0F * PI);
    return std::atan2(local.y(), local.x()) * SECTORS_A_RADIAN - 0.5F;
}

int bin_index(int azimuth, int elevation, int shell, int cosine) {
    return ((azimuth * Features::ELEVATION_HALVES + elevation) * Features::RADIAL_SHELLS + shell) *
               Features::COSINE_BINS +
           cosine;
}

template <class Histogram>
void add_neighbour(Histogram&& histogram, const Vector3f& local, float shareOfRadius, float cosine) {
    const float sine = local.z() / local.norm();
    const BinPair azimuth = cyclic_bins(azimuth_sectors(local), Features::AZIMUTH_SECTORS);
    const BinPair elevation = clamped_bins(sine + 0.5F, Features::ELEVATION_HALVES);
    const BinPair shell = clamped_bins(shareOfRadius * Features::RADIAL_SHELLS - 0.5F, Features::RADIAL_SHELLS);
    const BinPair angle = clamped_bins((cosine + 1.0F) * 0.5F * (Features::COSINE_BINS - 1), Features::COSINE_BINS);
    for (const int a : {0, 1}) {
        const float shareA = a == 0 ? 1.0F - azimuth.secondShare : azimuth.secondShare;
        for (const int e : {0, 1}) {
            const float shareE = shareA * (e == 0 ? 1.0F - elevation.secondShare : elevation.secondShare);
            for (const int s : {0, 1}) {
                const float share = shareE * (s == 0 ? 1.0F - shell.secondShare : shell.secondShare);
                const int sector =
                    bin_index(a == 0 ? azimuth.first : azimuth.second, e == 0 ? elevation.first : elevation.second,
                              s == 0 ? shell.first : shell.second, 0);
                histogram[sector + angle.first] += share * (1.0F - angle.secondShare);
                histogram[sector + angle.second] += share * angle.secondShare;
            }
        }
    }
}

template <class Histogram>
void describe(const SampledCloud& samples, const SurfaceFrame& frame, float radius, Histogram&& histogram) {
    histogram.setZero();
    const Matrix3f toLocal = frame.axes.transpose();
    samples.tree.for_each_within(frame.position, radius, [&](std::size_t j, float distanceSquared) {
        const float distance = std::sqrt(distanceSquared) / radius;
        if (distance < LEAST_DISTANCE) return;
        const Vector3f local = toLocal * (samples.points[j] - frame.position);
        add_neighbour(histogram, local, distance, frame.axes.col(2).dot(samples.normals[j]));
    });
    const float length = histogram.norm();
    if (length > 0.0F) histogram /= length;
}

}  // namespace

SurfaceFeatures describe_surface(const SampledCloud& samples, const FeatureSettings& settings) {
    const std::vector<std::size_t> keypoints = choose_keypoints(samples, settings);
    SurfaceFeatures features;
    features.frames.resize(keypoints.size());
    features.descriptors.resize(Features::LENGTH, static_cast<Eigen::Index>(keypoints.size()));
    parallel_ranges(default_thread_number(), keypoints.size(), GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            features.frames[i] = local_frame(samples, keypoints[i], settings.frameRadius);
            describe(samples, features.frames[i], settings.descriptorRadius,
                     features.descriptors.col(static_cast<Eigen::Index>(i)));
        }
    });
    return features;
}

}  // namespace VexelAlgorithm
