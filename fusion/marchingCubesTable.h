// The triangle table of marching cubes.
#pragma once

#include <cstdint>

namespace VexelAlgorithm {
namespace Fusion {

/// The cube's corners, bit i of the case index for corner i.
inline constexpr int CubeCorner[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                                         {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};

/// The cube's edges: the corner offset of the edge's low end, and its axis. In corner numbers they are
/// 0-1 1-2 2-3 3-0, 4-5 5-6 6-7 7-4, 0-4 1-5 2-6 3-7.
struct CubeEdge {
    int x, y, z;
    int axis;
};
inline constexpr CubeEdge CubeEdges[12] = {{0, 0, 0, 0}, {1, 0, 0, 1}, {0, 1, 0, 0}, {0, 0, 0, 1},
                                           {0, 0, 1, 0}, {1, 0, 1, 1}, {0, 1, 1, 0}, {0, 0, 1, 1},
                                           {0, 0, 0, 2}, {1, 0, 0, 2}, {1, 1, 0, 2}, {0, 1, 0, 2}};

/// For each case the edge numbers of its triangles, three a triangle, ended by -1. The standard table in the
/// form given by P. Bourke, "Polygonising a scalar field", 1994: where the corners of a face alternate it
/// always cuts the marked corners apart, so that neighbouring cubes fit.
extern const std::int8_t TriangleTable[256][16];

}  // namespace Fusion
}  // namespace VexelAlgorithm
