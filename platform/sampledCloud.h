// Uniform samples of a cloud. Internal to the library.
#pragma once

#include <cstddef>
#include <vector>

#include "foundation/Cloud.h"
#include "platform/pointTree.h"

namespace VexelAlgorithm {

/// Samples of a surface with unit normals, in mm relative to their centroid, so that rotations keep their precision
/// however far from the origin the cloud lies.
struct SampledCloud {
    Vector3d centroid = Vector3d::Zero();  ///< in the coordinates of the cloud
    std::vector<Vector3f> points;
    std::vector<Vector3f> normals;
    PointTree tree;  ///< over the points

    std::size_t size() const { return points.size(); }
};

struct SamplingSettings {
    float spacing = 1.0F;       ///< edge of the cubes of which each gives one sample, mm
    float normalRadius = 1.0F;  ///< neighbourhood of a computed normal, mm
    std::size_t mostSamples = 100000;
};

/// The mean point and the mean normal of every cube that holds points. Points that are not finite, marked deleted,
/// (0, 0, 0) or farther than 2^18 spacings from the origin do not count, nor do those without a normal in a cloud that
/// has them enabled. Without normals, those of the planes through the samples within `normalRadius`, turned to the
/// origin of the cloud's coordinates. False, and `samples` as it was, as soon as there are more than `mostSamples`.
bool sample_uniformly(const Cloud& cloud, const SamplingSettings& settings, SampledCloud& samples);

}  // namespace VexelAlgorithm
