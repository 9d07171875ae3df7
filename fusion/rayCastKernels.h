// The work for one ray: finding the surface, and its normal.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "foundation/PointImage.h"
#include "fusion/FieldReader.h"
#include "fusion/FusionTsdf.h"
#include "fusion/ImageTiles.h"
#include "fusion/rayMarch.h"

namespace VexelAlgorithm {
namespace Fusion {

/// The viewing rays of an image in model coordinates. A ray is the sum of a column's and a row's vector, divided
/// by the length that it has in the camera.
class RayTable {
public:
    RayTable(const PointImage& image, const RigidMatrix& pose) {
        const auto on_ray = [&](int x, int y) {
            Vector3d point;
            image.get_camPar().depth_to_point(
                1.0, Vector2d(x + double{image.get_viewRadialX()}, y + double{image.get_viewRadialY()}), point);
            return point;
        };
        for (int x = 0; x < image.get_image_width(); ++x) {
            const double slope = on_ray(x, 0).x();
            _columns.push_back(entry(pose.get_rotation() * Vector3d(slope, 0.0, 0.0), slope * slope));
        }
        for (int y = 0; y < image.get_image_height(); ++y) {
            const double slope = on_ray(0, y).y();
            _rows.push_back(entry(pose.get_rotation() * Vector3d(0.0, slope, 1.0), slope * slope + 1.0));
        }
    }

    /// Unit direction (as the rotation leaves it) through pixel slot (x, y); the fourth number is of no use.
    VoxelPosition direction(int x, int y) const {
        const VoxelPosition sum = _columns[static_cast<std::size_t>(x)] + _rows[static_cast<std::size_t>(y)];
        return sum / std::sqrt(sum[3]);
    }

private:
    // The fourth number is the share of the squared length.
    static VoxelPosition entry(const Vector3d& v, double squared) {
        return {static_cast<float>(v.x()), static_cast<float>(v.y()), static_cast<float>(v.z()),
                static_cast<float>(squared)};
    }

    std::vector<VoxelPosition, Eigen::aligned_allocator<VoxelPosition>> _columns;
    std::vector<VoxelPosition, Eigen::aligned_allocator<VoxelPosition>> _rows;
};

/// Places a point in a slot where its ray passes from in front of the surface to behind it.
template <class Leaf>
class rayCastPoint {
public:
    rayCastPoint(const FusionTsdf<Leaf>& volume, const PointImage& guide, const RigidMatrix& pose, PointImage& result,
                 bool guided, const Vector2f& nearFar, float intervalFactor)
        : _tree(volume.get_fusion_tree()),
          _guide(guide),
          _result(result),
          _rays(result, pose),
          _guided(guided),
          _nearFar(nearFar),
          _origin(static_cast<float>(pose.get_translation().x()), static_cast<float>(pose.get_translation().y()),
                  static_cast<float>(pose.get_translation().z()), 0.0f),
          _step(static_cast<float>(0.5 * static_cast<double>(volume.get_pointDis()))),
          _halfInterval(_step * intervalFactor),
          _validEnd(static_cast<float>(_tree.get_size() - 2)),
          _skipMargin(rounding_margin(static_cast<float>(_tree.get_size()))),
          _bundle(bundle()),
          _castRays(best_cast_rays()) {}

    /// What a worker keeps from tile to tile: what it has read, and rays that wait to be cast together.
    struct Worker {
        static constexpr std::size_t MaxRays = 1024;

        explicit Worker(const VexelOctree::Octree<Leaf>& tree) : field(tree) {}

        FieldReader<Leaf> field;
        MarchRay rays[MaxRays];
        std::size_t slots[MaxRays];
        std::size_t rayCount = 0;
    };

    /// Casts the rays of a tile's slots.
    void operator()(Worker& worker, const ImageTile& tile) const {
        tile.for_each_pixel([&](int x, int y) { _result.set_vCoord(_result.index_of(x, y), Vector3f::Zero()); });
        if (_guided) {
            tile.for_each_pixel([&](int x, int y) {
                MarchRay ray;
                if (find_guided_interval(_guide.get_vCoord(_result.index_of(x, y)), ray)) add_ray(worker, ray, x, y);
            });
        } else {
            cast_from_afar(worker, tile, 0.0f);
        }
        cast(worker);
    }

private:
    RayBundle bundle() const {
        const Vector3f& shift = _tree.get_shift();
        return {{_origin[0], _origin[1], _origin[2]},
                {shift[0], shift[1], shift[2]},
                _tree.get_pointDis(),
                _step,
                _validEnd,
                _guided};
    }

    bool find_guided_interval(const Vector3f& seen, MarchRay& ray) const {
        if (!(seen.z() >= 1e-5f)) return false;
        const float distance = seen.norm();
        ray.start = distance - _halfInterval;
        ray.end = distance + _halfInterval;
        return ray.start <= ray.end;
    }

    void add_ray(Worker& worker, const MarchRay& interval, int x, int y) const {
        if (worker.rayCount == Worker::MaxRays) cast(worker);
        MarchRay& ray = worker.rays[worker.rayCount];
        ray = interval;
        const VoxelPosition direction = _rays.direction(x, y);
        std::copy_n(direction.data(), 3, ray.direction);
        worker.slots[worker.rayCount++] = _result.index_of(x, y);
    }

    /// Casts the waiting rays.
    void cast(Worker& worker) const {
        float lengths[Worker::MaxRays];
        _castRays(_bundle, worker.field.bricks(), worker.rays, worker.rayCount, lengths);
        for (std::size_t i = 0; i < worker.rayCount; ++i) {
            if (std::isnan(lengths[i])) continue;
            const float* direction = worker.rays[i].direction;
            _result.set_vCoord(worker.slots[i],
                               Vector3f(_origin[0] + lengths[i] * direction[0], _origin[1] + lengths[i] * direction[1],
                                        _origin[2] + lengths[i] * direction[2]));
        }
        worker.rayCount = 0;
    }

    /// A beam around all rays of the tile is followed as far as it meets nothing, then those of its quarters, then
    /// the rays alone (S. Laine and T. Karras, "Efficient sparse voxel octrees", I3D 2010). Up to `freeLength` the
    /// beam is known to be free.
    void cast_from_afar(Worker& worker, const ImageTile& tile, float freeLength) const {
        freeLength = follow_beam(worker.field, tile, freeLength);
        if (tile.is_wider_than(SmallestTile)) {
            for_each_quarter(tile, [&](const ImageTile& quarter) { cast_from_afar(worker, quarter, freeLength); });
            return;
        }
        tile.for_each_pixel([&](int x, int y) {
            MarchRay ray;
            clip_to_volume(worker.field, _rays.direction(x, y), ray);
            if (!(ray.start <= ray.end) || freeLength > ray.end) return;
            // The samples before this one lie in the free part.
            const float freeSamples = std::min((freeLength - ray.start) / _step - 1.0f, 1e7f);
            ray.firstSample = freeSamples > 0.0f ? static_cast<int>(freeSamples) : 0;
            add_ray(worker, ray, x, y);
        });
    }

    /// Ray lengths before and behind which no ray from the origin is in the volume.
    Vector2f lengths_to_reach_and_leave() const {
        const float halfSize = 0.5f * static_cast<float>(_tree.get_size()) * _tree.get_pointDis();
        const Vector3f centre = _tree.get_shift() + Vector3f::Constant(halfSize);
        const float distance = (centre - Vector3f(_origin[0], _origin[1], _origin[2])).norm();
        return {distance - 2.0f * halfSize, distance + 2.0f * halfSize};
    }

    /// The ray length, not below `from`, up to which no ray of the tile meets a filled cell of the top grid.
    float follow_beam(const FieldReader<Leaf>& field, const ImageTile& tile, float from) const {
        const VoxelPosition corners[4] = {_rays.direction(tile.x0, tile.y0), _rays.direction(tile.x1 - 1, tile.y0),
                                          _rays.direction(tile.x0, tile.y1 - 1),
                                          _rays.direction(tile.x1 - 1, tile.y1 - 1)};
        const VoxelPosition centre = 0.25f * (corners[0] + corners[1] + corners[2] + corners[3]);
        float spread = 0.0f;  // radius of the beam per ray length
        for (const VoxelPosition& corner : corners)
            spread = std::max(spread, (corner - centre).head<3>().matrix().norm());
        // Unit directions bulge between the corners, by less than the square of their distance.
        spread += spread * spread;

        const float pointDis = field.pointDis();
        const Vector2f volume = lengths_to_reach_and_leave();
        const float end = std::min(_nearFar.y(), volume.y());
        float free = std::max(from, volume.x());
        // Also ends where lengths are so large that a stride adds nothing, and for an end that is not a number.
        for (float stride = (from > 0.0f ? 16.0f : 64.0f) * pointDis; stride > 3.0f * pointDis && free < end;) {
            const float next = free + stride;
            if (!(next > free)) break;
            const VoxelPosition a = field.in_voxels(VoxelPosition(_origin + free * centre));
            const VoxelPosition b = field.in_voxels(VoxelPosition(_origin + next * centre));
            const float reach = next * spread / pointDis + 1.0f;
            if (is_box_empty(a.min(b) - reach, a.max(b) + reach)) {
                free = next;
            } else {
                stride *= 0.5f;
            }
        }
        return free;
    }

    bool is_box_empty(const VoxelPosition& low, const VoxelPosition& high) const {
        // Clamped before the conversion; a NaN counts as filled.
        const float end = _validEnd + 2.0f;
        if (!((low == low).all() && (high == high).all())) return false;
        const auto voxel = [&](const VoxelPosition& q) {
            return Vector3i(q.max(-1.0f).min(end).floor().template head<3>().template cast<int>());
        };
        return _tree.is_box_empty(voxel(low), voxel(high));
    }

    /// The interval from near to far, its start moved forward to where the ray enters the box of valid positions (slab
    /// test), a hundredth of a voxel inside so that rounding leaves the first position valid. Empty for a ray that
    /// misses the box.
    void clip_to_volume(const FieldReader<Leaf>& field, const VoxelPosition& rayDirection, MarchRay& ray) const {
        const VoxelPosition origin = field.in_voxels(_origin);
        const VoxelPosition direction = rayDirection / _tree.get_pointDis();
        const float low = 1.0f + _skipMargin, high = _validEnd - _skipMargin;
        float enter = _nearFar.x(), leave = _nearFar.y();
        for (int axis = 0; axis < 3; ++axis) {
            if (direction[axis] == 0.0f) {
                if (!(origin[axis] >= low && origin[axis] <= high)) leave = -std::numeric_limits<float>::infinity();
                continue;
            }
            const float a = (low - origin[axis]) / direction[axis], b = (high - origin[axis]) / direction[axis];
            enter = std::max(enter, std::min(a, b));
            leave = std::min(leave, std::max(a, b));
        }
        ray.start = enter;
        ray.end = enter <= leave ? _nearFar.y() : -std::numeric_limits<float>::infinity();
    }

    static constexpr int SmallestTile = 8;

    const VexelOctree::Octree<Leaf>& _tree;
    const PointImage& _guide;
    PointImage& _result;
    RayTable _rays;
    bool _guided;
    Vector2f _nearFar;
    VoxelPosition _origin;
    float _step;
    float _halfInterval;
    float _validEnd;
    float _skipMargin;
    RayBundle _bundle;
    CastRays _castRays;
};

/// The normal of a slot's point from the gradient of the field.
template <class Leaf>
class rayCastNormal {
public:
    /// `distance`: half-width of the central differences in mm; one voxel when it is not a positive number.
    rayCastNormal(const FusionTsdf<Leaf>& volume, const RigidMatrix& pose, PointImage& result, float distance)
        : _camera(pose.get_translation().cast<float>()),
          _result(result),
          _reach(std::isfinite(distance) && distance > 0.0f ? distance : volume.get_pointDis()) {}

    /// Makes the normals of a tile's slots: zero where the field is not known on both sides of the point along some
    /// axis.
    using Worker = FieldReader<Leaf>;

    void operator()(Worker& field, const ImageTile& tile) const {
        tile.for_each_pixel([&](int x, int y) { make_normal(field, _result.index_of(x, y)); });
    }

private:
    void make_normal(Worker& field, std::size_t slot) const {
        _result.set_vNrv(slot, Vector3f::Zero());
        if (!_result.has_point(slot)) return;
        const Vector3f& point = _result.get_vCoord(slot);
        Vector3f gradient;
        for (int axis = 0; axis < 3; ++axis) {
            const Vector3f step = _reach * Vector3f::Unit(axis);
            gradient[axis] = field.trilinear_at_point(point + step) - field.trilinear_at_point(point - step);
        }
        const float length = gradient.norm();
        if (!(length > 0.0f) || !std::isfinite(length)) return;
        const Vector3f normal = gradient / length;
        _result.set_vNrv(slot, normal.dot(_camera - point) < 0.0f ? Vector3f(-normal) : normal);
    }

    Vector3f _camera;
    PointImage& _result;
    float _reach;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
