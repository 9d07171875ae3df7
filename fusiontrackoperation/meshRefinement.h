// What the application may choose about the final mesh.
#pragma once

#include <vector>

#include "foundation/BaseTriMesh.h"

namespace VexelAlgorithm {

struct ResultSettings {
    bool dropPieces = true;  ///< connected pieces below `minPieceTriangles`
    bool smooth = false;     ///< five Taubin steps
    bool normals = true;
    int minPieceTriangles = 100;
    int gaussWindow = 0;             ///< passes of `gauss_smooth`
    int normalWindow = 1;            ///< rings of triangles that make a vertex normal; 1: those at the vertex
    float tangentPlaneRatio = 0.0F;  ///< of `delete_off_tangent_plane`; 0: none is deleted
};

/// The neighbours of each vertex, each once for every triangle that they share.
class VertexNeighbours {
public:
    explicit VertexNeighbours(const BaseTriMesh& mesh);
    /// Calls `visit(index)` for each.
    template <class Visit>
    void for_each(std::size_t vertex, const Visit& visit) const {
        for (std::size_t i = _first[vertex]; i < _first[vertex + 1]; ++i) visit(static_cast<std::size_t>(_others[i]));
    }
    std::size_t count(std::size_t vertex) const { return _first[vertex + 1] - _first[vertex]; }
    /// On an edge of a single triangle.
    bool is_on_border(std::size_t vertex) const { return _isOnBorder[vertex] != 0; }

private:
    std::vector<std::size_t> _first;
    std::vector<std::int32_t> _others;
    std::vector<char> _isOnBorder;
};

/// Moves each vertex that is not on a border to the mean of itself and its neighbours with Gaussian weights of their
/// distances, whose standard deviation is `sigma` (mm), `passes` times: the window is so many rings of neighbours.
void gauss_smooth(BaseTriMesh& mesh, float sigma, int passes);

/// Replaces vertex normals by the mean of theirs and their neighbours', `passes` times.
void smooth_normals(BaseTriMesh& mesh, int passes);

/// Drops vertices farther from the plane through the mean of their neighbours, across the mean of the neighbours'
/// normals, than `ratio` times the mean distance of the neighbours, with their triangles. `vertexAxis` keeps one entry
/// a vertex.
void delete_off_tangent_plane(BaseTriMesh& mesh, std::vector<int>& vertexAxis, float ratio);

}  // namespace VexelAlgorithm
