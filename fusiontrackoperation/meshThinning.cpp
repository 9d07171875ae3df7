#include "fusiontrackoperation/meshThinning.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

namespace VexelAlgorithm {
namespace {

constexpr float MOST_CUBES = 2097152.0F;  // along an axis: three coordinates of 21 bits fit one key

struct ClusteredVertex {
    std::uint64_t cube;
    std::int32_t vertex;

    bool operator<(const ClusteredVertex& other) const {
        return std::tie(cube, vertex) < std::tie(other.cube, other.vertex);
    }
};

std::vector<ClusteredVertex> sort_into_cubes(const BaseTriMesh& mesh, float spacing) {
    Vector3f low, high;
    mesh.get_boundBox(low, high);
    const float edge = std::max(spacing, (high - low).maxCoeff() / (MOST_CUBES - 1.0F));
    std::vector<ClusteredVertex> clustered;
    clustered.reserve(mesh.get_vn());
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        const Vector3f cube = (mesh.get_vCoord(i) - low) / edge;
        const auto coordinate = [&](int axis) { return static_cast<std::uint64_t>(cube[axis]) << (21 * axis); };
        clustered.push_back({coordinate(0) | coordinate(1) | coordinate(2), static_cast<std::int32_t>(i)});
    }
    std::sort(clustered.begin(), clustered.end());
    return clustered;
}

std::int32_t nearest_to_mean(const BaseTriMesh& mesh, const ClusteredVertex* begin, const ClusteredVertex* end) {
    const auto position = [&](const ClusteredVertex& entry) {
        return mesh.get_vCoord(static_cast<std::size_t>(entry.vertex));
    };
    Vector3f mean = Vector3f::Zero();
    for (const ClusteredVertex* entry = begin; entry != end; ++entry) mean += position(*entry);
    mean /= static_cast<float>(end - begin);
    return std::min_element(begin, end,
                            [&](const ClusteredVertex& a, const ClusteredVertex& b) {
                                return (position(a) - mean).squaredNorm() < (position(b) - mean).squaredNorm();
                            })
        ->vertex;
}

/// For each vertex the one that stands for it.
std::vector<std::int32_t> choose_representatives(const BaseTriMesh& mesh, float spacing) {
    const std::vector<ClusteredVertex> clustered = sort_into_cubes(mesh, spacing);
    std::vector<std::int32_t> representatives(mesh.get_vn());
    const ClusteredVertex* const all = clustered.data();
    for (std::size_t begin = 0, end = 0; begin < clustered.size(); begin = end) {
        while (end < clustered.size() && clustered[end].cube == clustered[begin].cube) ++end;
        const std::int32_t chosen = nearest_to_mean(mesh, all + begin, all + end);
        for (std::size_t i = begin; i < end; ++i) {
            representatives[static_cast<std::size_t>(clustered[i].vertex)] = chosen;
        }
    }
    return representatives;
}

/// The same triangle with its smallest vertex first.
BaseTriFace in_standard_order(BaseTriFace face) {
    std::rotate(face.v, std::min_element(face.v, face.v + 3), face.v + 3);
    return face;
}

std::vector<BaseTriFace> join_corners(const BaseTriMesh& mesh, const std::vector<std::int32_t>& representatives) {
    std::vector<BaseTriFace> faces;
    for (BaseTriFace face : mesh.get_faces()) {
        for (std::int32_t& corner : face.v) corner = representatives[static_cast<std::size_t>(corner)];
        if (face[0] != face[1] && face[1] != face[2] && face[2] != face[0]) faces.push_back(in_standard_order(face));
    }
    const auto corners = [](const BaseTriFace& face) { return std::tie(face.v[0], face.v[1], face.v[2]); };
    std::sort(faces.begin(), faces.end(),
              [&](const BaseTriFace& a, const BaseTriFace& b) { return corners(a) < corners(b); });
    const auto isSame = [&](const BaseTriFace& a, const BaseTriFace& b) { return corners(a) == corners(b); };
    faces.erase(std::unique(faces.begin(), faces.end(), isSame), faces.end());
    return faces;
}

/// A mesh of these faces and the vertices that they use.
BaseTriMesh mesh_of_faces(const BaseTriMesh& mesh, std::vector<BaseTriFace> faces) {
    std::vector<std::int32_t> moved(mesh.get_vn(), -1);
    std::vector<Vector3f> vertices;
    for (BaseTriFace& face : faces) {
        for (std::int32_t& corner : face.v) {
            const auto from = static_cast<std::size_t>(corner);
            if (moved[from] < 0) {
                moved[from] = static_cast<std::int32_t>(vertices.size());
                vertices.push_back(mesh.get_vCoord(from));
            }
            corner = moved[from];
        }
    }
    BaseTriMesh result;
    result.set_vCoords(std::move(vertices));
    result.set_faces(std::move(faces));
    return result;
}

}  // namespace

void thin_mesh(BaseTriMesh& mesh, float spacing) {
    const bool withNormals = mesh.is_enable_vNormal();
    mesh = mesh_of_faces(mesh, join_corners(mesh, choose_representatives(mesh, spacing)));
    if (withNormals) mesh.update_VNrv();
}

BaseTriMesh find_non_manifold_faces(const BaseTriMesh& mesh) {
    std::vector<std::tuple<std::int32_t, std::int32_t, std::size_t>> edges;  // from, to, face
    edges.reserve(3 * mesh.get_fn());
    for (std::size_t i = 0; i < mesh.get_fn(); ++i) {
        for (int k = 0; k < 3; ++k) edges.emplace_back(mesh.get_face(i)[k], mesh.get_face(i)[(k + 1) % 3], i);
    }
    std::sort(edges.begin(), edges.end());
    const auto isSameEdge = [&](std::size_t a, std::size_t b) {
        return std::get<0>(edges[a]) == std::get<0>(edges[b]) && std::get<1>(edges[a]) == std::get<1>(edges[b]);
    };
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < edges.size(); ++i) {
        const bool isTwice = (i > 0 && isSameEdge(i - 1, i)) || (i + 1 < edges.size() && isSameEdge(i, i + 1));
        if (isTwice) found.push_back(std::get<2>(edges[i]));
    }
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    std::vector<BaseTriFace> faces;
    for (const std::size_t face : found) faces.push_back(mesh.get_face(face));
    return mesh_of_faces(mesh, std::move(faces));
}

}  // namespace VexelAlgorithm
