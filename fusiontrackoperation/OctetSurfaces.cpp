#include "fusiontrackoperation/OctetSurfaces.h"

#include <hwy/base.h>
#include <hwy/cache_control.h>

#include <utility>

namespace VexelAlgorithm {
namespace {

/// Voxel x + 3 y + 9 z of the lattice: leaf x + 2 y + 4 z of the octet itself or of an upper neighbour.
template <class Leaf, std::size_t... Voxel>
HWY_INLINE void read_voxels(const Leaf* const* octets, OctetCells& cells, std::index_sequence<Voxel...>) {
    const auto read = [&](std::size_t voxel, std::size_t x, std::size_t y, std::size_t z) {
        const Leaf& leaf = octets[x / 2 + 2 * (y / 2) + 4 * (z / 2)][x % 2 + 2 * (y % 2) + 4 * (z % 2)];
        cells.tsdfSum[voxel] = leaf.tsdfSum;
        cells.weight[voxel] = leaf.weightSum;  // 0 in a leaf that is not used
    };
    (read(Voxel, Voxel % 3, Voxel / 3 % 3, Voxel / 9), ...);
}

template <class Leaf>
void read_lattice(const Leaf* const* octets, OctetCells& cells) {
    read_voxels(octets, cells, std::make_index_sequence<OctetCells::LatticeSize>());
}

template <class Leaf>
void prefetch_octet(const Leaf* leaves) {
    const char* bytes = reinterpret_cast<const char*>(leaves);
    for (std::size_t at = 0; at < 8 * sizeof(Leaf); at += 64) hwy::Prefetch(bytes + at);
}

}  // namespace

void OctetSurfaces::find_bricks(Neighbourhood& around) {
    const Vector3i& low = around.low;
    const bool isAtUpperFace = low.maxCoeff() == _tree.get_size() - 2;
    for (int n = 0; n < 8; ++n) {
        const int x = low.x() + 2 * (n & 1), y = low.y() + (n & 2), z = low.z() + 2 * (n >> 2);
        const bool isInside = !isAtUpperFace || _tree.is_inside(x, y, z);
        around.bricks[n] = isInside ? _bricks.find(_tree, x, y, z) : -1;
    }
    const auto& units = _tree.level(_tree.get_level_count() - 1).entries;
    for (const std::int32_t brick : around.bricks) {
        if (brick >= 0) hwy::Prefetch(&units[brick]);
    }
}

void OctetSurfaces::find_octets(Neighbourhood& around) const {
    const Vector3i& low = around.low;
    const int first = (low.x() >> 1 & 1) + (low.y() & 2) + 2 * (low.z() & 2);
    for (int n = 0; n < 8; ++n) {
        // Octets take turns in being the lower and the upper one of a brick.
        const std::int32_t leaf = _tree.brick_unit(around.bricks[n], first ^ n);
        around.octets[n] = leaf >= 0 ? &_tree.leaf_at(leaf) : _noLeaves.data();
        prefetch_octet(around.octets[n]);
    }
}

/// Cells at the upper faces of the volume end outside.
std::uint8_t OctetSurfaces::cells_inside(const Vector3i& low) const {
    const int last = _tree.get_size() - 2;
    const unsigned x = low.x() == last ? 0x55 : 0xff, y = low.y() == last ? 0x33 : 0xff;
    const unsigned z = low.z() == last ? 0x0f : 0xff;
    return static_cast<std::uint8_t>(x & y & z);
}

// Each step runs over the whole block before the next one begins: what it asks the memory for arrives meanwhile.
void OctetSurfaces::find(std::size_t count) {
    const auto& coordinates = _tree.unit_coordinates();
    for (std::size_t i = 0; i < count; ++i) hwy::Prefetch(&coordinates[_numbers[i]]);
    for (std::size_t i = 0; i < count; ++i) _around[i].low = _tree.leaf_coordinates(8 * _numbers[i]);
    for (std::size_t i = 0; i < count; ++i) find_bricks(_around[i]);
    for (std::size_t i = 0; i < count; ++i) find_octets(_around[i]);
    for (std::size_t i = 0; i < count; ++i) read_lattice(_around[i].octets, _cells[i]);
    _findSurfaces(_cells.data(), count);
    for (std::size_t i = 0; i < count; ++i) _cells[i].found &= cells_inside(_around[i].low);
}

}  // namespace VexelAlgorithm
