#include "platform/sampledCloud.h"

#include <Eigen/Eigenvalues>
#include <cmath>
#include <cstdint>
#include <unordered_map>
#include <utility>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr int KEY_BITS = 19;
constexpr float FARTHEST_CUBE = 262144.0F;  // 2^18, half of what a key holds an axis
constexpr float LEAST_MEAN_NORMAL = 0.1F;   // shorter means come from normals that contradict each other
constexpr std::size_t GRAIN = 256;

struct Cube {
    Vector3d pointSum = Vector3d::Zero();
    Vector3f normalSum = Vector3f::Zero();
    int count = 0;
};

bool counts(const Cloud& cloud, std::size_t i) {
    const Vector3f& point = cloud.get_vCoord(i);
    if (!point.allFinite() || point.isZero(0.0F) || cloud.get_vDeleted(i)) return false;
    if (!cloud.is_enable_vNormal()) return true;
    const float length = cloud.get_vNrv(i).squaredNorm();
    return length > 0.0F && std::isfinite(length);
}

std::uint64_t key_of(const Vector3f& cube) {
    std::uint64_t key = 0;
    for (int axis = 0; axis < 3; ++axis)
        key = key << KEY_BITS | static_cast<std::uint64_t>(static_cast<std::int64_t>(cube[axis] + FARTHEST_CUBE));
    return key;
}

class CubeGrid {
public:
    explicit CubeGrid(float spacing) : _spacing(spacing) {}

    void add(const Cloud& cloud, std::size_t i) {
        const Vector3f& point = cloud.get_vCoord(i);
        const Vector3f position = (point / _spacing).array().floor();
        if (!(position.cwiseAbs().maxCoeff() < FARTHEST_CUBE)) return;
        Cube& cube = cube_at(key_of(position));
        cube.pointSum += point.cast<double>();
        if (cloud.is_enable_vNormal()) cube.normalSum += cloud.get_vNrv(i).normalized();
        ++cube.count;
    }

    const std::vector<Cube>& cubes() const { return _cubes; }

private:
    /// Points that follow each other mostly share their cube.
    Cube& cube_at(std::uint64_t key) {
        if (_cubes.empty() || key != _lastKey) {
            const auto [entry, isNew] = _indices.try_emplace(key, _cubes.size());
            if (isNew) _cubes.emplace_back();
            _lastKey = key;
            _lastIndex = entry->second;
        }
        return _cubes[_lastIndex];
    }

    float _spacing;
    std::vector<Cube> _cubes;
    std::unordered_map<std::uint64_t, std::size_t> _indices;
    std::uint64_t _lastKey = 0;
    std::size_t _lastIndex = 0;
};

Vector3d centroid_of(const std::vector<Cube>& cubes) {
    Vector3d sum = Vector3d::Zero();
    for (const Cube& cube : cubes) sum += cube.pointSum / cube.count;
    return cubes.empty() ? sum : Vector3d(sum / static_cast<double>(cubes.size()));
}

void take_samples(const std::vector<Cube>& cubes, bool hasNormals, SampledCloud& samples) {
    samples.centroid = centroid_of(cubes);
    for (const Cube& cube : cubes) {
        const Vector3f meanNormal = cube.normalSum / static_cast<float>(cube.count);
        if (hasNormals && !(meanNormal.norm() > LEAST_MEAN_NORMAL)) continue;
        samples.points.push_back((cube.pointSum / cube.count - samples.centroid).cast<float>());
        samples.normals.push_back(hasNormals ? meanNormal.normalized() : meanNormal);
    }
}

/// The direction in which the samples around one of them spread least.
Vector3f plane_normal(const SampledCloud& samples, const Vector3f& centre, float radius) {
    Vector3f sum = Vector3f::Zero();
    Matrix3f products = Matrix3f::Zero();
    float count = 0.0F;
    samples.tree.for_each_within(centre, radius, [&](std::size_t j, float) {
        const Vector3f offset = samples.points[j] - centre;
        sum += offset;
        products += offset * offset.transpose();
        count += 1.0F;
    });
    const Matrix3f covariance = products - sum * sum.transpose() / count;
    return Eigen::SelfAdjointEigenSolver<Matrix3f>(covariance).eigenvectors().col(0);
}

void compute_normals(SampledCloud& samples, float radius) {
    parallel_ranges(default_thread_number(), samples.size(), GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Vector3f normal = plane_normal(samples, samples.points[i], radius);
            const Vector3d position = samples.points[i].cast<double>() + samples.centroid;
            samples.normals[i] = normal.cast<double>().dot(position) > 0.0 ? Vector3f(-normal) : normal;
        }
    });
}

}  // namespace

bool sample_uniformly(const Cloud& cloud, const SamplingSettings& settings, SampledCloud& samples) {
    CubeGrid grid(settings.spacing);
    for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
        if (!counts(cloud, i)) continue;
        grid.add(cloud, i);
        if (grid.cubes().size() > settings.mostSamples) return false;
    }
    SampledCloud result;
    take_samples(grid.cubes(), cloud.is_enable_vNormal(), result);
    result.tree = PointTree(result.points);
    if (!cloud.is_enable_vNormal()) compute_normals(result, settings.normalRadius);
    samples = std::move(result);
    return true;
}

}  // namespace VexelAlgorithm
