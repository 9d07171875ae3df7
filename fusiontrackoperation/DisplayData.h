// What an application draws while it scans.
#pragma once

#include <hwy/cache_control.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "foundation/Cloud.h"
#include "fusion/FusionTsdf.h"
#include "fusion/PagedArray.h"
#include "fusiontrackoperation/LeafColors.h"
#include "fusiontrackoperation/OctetSurfaces.h"

namespace VexelAlgorithm {

using SessionVolume = Fusion::FusionTsdf<Fusion::LeafTSDFSpeckle>;

/// Display points as arrays of one length: the leaf of each, its coordinates (mm, model), unit normal and colour.
struct ShownPoints {
    std::vector<std::int32_t> leaves;
    std::vector<Vector3f> points, normals, colors;
};

/// Points that belong to leaves, one a leaf at most. Setting and removing cost the same however many there are; the
/// order changes when a point is removed, because the last one takes its place.
class LeafPoints {
public:
    explicit LeafPoints(const Vector3f& color);

    const Cloud& cloud() const { return _cloud; }
    const Vector3f& usual_color() const { return _color; }
    const std::vector<std::int32_t>& leaves() const { return _leaves; }
    std::int32_t leaf_of(std::size_t point) const { return _leaves[point]; }
    bool has(std::int32_t leaf) const { return leaf < _ranks.size() && _ranks[leaf] > 0; }
    /// A bit for each leaf of an octet that has a point.
    unsigned shown_of(std::int32_t octet) const;
    /// Asks the memory for what `shown_of` needs.
    void prefetch(std::int32_t octet) const {
        if (OctetCells::Count * octet < _ranks.size()) hwy::Prefetch(&_ranks[OctetCells::Count * octet]);
    }
    /// Moves the point of a leaf that has one. Several threads may move points of different leaves.
    void move(std::int32_t leaf, const SurfacePoint& surface);
    /// The same for its colour, which is that of all points at first.
    void recolor(std::int32_t leaf, const Vector3f& color);
    /// Asks the memory for what `recolor` needs of a leaf that has a point.
    void prefetch_color(std::int32_t leaf) const {
        hwy::Prefetch(&_cloud.get_vColor(static_cast<std::size_t>(_ranks[leaf] - 1)));
    }
    /// Moves the leaf's point or gives it one.
    void set(std::int32_t leaf, const SurfacePoint& surface);
    void remove(std::int32_t leaf);
    void clear();
    /// Takes over other points. False, and no points, when a leaf is not in [0, leafCount) or is there twice.
    bool restore(ShownPoints shown, std::int32_t leafCount);

private:
    Vector3f _color;
    Cloud _cloud;                                      // normals and colours enabled
    std::vector<std::int32_t> _leaves;                 // of each point
    VexelOctree::PagedArray<std::int32_t, 17> _ranks;  // of each leaf: index of its point + 1, 0 for none
};

/// What happens to the leaves of `LeafPoints`, gathered by one worker. Points that only move are moved at once.
class LeafPointChanges {
public:
    /// Of the octet's leaves that changed, those that are wanted get or move their points and the others lose them; a
    /// bit a leaf. They are coloured by the sampler, if there is one.
    void take(LeafPoints& points, const OctetSurface& octet, unsigned changed, unsigned wanted,
              LeafColorSampler* colors);
    /// Makes the changes that alter the number of points, and forgets them.
    void apply_to(LeafPoints& points);

private:
    struct NewPoint {
        std::int32_t leaf;
        SurfacePoint surface;
    };
    std::vector<NewPoint> _appeared;
    std::vector<Vector3f> _appearedColors;  // of these points, or none
    std::vector<std::int32_t> _vanished;
};

/// The octets of listed leaves, each once, in the order of the list.
class OctetList {
public:
    /// `leafCount`: all leaves of the volume.
    void collect(const Fusion::ChangedLeaves& leaves, std::int32_t leafCount);
    void clear();
    std::size_t size() const { return _count; }
    std::int32_t operator[](std::size_t i) const { return _octets[i]; }

private:
    std::vector<std::int32_t> _octets;  // and room behind them
    std::size_t _count = 0;
    std::vector<std::uint64_t> _isListed;  // a bit an octet of the volume
};

/// The display points of a volume. Guarded by the session's inner lock.
class DisplayData {
public:
    /// A point is confirmed when its leaf has at least so many contributions. The first frame, integrated three
    /// times, is; later surface is from its third sight on.
    static constexpr int ConfirmedContributions = 3;

    /// `color` is for places without one in `colors`.
    DisplayData(const Vector3f& color, const LeafColors& colors);

    /// Brings the points of the listed leaves up to date, clears their changed flags and empties the list. A leaf that
    /// has a surface gets a point or moves the one that it has; one whose surface is gone loses its point.
    void update(SessionVolume& volume, Fusion::ChangedLeaves& changedLeaves);

    const Cloud& points() const { return _points.cloud(); }
    const LeafPoints& leaf_points() const { return _points; }
    /// The confirmed points only. The first call goes over all points, from then on `update` keeps them.
    const Cloud& confirmed_points(const SessionVolume& volume);

    void set_shift(const Vector3f& shift) { _shift = shift; }
    const Vector3f& get_shift() const { return _shift; }
    /// Drops all points and goes back to no shift.
    void clear();
    /// Shows these points of a volume whose leaves are all unchanged. False, and nothing is shown, when a leaf is none
    /// of the volume or is there twice.
    bool restore(ShownPoints shown, const SessionVolume& volume);

private:
    /// The changes that one task finds.
    struct TaskChanges {
        LeafPointChanges points, confirmed;
    };
    void find_changes(SessionVolume& volume, std::size_t begin, std::size_t end, TaskChanges& changes);

    const LeafColors& _colors;
    LeafPoints _points;
    LeafPoints _confirmed;
    bool _keepsConfirmed = false;
    OctetList _octets;  // of the leaves that changed
    std::vector<TaskChanges> _tasks;
    Vector3f _shift = Vector3f::Zero();  // of the volume, for those who place the model in it
};

}  // namespace VexelAlgorithm
