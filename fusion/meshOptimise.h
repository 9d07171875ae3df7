// Optional work on an extracted mesh.
#pragma once

#include <cstddef>
#include <vector>

#include "foundation/BaseTriMesh.h"

namespace VexelAlgorithm {
namespace Fusion {

struct MeshOptimisation {
    std::size_t minPieceTriangles = 0;  ///< connected pieces with fewer triangles are dropped
    int smoothingSteps = 0;             ///< pairs of a shrinking and a growing step
    bool normals = false;               ///< vertex normals from the faces
};

/// Drops small pieces (with the vertices that no face uses), smooths, makes normals. `vertexAxis` keeps one
/// entry a vertex. Smoothing: G. Taubin, "A signal processing approach to fair surface design", SIGGRAPH 1995,
/// with umbrella weights; vertices on borders stay where they are.
void optimise_mesh(BaseTriMesh& mesh, std::vector<int>& vertexAxis, const MeshOptimisation& steps);

}  // namespace Fusion
}  // namespace VexelAlgorithm
