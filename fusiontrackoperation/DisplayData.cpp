#include "fusiontrackoperation/DisplayData.h"

#include <algorithm>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

// A worker starts with an empty cache.
constexpr std::size_t MIN_LEAVES_PER_TASK = 4096;

bool is_confirmed(const SessionVolume& volume, std::int32_t leaf) {
    return volume.get_fusion_tree().leaf_at(leaf).count() >= DisplayData::ConfirmedContributions;
}

}  // namespace

LeafPoints::LeafPoints(const Vector3f& color) : _color(color) {
    _cloud.enable_vNormal();
    _cloud.enable_vColor();
}

void LeafPoints::set(std::int32_t leaf, const SurfacePoint& surface) {
    _ranks.grow_to(leaf);
    std::int32_t& rank = _ranks[leaf];
    if (rank == 0) {
        _leaves.push_back(leaf);
        rank = static_cast<std::int32_t>(_cloud.add_vCoord(surface.point)) + 1;
    }
    const auto point = static_cast<std::size_t>(rank - 1);
    _cloud.set_vCoord(point, surface.point);
    _cloud.set_vNrv(point, surface.normal);
    _cloud.set_vColor(point, _color);
}

void LeafPoints::remove(std::int32_t leaf) {
    if (leaf >= _ranks.size() || _ranks[leaf] == 0) return;
    const auto hole = static_cast<std::size_t>(_ranks[leaf] - 1), last = _cloud.get_vn() - 1;
    _cloud.set_vCoord(hole, _cloud.get_vCoord(last));
    _cloud.set_vNrv(hole, _cloud.get_vNrv(last));
    _leaves[hole] = _leaves[last];
    _ranks[_leaves[hole]] = static_cast<std::int32_t>(hole) + 1;
    _ranks[leaf] = 0;
    _cloud.resize_vn(last);
    _leaves.pop_back();
}

void LeafPoints::clear() {
    _cloud.clear();
    _leaves.clear();
    _ranks.clear();
}

DisplayData::DisplayData(const Vector3f& color) : _points(color), _confirmed(color) {}

void DisplayData::find_points(SessionVolume& volume, const Fusion::ChangedLeaves& changedLeaves) {
    _found.resize(changedLeaves.size());
    const auto threads = static_cast<std::size_t>(usable_threads(volume.get_code_Num()));
    auto& tree = volume.get_fusion_tree();
    parallel_ranges(volume.get_code_Num(), _found.size(), std::max(MIN_LEAVES_PER_TASK, _found.size() / (4 * threads)),
                    [&](std::size_t begin, std::size_t end) {
                        Fusion::FieldReader<Fusion::LeafTSDFSpeckle> field(tree);
                        for (std::size_t i = begin; i < end; ++i) {
                            _found[i] = find_surface_point(field, changedLeaves[i]);
                            tree.leaf_at(changedLeaves[i]).changed = 0;
                        }
                    });
}

void DisplayData::update(SessionVolume& volume, Fusion::ChangedLeaves& changedLeaves) {
    find_points(volume, changedLeaves);
    for (std::size_t i = 0; i < _found.size(); ++i) {
        const std::int32_t leaf = changedLeaves[i];
        if (_found[i]) {
            _points.set(leaf, *_found[i]);
        } else {
            _points.remove(leaf);
        }
        if (!_keepsConfirmed) continue;
        if (_found[i] && is_confirmed(volume, leaf)) {
            _confirmed.set(leaf, *_found[i]);
        } else {
            _confirmed.remove(leaf);
        }
    }
    changedLeaves.clear();
}

const Cloud& DisplayData::confirmed_points(const SessionVolume& volume) {
    if (_keepsConfirmed) return _confirmed.cloud();
    const Cloud& all = _points.cloud();
    for (std::size_t i = 0; i < all.get_vn(); ++i) {
        const std::int32_t leaf = _points.leaf_of(i);
        if (is_confirmed(volume, leaf)) _confirmed.set(leaf, {all.get_vCoord(i), all.get_vNrv(i)});
    }
    _keepsConfirmed = true;
    return _confirmed.cloud();
}

void DisplayData::clear() {
    _points.clear();
    _confirmed.clear();
    _keepsConfirmed = false;
    _shift.setZero();
}

}  // namespace VexelAlgorithm
