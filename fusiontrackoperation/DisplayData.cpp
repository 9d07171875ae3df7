#include "fusiontrackoperation/DisplayData.h"

#include <hwy/base.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

// A task starts with an empty cache.
constexpr std::size_t MIN_OCTETS_PER_TASK = 2048;

bool is_confirmed(const Fusion::LeafTSDFSpeckle& leaf) {
    return leaf.count() >= DisplayData::ConfirmedContributions;
}

// Which leaves of an octet are concerned is hard to foretell: they are counted off as bits instead of asked one by one.

template <class Test>
unsigned leaves_that(const Test& test) {
    unsigned bits = 0;
    for (int code = 0; code < OctetCells::Count; ++code) bits |= static_cast<unsigned>(test(code)) << code;
    return bits;
}

template <class Visit>
void for_each_bit(unsigned bits, const Visit& visit) {
    for (; bits != 0; bits &= bits - 1) visit(static_cast<int>(hwy::Num0BitsBelowLS1Bit_Nonzero32(bits)));
}

}  // namespace

LeafPoints::LeafPoints(const Vector3f& color) : _color(color) {
    _cloud.enable_vNormal();
    _cloud.enable_vColor();
}

unsigned LeafPoints::shown_of(std::int32_t octet) const {
    const std::int32_t first = OctetCells::Count * octet;
    if (first >= _ranks.size()) return 0;
    const std::int32_t* ranks = &_ranks[first];
    return leaves_that([&](int code) { return ranks[code] > 0; });
}

void LeafPoints::move(std::int32_t leaf, const SurfacePoint& surface) {
    const auto point = static_cast<std::size_t>(_ranks[leaf] - 1);
    _cloud.set_vCoord(point, surface.point);
    _cloud.set_vNrv(point, surface.normal);
}

void LeafPoints::recolor(std::int32_t leaf, const Vector3f& color) {
    _cloud.set_vColor(static_cast<std::size_t>(_ranks[leaf] - 1), color);
}

void LeafPoints::set(std::int32_t leaf, const SurfacePoint& surface) {
    _ranks.grow_to(leaf);
    if (_ranks[leaf] == 0) {
        _leaves.push_back(leaf);
        const std::size_t point = _cloud.add_vCoord(surface.point);
        _cloud.set_vColor(point, _color);
        _ranks[leaf] = static_cast<std::int32_t>(point) + 1;
    }
    move(leaf, surface);
}

void LeafPoints::remove(std::int32_t leaf) {
    if (!has(leaf)) return;
    const auto hole = static_cast<std::size_t>(_ranks[leaf] - 1), last = _cloud.get_vn() - 1;
    _cloud.set_vCoord(hole, _cloud.get_vCoord(last));
    _cloud.set_vNrv(hole, _cloud.get_vNrv(last));
    _cloud.set_vColor(hole, _cloud.get_vColor(last));
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

bool LeafPoints::restore(ShownPoints shown, std::int32_t leafCount) {
    clear();
    for (std::size_t i = 0; i < shown.leaves.size(); ++i) {
        const std::int32_t leaf = shown.leaves[i];
        if (leaf < 0 || leaf >= leafCount || has(leaf)) {
            clear();
            return false;
        }
        _ranks.grow_to(leaf);
        _ranks[leaf] = static_cast<std::int32_t>(i) + 1;
    }
    _leaves = std::move(shown.leaves);
    _cloud.set_vCoords(std::move(shown.points));
    _cloud.set_vNrvs(std::move(shown.normals));
    for (std::size_t i = 0; i < shown.colors.size(); ++i) _cloud.set_vColor(i, shown.colors[i]);
    return true;
}

void LeafPointChanges::take(LeafPoints& points, const OctetSurface& octet, unsigned changed, unsigned wanted,
                            LeafColorSampler* colors) {
    const unsigned shown = points.shown_of(octet.number());
    const std::int32_t first = OctetCells::Count * octet.number();
    if (colors != nullptr) {
        for_each_bit(changed & wanted & shown, [&](int code) { points.prefetch_color(first + code); });
    }
    for_each_bit(changed & wanted & shown, [&](int code) { points.move(first + code, octet.point(code)); });
    for_each_bit(changed & wanted & ~shown, [&](int code) { _appeared.push_back({first + code, octet.point(code)}); });
    for_each_bit(changed & ~wanted & shown, [&](int code) { _vanished.push_back(first + code); });
    if (colors == nullptr) return;
    const auto color_of = [&](int code) { return colors->at(octet.point(code).point); };
    for_each_bit(changed & wanted & shown, [&](int code) { points.recolor(first + code, color_of(code)); });
    for_each_bit(changed & wanted & ~shown, [&](int code) { _appearedColors.push_back(color_of(code)); });
}

void LeafPointChanges::apply_to(LeafPoints& points) {
    for (const std::int32_t leaf : _vanished) points.remove(leaf);
    for (std::size_t i = 0; i < _appeared.size(); ++i) {
        points.set(_appeared[i].leaf, _appeared[i].surface);
        if (i < _appearedColors.size()) points.recolor(_appeared[i].leaf, _appearedColors[i]);
    }
    _vanished.clear();
    _appeared.clear();
    _appearedColors.clear();
}

// Every leaf's octet is written, and only new ones stay: which are new is hard to foretell.
void OctetList::collect(const Fusion::ChangedLeaves& leaves, std::int32_t leafCount) {
    _octets.resize(std::max(_octets.size(), leaves.size()));
    _isListed.resize(std::max(_isListed.size(), static_cast<std::size_t>(leafCount / (64 * OctetCells::Count)) + 1));
    for (const int leaf : leaves) {
        const std::int32_t octet = leaf / OctetCells::Count;
        std::uint64_t& word = _isListed[static_cast<std::size_t>(octet / 64)];
        _octets[_count] = octet;
        _count += ~word >> (octet % 64) & 1;
        word |= std::uint64_t{1} << (octet % 64);
    }
}

void OctetList::clear() {
    for (std::size_t i = 0; i < _count; ++i) _isListed[static_cast<std::size_t>(_octets[i] / 64)] = 0;
    _count = 0;
}

DisplayData::DisplayData(const Vector3f& color, const LeafColors& colors)
    : _colors(colors), _points(color), _confirmed(color) {}

void DisplayData::find_changes(SessionVolume& volume, std::size_t begin, std::size_t end, TaskChanges& changes) {
    auto& tree = volume.get_fusion_tree();
    OctetSurfaces surfaces(tree);
    std::optional<LeafColorSampler> sampler;
    if (!_colors.is_empty()) sampler.emplace(_colors, volume, _points.usual_color());
    LeafColorSampler* const colors = sampler ? &*sampler : nullptr;
    const auto number_at = [&](std::size_t i) {
        _points.prefetch(_octets[begin + i]);
        _colors.prefetch(_octets[begin + i]);
        return _octets[begin + i];
    };
    surfaces.for_each(end - begin, number_at, [&](const OctetSurface& octet) {
        auto* const leaves = &tree.leaf_at(OctetCells::Count * octet.number());
        const unsigned changed = leaves_that([&](int code) { return leaves[code].changed != 0; });
        for (int code = 0; code < OctetCells::Count; ++code) leaves[code].changed = 0;
        changes.points.take(_points, octet, changed, octet.found(), colors);
        if (!_keepsConfirmed) return;
        const unsigned confirmed = leaves_that([&](int code) { return is_confirmed(leaves[code]); });
        changes.confirmed.take(_confirmed, octet, changed, octet.found() & confirmed, colors);
    });
}

void DisplayData::update(SessionVolume& volume, Fusion::ChangedLeaves& changedLeaves) {
    _octets.collect(changedLeaves, volume.get_vaild_leaf_num());
    const auto threads = static_cast<std::size_t>(usable_threads(volume.get_code_Num()));
    const std::size_t octets = _octets.size(), taskSize = std::max(MIN_OCTETS_PER_TASK, octets / (4 * threads) + 1);
    _tasks.resize((octets + taskSize - 1) / taskSize);
    parallel_ranges(volume.get_code_Num(), _tasks.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t task = begin; task < end; ++task) {
            find_changes(volume, task * taskSize, std::min(octets, (task + 1) * taskSize), _tasks[task]);
        }
    });
    for (TaskChanges& changes : _tasks) {
        changes.points.apply_to(_points);
        changes.confirmed.apply_to(_confirmed);
    }
    _octets.clear();
    changedLeaves.clear();
}

const Cloud& DisplayData::confirmed_points(const SessionVolume& volume) {
    if (_keepsConfirmed) return _confirmed.cloud();
    const Cloud& all = _points.cloud();
    for (std::size_t i = 0; i < all.get_vn(); ++i) {
        const std::int32_t leaf = _points.leaf_of(i);
        if (!is_confirmed(volume.get_fusion_tree().leaf_at(leaf))) continue;
        _confirmed.set(leaf, {all.get_vCoord(i), all.get_vNrv(i)});
        _confirmed.recolor(leaf, all.get_vColor(i));
    }
    _keepsConfirmed = true;
    return _confirmed.cloud();
}

bool DisplayData::restore(ShownPoints shown, const SessionVolume& volume) {
    clear();
    _shift = volume.get_treeShift();
    return _points.restore(std::move(shown), volume.get_vaild_leaf_num());
}

void DisplayData::clear() {
    _points.clear();
    _confirmed.clear();
    _keepsConfirmed = false;
    _shift.setZero();
}

}  // namespace VexelAlgorithm
