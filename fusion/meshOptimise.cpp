#include "fusion/meshOptimise.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <utility>

namespace VexelAlgorithm {
namespace Fusion {
namespace {

// Pass band of 0.1 and a shrinking step of one half, as in the paper: 1/lambda + 1/mu = 0.1.
constexpr float ShrinkStep = 0.5f;
constexpr float GrowStep = -0.5263158f;

class UnionFind {
public:
    explicit UnionFind(std::size_t count) : _parents(count) { std::iota(_parents.begin(), _parents.end(), 0); }

    std::int32_t find(std::int32_t i) {
        while (parent(i) != i) {
            parent(i) = parent(parent(i));
            i = parent(i);
        }
        return i;
    }
    void join(std::int32_t a, std::int32_t b) {
        a = find(a), b = find(b);
        parent(std::max(a, b)) = std::min(a, b);
    }

private:
    std::int32_t& parent(std::int32_t i) { return _parents[static_cast<std::size_t>(i)]; }
    std::vector<std::int32_t> _parents;
};

void drop_small_pieces(BaseTriMesh& mesh, std::vector<int>& vertexAxis, std::size_t minTriangles) {
    UnionFind pieces(mesh.get_vn());
    for (const BaseTriFace& face : mesh.get_faces()) {
        pieces.join(face[0], face[1]);
        pieces.join(face[0], face[2]);
    }
    std::vector<std::size_t> triangles(mesh.get_vn(), 0);
    for (const BaseTriFace& face : mesh.get_faces()) ++triangles[static_cast<std::size_t>(pieces.find(face[0]))];

    std::vector<std::int32_t> moved(mesh.get_vn(), -1);
    std::vector<Vector3f> vertices;
    std::vector<int> axes;
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        if (triangles[static_cast<std::size_t>(pieces.find(static_cast<std::int32_t>(i)))] < minTriangles) continue;
        moved[i] = static_cast<std::int32_t>(vertices.size());
        vertices.push_back(mesh.get_vCoord(i));
        axes.push_back(vertexAxis[i]);
    }
    std::vector<BaseTriFace> faces;
    for (BaseTriFace face : mesh.get_faces()) {
        if (moved[static_cast<std::size_t>(face[0])] < 0) continue;
        for (int k = 0; k < 3; ++k) face[k] = moved[static_cast<std::size_t>(face[k])];
        faces.push_back(face);
    }
    mesh.set_vCoords(std::move(vertices));
    mesh.set_faces(std::move(faces));
    vertexAxis = std::move(axes);
}

// Each edge once from either side; an edge seen from one side only is a border.
std::vector<std::pair<std::int32_t, std::int32_t>> sorted_half_edges(const BaseTriMesh& mesh) {
    std::vector<std::pair<std::int32_t, std::int32_t>> halfEdges;
    halfEdges.reserve(3 * mesh.get_fn());
    for (const BaseTriFace& face : mesh.get_faces()) {
        for (int k = 0; k < 3; ++k) halfEdges.emplace_back(face[k], face[(k + 1) % 3]);
    }
    std::sort(halfEdges.begin(), halfEdges.end());
    return halfEdges;
}

void smooth(BaseTriMesh& mesh, int steps) {
    const auto halfEdges = sorted_half_edges(mesh);
    std::vector<char> onBorder(mesh.get_vn(), 0);
    for (const auto& [from, to] : halfEdges) {
        if (std::binary_search(halfEdges.begin(), halfEdges.end(), std::make_pair(to, from))) continue;
        onBorder[static_cast<std::size_t>(from)] = onBorder[static_cast<std::size_t>(to)] = 1;
    }
    std::vector<Vector3f> vertices = mesh.get_vCoords();
    std::vector<Vector3f> sums(mesh.get_vn());
    std::vector<float> counts(mesh.get_vn());
    for (int step = 0; step < 2 * steps; ++step) {
        std::fill(sums.begin(), sums.end(), Vector3f(Vector3f::Zero()));
        std::fill(counts.begin(), counts.end(), 0.0f);
        for (const auto& [from, to] : halfEdges) {
            sums[static_cast<std::size_t>(from)] += vertices[static_cast<std::size_t>(to)];
            counts[static_cast<std::size_t>(from)] += 1.0f;
        }
        const float factor = step % 2 == 0 ? ShrinkStep : GrowStep;
        for (std::size_t i = 0; i < vertices.size(); ++i) {
            if (onBorder[i] || counts[i] == 0.0f) continue;
            vertices[i] += factor * (sums[i] / counts[i] - vertices[i]);
        }
    }
    mesh.set_vCoords(std::move(vertices));
}

}  // namespace

void optimise_mesh(BaseTriMesh& mesh, std::vector<int>& vertexAxis, const MeshOptimisation& steps) {
    if (steps.minPieceTriangles > 0) drop_small_pieces(mesh, vertexAxis, steps.minPieceTriangles);
    if (steps.smoothingSteps > 0) smooth(mesh, steps.smoothingSteps);
    if (steps.normals) mesh.update_VNrv();
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
