// The work for one ray: finding the surface, and its normal.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

#include "foundation/PointImage.h"
#include "fusion/FusionTsdf.h"
#include "fusion/sampleField.h"

namespace VexelAlgorithm {
namespace Fusion {

/// Places a point in a slot where its ray passes from in front of the surface to behind it.
template <class Leaf>
class rayCastPoint {
public:
    rayCastPoint(const FusionTsdf<Leaf>& volume, const PointImage& guide, const RigidMatrix& pose, PointImage& result,
                 bool guided, const Vector2f& nearFar, float intervalFactor)
        : _tree(volume.get_fusion_tree()),
          _guide(guide),
          _pose(pose),
          _result(result),
          _guided(guided),
          _nearFar(nearFar),
          _origin(pose.get_translation().cast<float>()),
          _step(static_cast<float>(0.5 * static_cast<double>(volume.get_pointDis()))),
          _halfInterval(_step * intervalFactor),
          _validEnd(static_cast<float>(_tree.get_size() - 2)),
          _skipMargin(0.01f + static_cast<float>(_tree.get_size()) * 4.0f * std::numeric_limits<float>::epsilon()) {}

    void operator()(OctetCache& cache, std::size_t slot) const {
        _result.set_vCoord(slot, Vector3f::Zero());
        Ray ray;
        float crossing = 0.0f;
        if (!make_ray(slot, ray) || !march(cache, ray, crossing)) return;
        refine(cache, ray, crossing, slot);
    }

private:
    struct Ray {
        Vector3f direction;  // unit, model coordinates
        float start, end;    // interval of ray lengths, mm
    };

    Vector3f at(const Ray& ray, float t) const { return _origin + t * ray.direction; }
    /// Position in voxels.
    Vector3f in_voxels(const Vector3f& point) const { return (point - _tree.get_shift()) / _tree.get_pointDis(); }
    /// Voxel coordinates in [1, size - 2): one voxel narrower at the top than the volume, so that trilinear
    /// samples have their eight voxels. Also false for NaN.
    bool is_valid(const Vector3f& q) const { return q.minCoeff() >= 1.0f && q.maxCoeff() < _validEnd; }

    bool make_ray(std::size_t slot, Ray& ray) const {
        const Vector3f unrotated = _result.get_ray_direct(slot);
        const float length = unrotated.norm();
        ray.direction = _pose.transform_normal(unrotated / length);
        if (_guided) {
            const Vector3f& seen = _guide.get_vCoord(slot);
            if (!(seen.z() >= 1e-5f)) return false;
            const float distance = seen.norm();
            ray.start = distance - _halfInterval;
            ray.end = distance + _halfInterval;
        } else {
            ray.start = length * _nearFar.x();
            ray.end = length * _nearFar.y();
            clip_to_volume(ray);
        }
        return ray.start <= ray.end;
    }

    /// Moves the start forward to where the ray enters the box of valid positions (slab test), a hundredth of a
    /// voxel inside so that rounding leaves the first position valid. A ray that misses the box is emptied.
    void clip_to_volume(Ray& ray) const {
        const Vector3f origin = in_voxels(_origin);
        const Vector3f direction = ray.direction / _tree.get_pointDis();
        float enter = ray.start, leave = ray.end;
        for (int axis = 0; axis < 3; ++axis) {
            const float low = 1.0f + _skipMargin, high = _validEnd - _skipMargin;
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

    /// Goes along the ray by half voxels until a positive value is followed by a negative one; `crossing` is
    /// the ray length of the positive one.
    bool march(OctetCache& cache, const Ray& ray, float& crossing) const {
        Vector3f q = in_voxels(at(ray, ray.start));
        if (!is_valid(q)) return false;
        Vector3i voxel = q.template cast<int>();
        float previous = value_at(cache, voxel);
        float t = ray.start;
        for (int n = 1;; ++n) {
            if (!_guided && previous == 0.0f) {
                const int sure = count_empty_steps(ray, q, voxel);
                n += sure;
            }
            const float next = ray.start + static_cast<float>(n) * _step;
            q = in_voxels(at(ray, next));
            if (!is_valid(q)) return false;
            const Vector3i nextVoxel = q.template cast<int>();
            const float value = nextVoxel == voxel ? previous : value_at(cache, nextVoxel);
            if (previous > 0.0f && value < 0.0f) {
                crossing = t;
                return true;
            }
            previous = value;
            voxel = nextVoxel;
            t = next;
            if (next > ray.end) return false;
        }
    }

    float value_at(OctetCache& cache, const Vector3i& voxel) const {
        return leaf_value(_tree, cache.find(_tree, voxel.x(), voxel.y(), voxel.z()));
    }

    /// How many further samples are sure to read 0 because they lie in the empty node around the voxel.
    int count_empty_steps(const Ray& ray, const Vector3f& q, const Vector3i& voxel) const {
        const int bits = _tree.empty_node_bits(voxel.x(), voxel.y(), voxel.z());
        if (bits == 0) return 0;
        float steps = std::numeric_limits<float>::max();
        for (int axis = 0; axis < 3; ++axis) {
            const float perStep = 0.5f * ray.direction[axis];
            const float low = std::max(1.0f, static_cast<float>((voxel[axis] >> bits) << bits));
            const float high = std::min(_validEnd, static_cast<float>(((voxel[axis] >> bits) + 1) << bits));
            if (perStep > 0.0f) steps = std::min(steps, (high - _skipMargin - q[axis]) / perStep);
            if (perStep < 0.0f) steps = std::min(steps, (low + _skipMargin - q[axis]) / perStep);
        }
        return steps > 0.0f ? static_cast<int>(std::min(steps, 1e7f)) : 0;
    }

    /// Trilinear samples around the crossing: it may lie one step further or one step before the place where
    /// the nearest voxels' values changed their sign.
    void refine(OctetCache& cache, const Ray& ray, float t, std::size_t slot) const {
        const float s = _step;
        const auto sample = [&](float length) { return trilinear_value(_tree, cache, at(ray, length)); };
        // Comparisons with NaN are false, so a missing sample ends each case.
        const float after = sample(t + s);
        if (after > 0.0f) {
            const float next = sample(t + 2.0f * s);
            if (next < 0.0f && write(ray, (t + s) + s * after / (after - next), slot)) return;
        }
        const float before = sample(t);
        if (before < 0.0f) {
            const float back = sample(t - s);
            if (back > 0.0f && write(ray, (t - s) + s * back / (back - before), slot)) return;
        }
        if (before > 0.0f && after < 0.0f) write(ray, t + s * before / (before - after), slot);
    }

    bool write(const Ray& ray, float t, std::size_t slot) const {
        const Vector3f point = at(ray, t);
        if (std::isnan(point.x())) return false;
        _result.set_vCoord(slot, point);
        return true;
    }

    const VexelOctree::Octree<Leaf>& _tree;
    const PointImage& _guide;
    const RigidMatrix& _pose;
    PointImage& _result;
    bool _guided;
    Vector2f _nearFar;
    Vector3f _origin;
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
        : _tree(volume.get_fusion_tree()),
          _camera(pose.get_translation().cast<float>()),
          _result(result),
          _reach(std::isfinite(distance) && distance > 0.0f ? distance : volume.get_pointDis()) {}

    /// Zero where the field is not known on both sides of the point along some axis.
    void operator()(OctetCache& cache, std::size_t slot) const {
        _result.set_vNrv(slot, Vector3f::Zero());
        if (!_result.has_point(slot)) return;
        const Vector3f& point = _result.get_vCoord(slot);
        Vector3f gradient;
        for (int axis = 0; axis < 3; ++axis) {
            const Vector3f step = _reach * Vector3f::Unit(axis);
            gradient[axis] = trilinear_value(_tree, cache, point + step) - trilinear_value(_tree, cache, point - step);
        }
        const float length = gradient.norm();
        if (!(length > 0.0f) || !std::isfinite(length)) return;
        const Vector3f normal = gradient / length;
        _result.set_vNrv(slot, normal.dot(_camera - point) < 0.0f ? Vector3f(-normal) : normal);
    }

private:
    const VexelOctree::Octree<Leaf>& _tree;
    Vector3f _camera;
    PointImage& _result;
    float _reach;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
