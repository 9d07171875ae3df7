// The surface in the cells of the volume, octet by octet.
#pragma once

#include <hwy/base.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/types.h"
#include "fusion/LeafTSDFSpeckle.h"
#include "fusion/Octree.h"
#include "fusiontrackoperation/cellSurface.h"

namespace VexelAlgorithm {

/// Model coordinates (mm); the normal has unit length and points to where distances are positive, out of the surface.
struct SurfacePoint {
    Vector3f point = Vector3f::Zero();
    Vector3f normal = Vector3f::Zero();
};

/// A direct-mapped cache from bricks of 2 x 2 x 2 octets to their nodes, owned by one worker: an octet and its
/// neighbours share few bricks.
class BrickNodeCache {
public:
    /// The node of the brick around a voxel inside the volume; negative when there is none.
    template <class Tree>
    HWY_INLINE std::int32_t find(const Tree& tree, int x, int y, int z) {
        const int bx = x >> 2, by = y >> 2, bz = z >> 2;
        const std::uint64_t key = static_cast<std::uint64_t>(bx) | (static_cast<std::uint64_t>(by) << 21) |
                                  (static_cast<std::uint64_t>(bz) << 42);
        Entry& entry = _entries[(bx & 15) + 16 * (by & 15) + 256 * (bz & 15)];
        if (entry.key != key) entry = {key, tree.find_brick(bx, by, bz)};
        return entry.node;
    }

private:
    struct Entry {
        std::uint64_t key = ~std::uint64_t{0};
        std::int32_t node = -1;
    };
    static constexpr std::size_t Size = 4096;
    std::unique_ptr<Entry[]> _entries{new Entry[Size]};
};

/// The surface points of the eight leaves of an octet, 8 number + code for code = x + 2 y + 4 z. The cell of a leaf
/// lies between the centre of its voxel and those of its upper neighbours: every cell that the surface passes has one
/// point, and no two leaves share one.
class OctetSurface {
public:
    OctetSurface(std::int32_t number, const Vector3i& low, float pointDis, const Vector3f& shift,
                 const OctetCells& cells)
        : _number(number), _low(low), _pointDis(pointDis), _shift(shift), _cells(cells) {}

    std::int32_t number() const { return _number; }
    /// A bit for each leaf that has a point.
    unsigned found() const { return _cells.found; }
    SurfacePoint point(int code) const {
        const auto& p = _cells.position;
        const auto& n = _cells.normal;
        const Vector3i voxel = _low + Vector3i(code & 1, code >> 1 & 1, code >> 2);
        const Vector3f centre = _shift + (voxel.cast<float>() + Vector3f::Constant(0.5F)) * _pointDis;
        return {centre + _pointDis * Vector3f(p[0][code], p[1][code], p[2][code]),
                {n[0][code], n[1][code], n[2][code]}};
    }

private:
    std::int32_t _number;
    Vector3i _low;  // voxel of the first leaf
    float _pointDis;
    Vector3f _shift;
    const OctetCells& _cells;
};

/// Finds the surface points of octets of leaves. Reads a volume that nobody changes meanwhile. One object a worker,
/// asked for octets that lie near each other.
class OctetSurfaces {
public:
    using Leaf = Fusion::LeafTSDFSpeckle;
    using Tree = VexelOctree::Octree<Leaf>;

    explicit OctetSurfaces(const Tree& tree) : _tree(tree) {}
    OctetSurfaces(const OctetSurfaces&) = delete;
    OctetSurfaces& operator=(const OctetSurfaces&) = delete;

    /// Calls `visit(OctetSurface)` for each of `count` octets that have been handed out, in their order; number i is
    /// `number_at(i)`.
    template <class NumberAt, class Visit>
    void for_each(std::size_t count, const NumberAt& number_at, const Visit& visit) {
        for (std::size_t first = 0; first < count; first += BlockSize) {
            const std::size_t size = std::min(BlockSize, count - first);
            for (std::size_t i = 0; i < size; ++i) _numbers[i] = number_at(first + i);
            find(size);
            for (std::size_t i = 0; i < size; ++i) {
                visit(OctetSurface(_numbers[i], _around[i].low, _tree.get_pointDis(), _tree.get_shift(), _cells[i]));
            }
        }
    }

private:
    static constexpr std::size_t BlockSize = 16;

    /// An octet and its upper neighbours x + 2 y + 4 z.
    struct Neighbourhood {
        Vector3i low;            ///< voxel of the octet's first leaf
        std::int32_t bricks[8];  ///< the nodes in which they are
        const Leaf* octets[8];   ///< their first leaves
    };

    void find(std::size_t count);
    void find_bricks(Neighbourhood& around);
    void find_octets(Neighbourhood& around) const;
    std::uint8_t cells_inside(const Vector3i& low) const;

    const Tree& _tree;
    CellSurfaceKernel _findSurfaces = best_cell_surface_kernel();
    BrickNodeCache _bricks;
    std::array<Leaf, 8> _noLeaves{};
    // Of each octet of a block.
    std::array<std::int32_t, BlockSize> _numbers{};
    std::array<Neighbourhood, BlockSize> _around;
    std::array<OctetCells, BlockSize> _cells;
};

}  // namespace VexelAlgorithm
