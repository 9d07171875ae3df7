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
    struct Ray {
        VoxelPosition direction;  // unit, model coordinates
        float start, end;         // interval of ray lengths, mm
        std::size_t slot;
    };

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
          _skipMargin(0.01f + static_cast<float>(_tree.get_size()) * 4.0f * std::numeric_limits<float>::epsilon()) {}

    /// What a worker keeps from tile to tile.
    using Worker = FieldReader<Leaf>;

    /// Casts the rays of a tile's slots.
    void operator()(Worker& field, const ImageTile& tile) const {
        tile.for_each_pixel([&](int x, int y) { _result.set_vCoord(_result.index_of(x, y), Vector3f::Zero()); });
        if (!_guided) {
            cast_from_afar(field, tile, 0.0f);
            return;
        }
        tile.for_each_pixel([&](int x, int y) {
            Ray ray{_rays.direction(x, y), 0.0f, 0.0f, _result.index_of(x, y)};
            if (find_guided_interval(ray)) cast(field, ray, 0);
        });
    }

private:
    VoxelPosition at(const Ray& ray, float t) const { return _origin + t * ray.direction; }
    float length_at(const Ray& ray, int n) const { return ray.start + static_cast<float>(n) * _step; }

    bool find_guided_interval(Ray& ray) const {
        const Vector3f& seen = _guide.get_vCoord(ray.slot);
        if (!(seen.z() >= 1e-5f)) return false;
        const float distance = seen.norm();
        ray.start = distance - _halfInterval;
        ray.end = distance + _halfInterval;
        return ray.start <= ray.end;
    }

    /// A beam around all rays of the tile is followed as far as it meets nothing, then those of its quarters, then
    /// the rays alone (S. Laine and T. Karras, "Efficient sparse voxel octrees", I3D 2010). Up to `freeLength` the
    /// beam is known to be free.
    void cast_from_afar(Worker& field, const ImageTile& tile, float freeLength) const {
        freeLength = follow_beam(field, tile, freeLength);
        if (tile.is_wider_than(SmallestTile)) {
            for_each_quarter(tile, [&](const ImageTile& quarter) { cast_from_afar(field, quarter, freeLength); });
            return;
        }
        tile.for_each_pixel([&](int x, int y) {
            Ray ray{_rays.direction(x, y), _nearFar.x(), _nearFar.y(), _result.index_of(x, y)};
            clip_to_volume(field, ray);
            if (!(ray.start <= ray.end) || freeLength > ray.end) return;
            // The samples before this one lie in the free part.
            const float freeSamples = std::min((freeLength - ray.start) / _step - 1.0f, 1e7f);
            cast(field, ray, freeSamples > 0.0f ? static_cast<int>(freeSamples) : 0);
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

    void cast(FieldReader<Leaf>& field, const Ray& ray, int firstSample) const {
        float crossing = 0.0f;
        if (march(field, ray, firstSample, crossing)) refine(field, ray, crossing);
    }

    /// Moves the start forward to where the ray enters the box of valid positions (slab test), a hundredth of a
    /// voxel inside so that rounding leaves the first position valid. A ray that misses the box is emptied.
    void clip_to_volume(const FieldReader<Leaf>& field, Ray& ray) const {
        const VoxelPosition origin = field.in_voxels(_origin);
        const VoxelPosition direction = ray.direction / _tree.get_pointDis();
        const float low = 1.0f + _skipMargin, high = _validEnd - _skipMargin;
        float enter = ray.start, leave = ray.end;
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
        if (!(enter <= leave)) ray.end = -std::numeric_limits<float>::infinity();
    }

    /// Goes along the ray by half voxels, sample n at ray length start + n s, until a positive value is followed
    /// by a negative one; `crossing` is the ray length of the positive one. Samples that are sure to read 0,
    /// because they lie in an empty node of the octree, are passed over when the ray may be long.
    bool march(FieldReader<Leaf>& field, const Ray& ray, int first, float& crossing) const {
        VoxelPosition stepsPerVoxel = VoxelPosition::Zero();
        if (!_guided) stepsPerVoxel = count_steps_per_voxel(ray);
        float previous = 0.0f;
        for (int n = first;;) {
            if (!_guided && previous == 0.0f) {
                const int empty = count_empty_samples(field, ray, stepsPerVoxel, n);
                if (empty > 0) {
                    n += empty;
                    if (length_at(ray, n - 1) > ray.end) return false;
                    continue;
                }
            }
            SampleRun run;
            const int samples = read_run(field, ray, n, run);
            for (int k = 0; k < samples; ++k) {
                const float value = field.value(run.x[k], run.y[k], run.z[k]);
                if (previous > 0.0f && value < 0.0f) {
                    crossing = length_at(ray, n - 1);
                    return true;
                }
                previous = value;
                if (run.t[k] > ray.end) return false;
                ++n;
            }
            if (samples == 0) return false;
        }
    }

    /// The voxels of several samples in a row. Their coordinates are worked out together, in vector registers.
    struct SampleRun {
        static constexpr int Length = 8;
        float t[Length];
        int x[Length], y[Length], z[Length];
    };

    /// Fills the run with the samples from n on; returns how many of them are valid before the first that is not.
    int read_run(const FieldReader<Leaf>& field, const Ray& ray, int n, SampleRun& run) const {
        const VoxelPosition shift = field.shift();
        const float pointDis = field.pointDis();
        for (int k = 0; k < SampleRun::Length; ++k) run.t[k] = ray.start + static_cast<float>(n + k) * _step;
        // A ray goes monotonously along each axis: when both ends are valid, so is all between them.
        constexpr int last = SampleRun::Length - 1;
        int valid = SampleRun::Length;
        if (!field.is_in_sample_range(field.in_voxels(at(ray, run.t[0])))) return 0;
        while (!field.is_in_sample_range(field.in_voxels(at(ray, run.t[valid - 1])))) --valid;
        if (valid <= last) {
            for (int k = valid; k <= last; ++k) run.t[k] = run.t[0];
        }
        for (int k = 0; k < SampleRun::Length; ++k) {
            run.x[k] = static_cast<int>((_origin[0] + run.t[k] * ray.direction[0] - shift[0]) / pointDis);
            run.y[k] = static_cast<int>((_origin[1] + run.t[k] * ray.direction[1] - shift[1]) / pointDis);
            run.z[k] = static_cast<int>((_origin[2] + run.t[k] * ray.direction[2] - shift[2]) / pointDis);
        }
        return valid;
    }

    /// Along an axis to which the ray is perpendicular it takes very many steps to the next voxel.
    static VoxelPosition count_steps_per_voxel(const Ray& ray) {
        VoxelPosition steps = VoxelPosition::Zero();
        for (int axis = 0; axis < 3; ++axis) {
            const float perStep = 0.5f * ray.direction[axis];
            steps[axis] = std::abs(perStep) > 1e-30f ? 1.0f / perStep : 1e30f;
        }
        return steps;
    }

    /// How many samples from n on are sure to read 0; 0 when sample n is not valid or may read something.
    int count_empty_samples(const FieldReader<Leaf>& field, const Ray& ray, const VoxelPosition& stepsPerVoxel,
                            int n) const {
        const VoxelPosition q = field.in_voxels(at(ray, length_at(ray, n)));
        if (!field.is_in_sample_range(q)) return 0;
        const VoxelIndex voxel = q.template cast<int>();
        const int bits = _tree.empty_node_bits(voxel[0], voxel[1], voxel[2]);
        return bits == 0 ? 0 : 1 + count_steps_in_node(q, stepsPerVoxel, voxel, bits);
    }

    /// How many further samples are sure to lie in the node of 2^bits voxels around the voxel. Those outside the
    /// valid range may be among them: a ray that has left the range does not come back.
    int count_steps_in_node(const VoxelPosition& q, const VoxelPosition& stepsPerVoxel, const VoxelIndex& voxel,
                            int bits) const {
        float steps = 1e6f;
        for (int axis = 0; axis < 3; ++axis) {
            const bool forward = stepsPerVoxel[axis] > 0.0f;
            const int side = ((voxel[axis] >> bits) + (forward ? 1 : 0)) << bits;
            const float distance = static_cast<float>(side) + (forward ? -_skipMargin : _skipMargin) - q[axis];
            steps = std::min(steps, distance * stepsPerVoxel[axis]);
        }
        return steps > 0.0f ? static_cast<int>(steps) : 0;
    }

    /// Trilinear samples around the crossing: it may lie one step further or one step before the place where
    /// the nearest voxels' values changed their sign.
    void refine(FieldReader<Leaf>& field, const Ray& ray, float t) const {
        const float s = _step;
        const auto sample = [&](float length) { return field.trilinear(field.in_voxels(at(ray, length))); };
        // Comparisons with NaN are false, so a missing sample ends each case.
        const float after = sample(t + s);
        if (after > 0.0f) {
            const float next = sample(t + 2.0f * s);
            if (next < 0.0f && write(ray, (t + s) + s * after / (after - next))) return;
        }
        const float before = sample(t);
        if (before < 0.0f) {
            const float back = sample(t - s);
            if (back > 0.0f && write(ray, (t - s) + s * back / (back - before))) return;
        }
        if (before > 0.0f && after < 0.0f) write(ray, t + s * before / (before - after));
    }

    bool write(const Ray& ray, float t) const {
        const VoxelPosition point = at(ray, t);
        if (std::isnan(point[0])) return false;
        _result.set_vCoord(ray.slot, Vector3f(point[0], point[1], point[2]));
        return true;
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
    float _skipMargin;  // voxels; more than positions can be off by rounding
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
