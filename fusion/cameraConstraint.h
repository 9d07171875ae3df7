// How far a new point agrees with the surface that is already there.
#pragma once

#include <cmath>

#include "fusion/FieldReader.h"
#include "fusion/OffsetCube.h"

namespace VexelAlgorithm {
namespace Fusion {

/// The distance of a point from the fused surface: the trilinear sample, or, where there is none, the value of
/// the nearest used voxel of the neighbourhood, carried on to the point along the point's normal. NaN where
/// nothing is known.
template <class Leaf>
float distance_to_surface(FieldReader<Leaf>& field, const OffsetCube& neighbourhood, const Vector3f& point,
                          const Vector3f& normal) {
    const float sample = field.trilinear_at_point(point);
    if (!std::isnan(sample)) return sample;
    const Vector3i base = field.tree().world_to_voxel(point);
    for (const Vector3i& offset : neighbourhood.voxels) {
        const Vector3i voxel = base + offset;
        if (!field.tree().is_inside(voxel.x(), voxel.y(), voxel.z())) continue;
        const float value = field.value(voxel.x(), voxel.y(), voxel.z());
        if (value != 0.0f) return value + (point - field.tree().voxel_to_world(voxel)).dot(normal);
    }
    return std::numeric_limits<float>::quiet_NaN();
}

/// Factor in [0, 1] for the weight of a point: 1 where nothing is known, else Tukey's biweight of the distance
/// from the fused surface with its end at two voxels.
template <class Leaf>
float surface_agreement(FieldReader<Leaf>& field, const OffsetCube& neighbourhood, const Vector3f& point,
                        const Vector3f& normal) {
    const float distance = distance_to_surface(field, neighbourhood, point, normal);
    if (std::isnan(distance)) return 1.0f;
    const float ratio = distance / (2.0f * field.tree().get_pointDis());
    const float rest = std::max(0.0f, 1.0f - ratio * ratio);
    return rest * rest;
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
