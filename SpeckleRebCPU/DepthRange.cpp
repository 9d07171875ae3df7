#include "SpeckleRebCPU/DepthRange.h"

#include <algorithm>

#include "SpeckleRebCPU/parallaxFacets.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 16;
// Root mean square that curvature must explain, pixels: several times what parallaxes differ by on a smooth surface, as
// those of one window share their errors.
constexpr float FACET_NOISE = 0.057F;

bool is_in_front(double depth) {
    return depth > 0.0 && std::isfinite(depth);
}

template <class Body>
void for_each_slot(int width, int height, int threads, const Body& body) {
    parallel_ranges(threads, static_cast<std::size_t>(height), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y)
            for (int x = 0; x < width; ++x)
                body(x, static_cast<int>(y), y * static_cast<std::size_t>(width) + static_cast<std::size_t>(x));
    });
}

}  // namespace

void DepthRange::ini(int width, int height, int sample, const StereoGeometry& geometry) {
    _width = width;
    _height = height;
    _sample = sample;
    _geometry = geometry;
    _vecParallax.assign(width, height);
    set_zero();
}

void DepthRange::set_zero() {
    if (_vecParallax.parallax.empty()) {
        print_line(" _vecParallax.size() == 0  set_zero");
        return;
    }
    const std::size_t slots = _vecParallax.parallax.size();
    _hasRange = false;
    _near.assign(slots, 0.0F);
    _far.assign(slots, 0.0F);
    _vecParallax.assign(_width, _height);
    _vecPoints.assign(slots, Vector3f::Zero());
    _vecNormal.assign(slots, Vector3f::Zero());
}

void DepthRange::parallax_range_convert_to_depth_range(const Raster<float>& parallax, float margin) {
    set_zero();
    for (std::size_t i = 0; i < parallax.size(); ++i)
        if (has_parallax(parallax[i])) set_interval(i, parallax[i], margin);
    _hasRange = true;
}

void DepthRange::set_interval(std::size_t slot, double parallax, double margin) {
    const double depth = _geometry.depth_of(parallax);
    if (!is_in_front(depth)) return;
    const double ends[2] = {_geometry.depth_of(parallax - margin), _geometry.depth_of(parallax + margin)};
    // Beyond infinity the depth is negative; the interval then ends where the parallax is.
    const double first = is_in_front(ends[0]) ? ends[0] : depth, second = is_in_front(ends[1]) ? ends[1] : depth;
    _near[slot] = static_cast<float>(std::min(first, second));
    _far[slot] = static_cast<float>(std::max(first, second));
}

void DepthRange::move_intervals(float margin) {
    for (std::size_t i = 0; i < _near.size(); ++i) {
        const float parallax = _vecParallax.parallax[i];
        if (!has_parallax(parallax)) continue;
        const double depth = _geometry.depth_of(parallax);
        if (!is_in_front(depth)) {
            _vecParallax.clear_slot(i);
        } else if (!(depth > _near[i] && depth < _far[i])) {
            set_interval(i, parallax, margin);
        }
    }
}

void DepthRange::facets_from_range() {
    _vecParallax.assign(_width, _height);
    for (std::size_t i = 0; i < _near.size(); ++i)
        if (_near[i] > 0.0F)
            _vecParallax.parallax[i] =
                static_cast<float>(0.5 * (_geometry.parallax_of(_near[i]) + _geometry.parallax_of(_far[i])));
}

void DepthRange::move_parallax(std::size_t slot, float step) {
    const auto one = static_cast<float>(_geometry.parallax_of(_near[slot]));
    const auto other = static_cast<float>(_geometry.parallax_of(_far[slot]));
    float& parallax = _vecParallax.parallax[slot];
    parallax = std::clamp(parallax + step, std::min(one, other), std::max(one, other));
}

void DepthRange::depth_gaussian_smooth(int reach, float sigma, float tolerance, float slopeTolerance, int threads) {
    constexpr int MOST_NEIGHBOURS = 3;
    const int widest = MOST_NEIGHBOURS * _sample;
    const int spacing = std::max({1, 2 / _sample, (reach + widest / 2) / widest});
    const int radius = std::clamp(reach / (spacing * _sample), 1, MOST_NEIGHBOURS);
    fit_facets({radius, spacing, sigma / static_cast<float>(spacing * _sample), tolerance, slopeTolerance, FACET_NOISE},
               _sample, threads, _vecParallax);
}

void DepthRange::update_points(int threads) {
    for_each_slot(_width, _height, threads, [&](int x, int y, std::size_t slot) {
        float& parallax = _vecParallax.parallax[slot];
        const Vector3d point =
            has_parallax(parallax) ? _geometry.point(x * _sample, y * _sample, parallax) : Vector3d::Zero();
        if (!is_in_front(point.z())) parallax = NO_PARALLAX;
        _vecPoints[slot] = has_parallax(parallax) ? Vector3f(point.cast<float>()) : Vector3f(Vector3f::Zero());
    });
}

void DepthRange::update_normals(int threads) {
    for_each_slot(_width, _height, threads, [&](int x, int y, std::size_t slot) {
        const float parallax = _vecParallax.parallax[slot];
        _vecNormal[slot].setZero();
        if (!has_parallax(parallax)) return;
        const Vector3d normal =
            _geometry.normal(x * _sample, y * _sample, parallax, _vecParallax.slopeX[slot], _vecParallax.slopeY[slot]);
        if (normal.allFinite()) _vecNormal[slot] = normal.cast<float>();
    });
}

bool DepthRange::set_point_vector(const std::vector<Vector3f>& vecPoints) {
    if (vecPoints.size() != _vecPoints.size()) {
        print_line("vecPoints.size() != _vecPoints.size() in set_point_vector func ");
        return false;
    }
    _vecPoints = vecPoints;
    return true;
}

bool DepthRange::set_normal_vector(const std::vector<Vector3f>& vecNormal) {
    if (vecNormal.size() != _vecNormal.size()) {
        print_line("vecNormal.size() != _vecNormal.size() in set_point_vector func ");
        return false;
    }
    _vecNormal = vecNormal;
    return true;
}

}  // namespace VexelAlgorithm
