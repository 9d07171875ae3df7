// The search interval of every slot and the points found in it.
#pragma once

#include <vector>

#include "SpeckleRebCPU/ParallaxField.h"
#include "SpeckleRebCPU/StereoGeometry.h"

namespace VexelAlgorithm {

/// One store of the reconstruction: per slot of the sampled grid the depth interval (mm) in which its point is looked
/// for, the parallax facet, and the point and normal that follow from it (rectified-left coordinates, mm). An empty
/// slot has an interval of (0, 0), no parallax, and zero point and normal.
class DepthRange {
public:
    /// Allocates width x height empty slots of `sample` pixels each.
    void ini(int width, int height, int sample, const StereoGeometry& geometry);
    /// Empties every slot; a store that was never allocated says so in a line.
    void set_zero();
    /// Whether `parallax_range_convert_to_depth_range` has been called since `ini` or `set_zero`.
    bool has_range() const { return _hasRange; }

    /// Intervals of `margin` pixels to both sides of the given parallaxes (full-size pixels; NaN for none), clipped
    /// to what lies in front of the cameras. Facets and points are emptied.
    void parallax_range_convert_to_depth_range(const Raster<float>& parallax, float margin);
    /// Starts the facets in the middle of their intervals, seen as parallax, without slopes.
    void facets_from_range();
    /// Slots whose parallax has left its interval get a new one, `margin` pixels to both sides.
    void move_intervals(float margin);
    /// Takes a step of the parallax, but not out of the interval.
    void move_parallax(std::size_t slot, float step);

    /// Smooths the parallax by Gaussian-weighted facets over `reach` pixels to each side, which also yields its slopes.
    /// Sigma in pixels. At most three neighbours to each side are looked at, at least two pixels apart. Depth edges
    /// stay. The parallax of a plane is affine, so a plane stays as it is, and curvature stays where it stands out from
    /// the noise.
    void depth_gaussian_smooth(int reach, float sigma, float tolerance, float slopeTolerance, int threads);
    /// Points from the parallaxes; slots whose point is not in front of the cameras are emptied.
    void update_points(int threads);
    /// Normals from the facets.
    void update_normals(int threads);

    const std::vector<Vector3f>& get_point_vector() const { return _vecPoints; }
    const std::vector<Vector3f>& get_normal_vector() const { return _vecNormal; }
    /// Vectors of another length are refused with a line.
    bool set_point_vector(const std::vector<Vector3f>& vecPoints);
    bool set_normal_vector(const std::vector<Vector3f>& vecNormal);

    ParallaxField& field() { return _vecParallax; }
    const ParallaxField& field() const { return _vecParallax; }
    const StereoGeometry& geometry() const { return _geometry; }
    int width() const { return _width; }
    int height() const { return _height; }
    int sample() const { return _sample; }
    float near_depth(std::size_t slot) const { return _near[slot]; }
    float far_depth(std::size_t slot) const { return _far[slot]; }

private:
    void set_interval(std::size_t slot, double parallax, double margin);

    int _width = 0;
    int _height = 0;
    int _sample = 1;
    StereoGeometry _geometry;
    bool _hasRange = false;
    std::vector<float> _near, _far;  ///< mm
    ParallaxField _vecParallax;
    std::vector<Vector3f> _vecPoints;
    std::vector<Vector3f> _vecNormal;
};

}  // namespace VexelAlgorithm
