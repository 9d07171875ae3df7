#include "foundation/TriMesh.h"

#include <array>

namespace VexelAlgorithm {
namespace {

using Corners = std::array<OpenMesh::VertexHandle, 3>;

// What OpenMesh itself would refuse, asked first because it complains on the error stream.
bool is_face_addable(const TriMesh& mesh, const Corners& corners) {
    for (std::size_t i = 0; i < 3; ++i) {
        const OpenMesh::VertexHandle from = corners[i], to = corners[(i + 1) % 3];
        if (from == to || !mesh.is_boundary(from)) return false;
        const OpenMesh::HalfedgeHandle edge = mesh.find_halfedge(from, to);
        if (edge.is_valid() && !mesh.is_boundary(edge)) return false;
    }
    return true;
}

}  // namespace

TriMesh::TriMesh() = default;
TriMesh::TriMesh(const TriMesh& other) = default;
TriMesh& TriMesh::operator=(const TriMesh& other) = default;
TriMesh::~TriMesh() = default;

std::size_t TriMesh::build_mesh(const std::vector<Vector3f>& vertices, const std::vector<int>& indices) {
    clear();
    const std::size_t triangleNumber = indices.size() / 3;
    reserve(vertices.size(), vertices.size() + triangleNumber, triangleNumber);
    for (const Vector3f& vertex : vertices) add_vertex(Point(vertex.x(), vertex.y(), vertex.z()));

    const auto exists = [&vertices](int index) {
        return index >= 0 && static_cast<std::size_t>(index) < vertices.size();
    };
    std::size_t leftOut = indices.size() % 3 == 0 ? 0 : 1;
    for (std::size_t t = 0; t < triangleNumber; ++t) {
        const int* triangle = &indices[3 * t];
        const bool isAdded = [&] {
            if (!exists(triangle[0]) || !exists(triangle[1]) || !exists(triangle[2])) return false;
            const Corners corners{VertexHandle(triangle[0]), VertexHandle(triangle[1]), VertexHandle(triangle[2])};
            return is_face_addable(*this, corners) && add_face(corners.data(), corners.size()).is_valid();
        }();
        leftOut += isAdded ? 0 : 1;
    }
    if (!has_face_normals()) request_face_normals();
    update_face_normals();
    return leftOut;
}

void TriMesh::clear() {
    OpenMesh::TriMesh_ArrayKernelT<TriMeshTraits>::clear();
}

}  // namespace VexelAlgorithm
