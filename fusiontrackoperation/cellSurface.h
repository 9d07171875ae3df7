// Where the surface passes through the cells of the volume: the mathematics, an octet of cells at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VexelAlgorithm {

/// An octet of voxels with what its eight cells need, and the surface in them. Cell c = x + 2 y + 4 z lies between the
/// centre of the octet's voxel (x, y, z) and those of its upper neighbours, which are its corners x + 2 y + 4 z.
struct OctetCells {
    static constexpr int Count = 8;
    static constexpr std::size_t LatticeSize = 27;  ///< voxels x + 3 y + 9 z, those of the octet first
    static constexpr std::size_t PaddedLattice = 32;

    alignas(64) float tsdfSum[PaddedLattice] = {};  ///< mm; 0 behind the lattice
    alignas(64) float weight[PaddedLattice] = {};   ///< 0 for a voxel that is missing or not used

    alignas(64) float corners[8][Count];  ///< mean distance at each corner of each cell, mm

    std::uint8_t found = 0;                ///< a bit for each cell with a surface; the others mean nothing
    alignas(64) float position[3][Count];  ///< from corner 0, voxels
    alignas(64) float normal[3][Count];    ///< of unit length, to where values are positive
};

/// Finds the mean of the crossings on each cell's edges, as in S. Gibson, "Constrained elastic surface nets", MICCAI
/// 1998, without the relaxation. Exact on planes. The normal is the mean difference of the values along the known edges
/// of each axis. Values below 1e-6 in size are unknown. A cell has no surface when corner 0 is unknown or fewer than
/// three edges are crossed.
using CellSurfaceKernel = void (*)(OctetCells* octets, std::size_t count);

/// The implementation for the widest vectors of this processor. All give the same bits.
CellSurfaceKernel best_cell_surface_kernel();

}  // namespace VexelAlgorithm
