// What an application draws while it scans.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "foundation/Cloud.h"
#include "fusion/FusionTsdf.h"
#include "fusion/PagedArray.h"
#include "fusiontrackoperation/surfacePoint.h"

namespace VexelAlgorithm {

using SessionVolume = Fusion::FusionTsdf<Fusion::LeafTSDFSpeckle>;

/// Points that belong to leaves, one a leaf at most. Setting and removing cost the same however many there are; the
/// order changes when a point is removed, because the last one takes its place.
class LeafPoints {
public:
    explicit LeafPoints(const Vector3f& color);

    const Cloud& cloud() const { return _cloud; }
    std::int32_t leaf_of(std::size_t point) const { return _leaves[point]; }
    void set(std::int32_t leaf, const SurfacePoint& surface);
    void remove(std::int32_t leaf);
    void clear();

private:
    Vector3f _color;
    Cloud _cloud;                                      // normals and colours enabled
    std::vector<std::int32_t> _leaves;                 // of each point
    VexelOctree::PagedArray<std::int32_t, 17> _ranks;  // of each leaf: index of its point + 1, 0 for none
};

/// The display points of a volume. Guarded by the session's inner lock.
class DisplayData {
public:
    /// A point is confirmed when its leaf has at least so many contributions. The first frame, integrated three
    /// times, is; later surface is from its third sight on.
    static constexpr int ConfirmedContributions = 3;

    explicit DisplayData(const Vector3f& color);

    /// Brings the points of the listed leaves up to date, clears their changed flags and empties the list. A leaf that
    /// has a surface gets a point or moves the one that it has; one whose surface is gone loses its point.
    void update(SessionVolume& volume, Fusion::ChangedLeaves& changedLeaves);

    const Cloud& points() const { return _points.cloud(); }
    /// The confirmed points only. The first call goes over all points, from then on `update` keeps them.
    const Cloud& confirmed_points(const SessionVolume& volume);

    void set_shift(const Vector3f& shift) { _shift = shift; }
    const Vector3f& get_shift() const { return _shift; }
    /// Drops all points and goes back to no shift.
    void clear();

private:
    void find_points(SessionVolume& volume, const Fusion::ChangedLeaves& changedLeaves);

    LeafPoints _points;
    LeafPoints _confirmed;
    bool _keepsConfirmed = false;
    std::vector<std::optional<SurfacePoint>> _found;  // of each listed leaf
    Vector3f _shift = Vector3f::Zero();               // of the volume, for those who place the model in it
};

}  // namespace VexelAlgorithm
