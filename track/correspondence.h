// What one moving point contributes: its partner in the fixed image, their geometry, their row of the system.
#pragma once

#include <cmath>
#include <cstdint>

#include "track/FixedImage.h"
#include "track/normalEquations.h"
#include "track/projection.h"

namespace VexelAlgorithm {
namespace Track {

// The plain form, one point at a time; `correspondenceKernels.h` runs it over many.

enum CorrMode : std::int32_t {
    AtPixel = 0,  ///< the partner is the fixed pixel as it is
    InBlock = 1,  ///< the partner is interpolated in the 2 x 2 block whose top left is the fixed index
};

struct Correspondence {
    std::int32_t fixedIndex;   ///< slot of the pixel, or of the block's top left
    std::int32_t movingEntry;  ///< entry of the list of usable moving points
    CorrMode mode;
    std::int32_t pixel;  ///< slot that the point projects to
    float distance;      ///< point-to-plane distance at that slot, mm
};

enum class Association { Rejected, OutOfMap, Found };

/// Signed point-to-plane distance (q - p) . n at a usable slot, mm.
inline float plane_offset(const ProjectedPoint& p, const FixedImage& fixed, std::int32_t slot) {
    const FixedImage::Point& q = fixed.points()[slot];
    const FixedImage::Normal& n = fixed.normals()[slot];
    return ((q.x - p.x) * n.x + (q.y - p.y) * n.y) + (q.z - p.z) * n.z;
}

/// Projects the point and looks up its partner. Rejected: behind the camera or nearer than `ImageBorder` pixels to the
/// edge of the image, pixel not usable, distance above the gate (mm). Out of the map: in view, but the view radial
/// puts its slot outside the image.
inline Association find_correspond(const MovingPoint& moving, std::int32_t entry, const FloatPose& pose,
                                   const FixedImage& fixed, float gate, Correspondence& found) {
    const SlotCamera& camera = fixed.camera();
    const ProjectedPoint p = project(moving, pose, camera);
    if (!is_in_view(p, camera)) return Association::Rejected;
    const SlotPosition nearest = nearest_slot(p, camera);
    if (!nearest.is_inside(camera)) return Association::OutOfMap;
    const std::int32_t pixel = nearest.index(camera);
    if (!fixed.is_usable(static_cast<std::size_t>(pixel))) return Association::Rejected;
    const float distance = std::abs(plane_offset(p, fixed, pixel));
    if (!(distance <= gate)) return Association::Rejected;

    const SlotPosition block = block_position(p, camera);
    const bool isInBlock =
        block.x > -1.0F && block.y > -1.0F && fixed.is_block_usable(static_cast<std::size_t>(block.index(camera)));
    found = {isInBlock ? block.index(camera) : pixel, entry, isInBlock ? InBlock : AtPixel, pixel, distance};
    return Association::Found;
}

inline float interpolate(float a, float b, float fraction) {
    return a + fraction * (b - a);
}

/// The plane that a correspondence pulls its point to: the unit normal (as given in mode 0) and the offset (q - p) . n
/// (mm). In mode 1, q is the point of the moving point's own viewing ray at the interpolated inverse depth, which
/// is linear over the image of a plane.
struct TangentPlane {
    float nx, ny, nz;
    float offset;
    float depth;  ///< of q in mode 1, mm
};

inline TangentPlane tangent_plane(const ProjectedPoint& p, const Correspondence& c, const FixedImage& fixed) {
    const FixedImage::Normal* n = fixed.normals() + c.fixedIndex;
    if (c.mode == AtPixel) return {n->x, n->y, n->z, plane_offset(p, fixed, c.fixedIndex), 0.0F};

    const SlotCamera& camera = fixed.camera();
    const SlotPosition block = block_position(p, camera);
    const float fx = block.x - std::trunc(block.x);
    const float fy = block.y - std::trunc(block.y);
    const FixedImage::Normal* below = n + camera.width;
    const auto in_block = [&](float FixedImage::Normal::*value) {
        return interpolate(interpolate(n[0].*value, n[1].*value, fx), interpolate(below[0].*value, below[1].*value, fx),
                           fy);
    };
    TangentPlane plane{in_block(&FixedImage::Normal::x), in_block(&FixedImage::Normal::y),
                       in_block(&FixedImage::Normal::z), 0.0F, 1.0F / in_block(&FixedImage::Normal::inverseDepth)};
    const float norm = std::sqrt((plane.nx * plane.nx + plane.ny * plane.ny) + plane.nz * plane.nz);
    const float scale = norm > 0.0F ? 1.0F / norm : 0.0F;  // normals that cancel each other say nothing
    plane.nx *= scale;
    plane.ny *= scale;
    plane.nz *= scale;
    plane.offset = (plane.depth - p.z) * ((p.rayX * plane.nx + p.rayY * plane.ny) + plane.nz);
    return plane;
}

/// Both points and the normal of a correspondence, relative to the centre of the fixed image.
inline CorrPoint get_corrPoint(const ProjectedPoint& p, const Correspondence& c, const FixedImage& fixed) {
    const Vector3f centre = fixed.centre().cast<float>();
    const TangentPlane plane = tangent_plane(p, c, fixed);
    const FixedImage::Point& q = fixed.points()[c.fixedIndex];
    const Vector3f partner =
        c.mode == AtPixel ? Vector3f(q.x, q.y, q.z) : Vector3f(p.rayX * plane.depth, p.rayY * plane.depth, plane.depth);
    return {partner - centre, {plane.nx, plane.ny, plane.nz}, Vector3f(p.x, p.y, p.z) - centre};
}

/// The weight multiplies row and right-hand side, and so enters the sums squared.
inline SystemRow system_row(const ProjectedPoint& p, const TangentPlane& plane, float weight, const Vector3f& centre) {
    const float mx = p.x - centre.x(), my = p.y - centre.y(), mz = p.z - centre.z();
    SystemRow row;
    row.a[0] = weight * (my * plane.nz - mz * plane.ny);
    row.a[1] = weight * (mz * plane.nx - mx * plane.nz);
    row.a[2] = weight * (mx * plane.ny - my * plane.nx);
    row.a[3] = weight * plane.nx;
    row.a[4] = weight * plane.ny;
    row.a[5] = weight * plane.nz;
    row.r = weight * plane.offset;
    return row;
}

/// Nearer correspondences (mm) say nothing that rounding does not.
constexpr float CoincidentDistance = 1e-5F;
inline bool is_in_system(float distance, float disCut) {
    return distance <= disCut && distance >= CoincidentDistance;
}

/// Adds one correspondence to the system. The cut holds for the offset that enters it as well: where a block spans a
/// depth edge, the interpolated surface floats between foreground and background, and few such rows, whose pixels agree
/// well, would outweigh all others.
inline void getmat_tbb(const MovingPoint& moving, const FloatPose& pose, const Correspondence& c,
                       const FixedImage& fixed, float disCut, NormalEquations& system) {
    if (!is_in_system(c.distance, disCut)) return;
    const ProjectedPoint p = project(moving, pose, fixed.camera());
    const TangentPlane plane = tangent_plane(p, c, fixed);
    if (!(std::abs(plane.offset) <= disCut)) return;
    system.add(system_row(p, plane, moving.weight, fixed.centre().cast<float>()));
}

/// Which points `measure_residual` counts.
struct ResidualRule {
    int border;             ///< slots to the edges of the image, after rounding
    float largestDistance;  ///< point to point, mm
    float largestOffset;    ///< point to plane, mm
};

/// The point-to-plane distance (mm) of a point from the usable slot that it projects to.
inline Association measure_residual(const MovingPoint& moving, const FloatPose& pose, const FixedImage& fixed,
                                    const ResidualRule& rule, float& distance) {
    const SlotCamera& camera = fixed.camera();
    const ProjectedPoint p = project(moving, pose, camera);
    const SlotPosition nearest = nearest_slot(p, camera);
    if (!(p.z > 0.0F) || !nearest.is_inside(camera, rule.border)) return Association::Rejected;
    const std::int32_t slot = nearest.index(camera);
    if (!fixed.is_usable(static_cast<std::size_t>(slot))) return Association::Rejected;
    const FixedImage::Point& q = fixed.points()[slot];
    const float dx = q.x - p.x, dy = q.y - p.y, dz = q.z - p.z;
    const float far = std::sqrt((dx * dx + dy * dy) + dz * dz);
    distance = std::abs(plane_offset(p, fixed, slot));
    return far <= rule.largestDistance && distance <= rule.largestOffset ? Association::Found : Association::Rejected;
}

}  // namespace Track
}  // namespace VexelAlgorithm
