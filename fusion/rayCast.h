// Renders the fused surface as a point image.
#pragma once

#include "foundation/PointImage.h"
#include "foundation/export.h"
#include "fusion/FusionTsdf.h"

namespace VexelAlgorithm {
namespace Fusion {

/// How `rayCast` makes normals.
struct RayCastNormals {
    /// true: from the pixel neighbourhood of the result, `update_VNrv(step, step + 1, distance)`.
    /// false: from the gradient of the volume, by central differences over `distance` mm to either side (one
    /// voxel when it is not a positive number).
    bool fromImage = true;
    int step = 1;
    float distance = 10.0f;
};

/// Casts one ray a slot of `result` (its camera and size define the rays) through the volume, seen from `pose`,
/// and puts a point where the signed distance passes from positive to negative. The march goes in steps of half
/// a voxel over the nearest voxel's value and ends in a trilinear refinement; after S. Parker et al.,
/// "Interactive ray tracing for isosurface rendering", Visualization 1998.
///
/// guided: search `intervalFactor` half-voxels to either side of the distance at which `guide`, the previous
/// frame in camera coordinates, has its point in the same slot; no guide point, no result point.
/// Unguided: search ray lengths from nearFar.x to nearFar.y (mm), beginning where the ray enters the volume.
///
/// The result is in model coordinates with `pose` stored (`to_ori_coor` brings it to camera coordinates), its
/// normals facing the camera. Returns 0; 2, with three printed lines and the result untouched, when guide and
/// result differ in their number of slots; 2 and one line when the pose is not finite or the result has no
/// usable camera; 4 when memory runs out.
/// Thread-safety: reads the volume only.
template <class Leaf>
int rayCast(const FusionTsdf<Leaf>& volume, const PointImage& guide, const RigidMatrix& pose, PointImage& result,
            bool guided, const Vector2f& nearFar, const RayCastNormals& normals, float intervalFactor);

extern template VEXEL_API_TEMPLATE int rayCast(const FusionTsdf<LeafTSDFSpeckle>&, const PointImage&,
                                               const RigidMatrix&, PointImage&, bool, const Vector2f&,
                                               const RayCastNormals&, float);
extern template VEXEL_API_TEMPLATE int rayCast(const FusionTsdf<LeafTSDFTeeth>&, const PointImage&, const RigidMatrix&,
                                               PointImage&, bool, const Vector2f&, const RayCastNormals&, float);
extern template VEXEL_API_TEMPLATE int rayCast(const FusionTsdf<LeafTSDFCloudGenerator>&, const PointImage&,
                                               const RigidMatrix&, PointImage&, bool, const Vector2f&,
                                               const RayCastNormals&, float);
extern template VEXEL_API_TEMPLATE int rayCast(const FusionTsdf<LeafTSDFLaser>&, const PointImage&, const RigidMatrix&,
                                               PointImage&, bool, const Vector2f&, const RayCastNormals&, float);

}  // namespace Fusion
}  // namespace VexelAlgorithm
