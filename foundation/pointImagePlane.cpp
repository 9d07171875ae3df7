#include <Eigen/Eigenvalues>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t SearchPoints = 8192;   ///< candidates are compared on at most about so many points
constexpr std::size_t RandomTriples = 1024;  ///< when there are more triples than that
constexpr int PatchSide = 8;                 ///< samples
constexpr int PatchSpacing = 4;
constexpr double LooseFactor = 4.0;  ///< planes of few or close points miss far inliers by a multiple of the distance
constexpr std::size_t RefinedOfEach = 8;
constexpr int MaxRefinements = 12;

/// normal . p = offset
struct Plane {
    Vector3d normal = Vector3d::Zero();
    double offset = 0.0;
};

struct Candidate {
    Plane plane;
    std::int64_t inliers = 0;
    std::int64_t looseInliers = 0;
};

/// Samples relative to their mean, one array for each coordinate.
struct Samples {
    std::vector<float> x, y, z;
    int columns = 0;
    int rows = 0;
    std::vector<std::int32_t> atNode;  ///< columns x rows: index of the sample there, -1 for none

    std::size_t size() const { return x.size(); }
    Vector3d point(std::size_t i) const { return Vector3d(x[i], y[i], z[i]); }
};

Samples take_samples(const PointImage& image, std::size_t step) {
    Samples samples;
    const std::size_t width = static_cast<std::size_t>(image.get_image_width());
    const std::size_t height = static_cast<std::size_t>(image.get_image_height());
    samples.columns = static_cast<int>((width + step - 1) / step);
    samples.rows = static_cast<int>((height + step - 1) / step);
    std::vector<Vector3f> points;
    Vector3d sum = Vector3d::Zero();
    for (std::size_t y = 0; y < height; y += step) {
        for (std::size_t x = 0; x < width; x += step) {
            const std::size_t slot = y * width + x;
            const bool has = image.has_point(slot);
            samples.atNode.push_back(has ? static_cast<std::int32_t>(points.size()) : -1);
            if (!has) continue;
            points.push_back(image.get_vCoord(slot));
            sum += points.back().cast<double>();
        }
    }
    const Vector3d mean = sum / static_cast<double>(std::max<std::size_t>(points.size(), 1));
    for (const Vector3f& point : points) {
        const Vector3f centred = (point.cast<double>() - mean).cast<float>();
        samples.x.push_back(centred.x());
        samples.y.push_back(centred.y());
        samples.z.push_back(centred.z());
    }
    return samples;
}

/// Total least squares of the points that were added.
class PlaneFit {
public:
    void add(const Vector3d& point) {
        ++_count;
        _sum += point;
        _products.noalias() += point * point.transpose();
    }
    bool solve(Plane& plane) const {
        if (_count < 3) return false;
        const Vector3d mean = _sum / static_cast<double>(_count);
        const Matrix3d covariance = _products / static_cast<double>(_count) - mean * mean.transpose();
        if (!covariance.allFinite()) return false;
        plane.normal = Eigen::SelfAdjointEigenSolver<Matrix3d>(covariance).eigenvectors().col(0);
        plane.offset = plane.normal.dot(mean);
        return true;
    }

private:
    std::int64_t _count = 0;
    Vector3d _sum = Vector3d::Zero();
    Matrix3d _products = Matrix3d::Zero();
};

std::int64_t count_inliers(const Samples& samples, const Plane& plane, double distance, std::size_t stride) {
    const float nx = static_cast<float>(plane.normal.x());
    const float ny = static_cast<float>(plane.normal.y());
    const float nz = static_cast<float>(plane.normal.z());
    const float offset = static_cast<float>(plane.offset);
    const float limit = static_cast<float>(distance);
    std::int32_t count = 0;
    for (std::size_t i = 0; i < samples.size(); i += stride) {
        const float residual = nx * samples.x[i] + ny * samples.y[i] + nz * samples.z[i] - offset;
        count += std::fabs(residual) <= limit ? 1 : 0;
    }
    return count;
}

// ---- candidates ---------------------------------------------------------------------------------------

void add_patch_planes(const Samples& samples, std::vector<Candidate>& candidates) {
    for (int top = 0; top == 0 || top + PatchSide <= samples.rows; top += PatchSpacing) {
        for (int left = 0; left == 0 || left + PatchSide <= samples.columns; left += PatchSpacing) {
            PlaneFit fit;
            for (int r = top; r < std::min(top + PatchSide, samples.rows); ++r) {
                for (int c = left; c < std::min(left + PatchSide, samples.columns); ++c) {
                    const std::int32_t index = samples.atNode[static_cast<std::size_t>(r) * samples.columns + c];
                    if (index >= 0) fit.add(samples.point(static_cast<std::size_t>(index)));
                }
            }
            Candidate candidate;
            if (fit.solve(candidate.plane)) candidates.push_back(candidate);
        }
    }
}

void add_triple_plane(const Samples& samples, std::size_t a, std::size_t b, std::size_t c,
                      std::vector<Candidate>& candidates) {
    const Vector3d normal = (samples.point(b) - samples.point(a)).cross(samples.point(c) - samples.point(a));
    const double length = normal.norm();
    if (!(length > 0.0) || !std::isfinite(length)) return;
    Candidate candidate;
    candidate.plane.normal = normal / length;
    candidate.plane.offset = candidate.plane.normal.dot(samples.point(a));
    candidates.push_back(candidate);
}

void add_triple_planes(const Samples& samples, std::vector<Candidate>& candidates) {
    const std::size_t count = samples.size();
    const bool takesAll = count < 32 && count * (count - 1) * (count - 2) / 6 <= RandomTriples;
    if (takesAll) {
        for (std::size_t a = 0; a < count; ++a)
            for (std::size_t b = a + 1; b < count; ++b)
                for (std::size_t c = b + 1; c < count; ++c) add_triple_plane(samples, a, b, c, candidates);
        return;
    }
    std::minstd_rand random(1);  // its sequence is the same everywhere
    for (std::size_t i = 0; i < RandomTriples; ++i) {
        const std::size_t a = random() % count;
        const std::size_t b = random() % count;
        const std::size_t c = random() % count;
        add_triple_plane(samples, a, b, c, candidates);
    }
}

// ---- choice -------------------------------------------------------------------------------------------

/// Fits the plane to its inliers again and again, within a distance that narrows to the one asked for, and keeps the
/// best plane met.
void refine(const Samples& samples, double distance, std::size_t stride, Candidate& candidate) {
    Plane plane = candidate.plane;
    double within = LooseFactor * distance;
    for (int iteration = 0; iteration < MaxRefinements; ++iteration) {
        PlaneFit fit;
        for (std::size_t i = 0; i < samples.size(); i += stride) {
            const Vector3d point = samples.point(i);
            if (std::fabs(plane.normal.dot(point) - plane.offset) <= within) fit.add(point);
        }
        if (!fit.solve(plane)) return;
        const std::int64_t inliers = count_inliers(samples, plane, distance, stride);
        const bool improves = inliers > candidate.inliers;
        if (improves) {
            candidate.plane = plane;
            candidate.inliers = inliers;
        }
        if (within <= distance && !improves) return;
        within = std::max(0.5 * within, distance);
    }
}

/// The indices of the candidates with the most inliers and of those with the most loose inliers.
std::vector<std::size_t> most_promising(const std::vector<Candidate>& candidates) {
    std::vector<std::size_t> order(candidates.size());
    std::vector<std::size_t> chosen;
    for (const auto member : {&Candidate::inliers, &Candidate::looseInliers}) {
        std::iota(order.begin(), order.end(), std::size_t{0});
        const std::size_t taken = std::min(RefinedOfEach, order.size());
        std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(taken), order.end(),
                          [&](std::size_t a, std::size_t b) {
                              const std::int64_t countA = candidates[a].*member;
                              const std::int64_t countB = candidates[b].*member;
                              return countA != countB ? countA > countB : a < b;
                          });
        chosen.insert(chosen.end(), order.begin(), order.begin() + static_cast<std::ptrdiff_t>(taken));
    }
    std::sort(chosen.begin(), chosen.end());
    chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
    return chosen;
}

std::int64_t most_inliers(const Samples& samples, double distance, int threads) {
    std::vector<Candidate> candidates;
    add_patch_planes(samples, candidates);
    add_triple_planes(samples, candidates);
    const std::size_t stride = (samples.size() + SearchPoints - 1) / SearchPoints;
    parallel_ranges(threads, candidates.size(), 16, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            Candidate& candidate = candidates[i];
            candidate.inliers = count_inliers(samples, candidate.plane, distance, stride);
            candidate.looseInliers = count_inliers(samples, candidate.plane, LooseFactor * distance, stride);
        }
    });
    const std::vector<std::size_t> promising = most_promising(candidates);
    parallel_ranges(threads, promising.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) refine(samples, distance, stride, candidates[promising[i]]);
    });
    const auto best = std::max_element(candidates.begin(), candidates.end(),
                                       [](const Candidate& a, const Candidate& b) { return a.inliers < b.inliers; });
    return best == candidates.end() ? 0 : count_inliers(samples, best->plane, distance, 1);
}

}  // namespace

void PointImage::plane_detect(float& planeRatio, float distance, int step) const {
    planeRatio = 0.0f;
    if (!is_legal() || get_vn() == 0 || !(distance >= 0.0f)) return;  // maybe with 2^31 - 1 rows
    const Samples samples = take_samples(*this, static_cast<std::size_t>(std::max(step, 1)));
    if (samples.size() < 3) return;
    // Any three points have a common plane, whatever the rounding of a distance of 0 says.
    const std::int64_t inliers = std::max<std::int64_t>(most_inliers(samples, distance, default_thread_number()), 3);
    planeRatio = static_cast<float>(static_cast<double>(inliers) / static_cast<double>(samples.size()));
}

}  // namespace VexelAlgorithm
