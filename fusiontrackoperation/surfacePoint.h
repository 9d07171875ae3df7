// The surface in one cell of the volume.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>

#include "fusion/FieldReader.h"

namespace VexelAlgorithm {

/// Model coordinates (mm); the normal has unit length and points to where distances are positive, out of the surface.
struct SurfacePoint {
    Vector3f point = Vector3f::Zero();
    Vector3f normal = Vector3f::Zero();
};

namespace cell {

/// The eight values at the corners of a cell; corner x + 2 y + 4 z. Values below 1e-6 in size are unknown.
using Corners = std::array<float, 8>;

inline bool is_known(float value) {
    return std::abs(value) >= 1e-6F;
}

/// Whether there are known values of both signs; most cells of a changed region fail here.
inline bool has_both_signs(const Corners& values) {
    float low = 0.0F, high = 0.0F;
    for (const float value : values) {
        low = std::min(low, value);
        high = std::max(high, value);
    }
    return low <= -1e-6F && high >= 1e-6F;
}

/// The surface point relative to corner 0, in voxels: the mean of the crossings on the cell's edges, as in S. Gibson,
/// "Constrained elastic surface nets", MICCAI 1998, without the relaxation. Exact on planes. The normal is the mean
/// difference of the values along the known edges of each axis. None with fewer than three crossings.
inline std::optional<SurfacePoint> find_surface(const Corners& values) {
    Vector3f crossings = Vector3f::Zero(), gradient = Vector3f::Zero();
    int crossingCount = 0;
    for (int axis = 0; axis < 3; ++axis) {
        float rise = 0.0F;
        int known = 0;
        for (int corner = 0; corner < 8; ++corner) {
            if ((corner >> axis & 1) != 0) continue;
            const float low = values[static_cast<std::size_t>(corner)];
            const float high = values[static_cast<std::size_t>(corner | 1 << axis)];
            if (!is_known(low) || !is_known(high)) continue;
            rise += high - low;
            ++known;
            if (!((low < 0.0F) != (high < 0.0F))) continue;
            const Vector3f start(static_cast<float>(corner & 1), static_cast<float>(corner >> 1 & 1),
                                 static_cast<float>(corner >> 2));
            crossings += start + low / (low - high) * Vector3f::Unit(axis);
            ++crossingCount;
        }
        if (known > 0) gradient[axis] = rise / static_cast<float>(known);
    }
    const float steepness = gradient.norm();
    if (crossingCount < 3 || !(steepness > 0.0F) || !std::isfinite(steepness)) return std::nullopt;
    return SurfacePoint{crossings / static_cast<float>(crossingCount), gradient / steepness};
}

}  // namespace cell

/// The surface in the cell between the centre of a leaf's voxel and those of its upper neighbours. Every cell that the
/// surface passes has one point, and no two leaves share one. The leaf must have been handed out.
template <class Leaf>
std::optional<SurfacePoint> find_surface_point(Fusion::FieldReader<Leaf>& field, std::int32_t leaf) {
    const auto& tree = field.tree();
    const Vector3i voxel = tree.leaf_coordinates(leaf);
    if (!tree.is_inside(voxel.x() + 1, voxel.y() + 1, voxel.z() + 1)) return std::nullopt;
    cell::Corners values;
    for (int corner = 0; corner < 8; ++corner) {
        values[static_cast<std::size_t>(corner)] =
            field.value(voxel.x() + (corner & 1), voxel.y() + (corner >> 1 & 1), voxel.z() + (corner >> 2));
    }
    if (!cell::is_known(values[0]) || !cell::has_both_signs(values)) return std::nullopt;
    std::optional<SurfacePoint> surface = cell::find_surface(values);
    if (surface) surface->point = tree.voxel_to_world(voxel) + tree.get_pointDis() * surface->point;
    return surface;
}

}  // namespace VexelAlgorithm
