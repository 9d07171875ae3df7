#include "fusiontrackoperation/meshRefinement.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

#include "foundation/compaction.h"

namespace VexelAlgorithm {
namespace {

std::size_t corner(const BaseTriFace& face, int k) {
    return static_cast<std::size_t>(face[k % 3]);
}

std::vector<Vector3f> normals_of(const BaseTriMesh& mesh) {
    BaseTriMesh withNormals = mesh;
    withNormals.update_VNrv();
    return withNormals.get_vNrvs();
}

}  // namespace

VertexNeighbours::VertexNeighbours(const BaseTriMesh& mesh)
    : _first(mesh.get_vn() + 1, 0), _others(6 * mesh.get_fn()), _isOnBorder(mesh.get_vn(), 0) {
    for (const BaseTriFace& face : mesh.get_faces()) {
        for (int k = 0; k < 3; ++k) _first[corner(face, k) + 1] += 2;
    }
    for (std::size_t i = 0; i + 1 < _first.size(); ++i) _first[i + 1] += _first[i];
    std::vector<std::size_t> next(_first.begin(), _first.end() - 1);
    for (const BaseTriFace& face : mesh.get_faces()) {
        for (int k = 0; k < 3; ++k) {
            _others[next[corner(face, k)]++] = face[(k + 1) % 3];
            _others[next[corner(face, k)]++] = face[(k + 2) % 3];
        }
    }
    // Inside the surface every neighbour shares two triangles.
    for (std::size_t vertex = 0; vertex < _isOnBorder.size(); ++vertex) {
        const auto begin = _others.begin() + static_cast<std::ptrdiff_t>(_first[vertex]),
                   end = _others.begin() + static_cast<std::ptrdiff_t>(_first[vertex + 1]);
        std::sort(begin, end);
        for (auto at = begin; at != end; at = std::upper_bound(at, end, *at)) {
            if (std::upper_bound(at, end, *at) - at == 1) _isOnBorder[vertex] = 1;
        }
    }
}

void gauss_smooth(BaseTriMesh& mesh, float sigma, int passes) {
    if (passes <= 0) return;
    const VertexNeighbours neighbours(mesh);
    std::vector<Vector3f> from = mesh.get_vCoords(), to = from;
    for (int pass = 0; pass < passes; ++pass) {
        for (std::size_t i = 0; i < from.size(); ++i) {
            if (neighbours.is_on_border(i)) continue;
            Vector3f sum = from[i];
            float weights = 1.0F;
            neighbours.for_each(i, [&](std::size_t j) {
                // Half, because each neighbour comes twice.
                const float weight = 0.5F * std::exp(-0.5F * (from[j] - from[i]).squaredNorm() / (sigma * sigma));
                sum += weight * from[j];
                weights += weight;
            });
            to[i] = sum / weights;
        }
        std::swap(from, to);
    }
    mesh.set_vCoords(std::move(from));
}

void smooth_normals(BaseTriMesh& mesh, int passes) {
    if (passes <= 0) return;
    const VertexNeighbours neighbours(mesh);
    std::vector<Vector3f> from = mesh.get_vNrvs(), to = from;
    for (int pass = 0; pass < passes; ++pass) {
        for (std::size_t i = 0; i < from.size(); ++i) {
            Vector3f sum = from[i];
            neighbours.for_each(i, [&](std::size_t j) { sum += 0.5F * from[j]; });
            const float length = sum.norm();
            to[i] = length > 0.0F ? Vector3f(sum / length) : from[i];
        }
        std::swap(from, to);
    }
    mesh.set_vNrvs(std::move(from));
}

void delete_off_tangent_plane(BaseTriMesh& mesh, std::vector<int>& vertexAxis, float ratio) {
    if (!(ratio > 0.0F)) return;
    const VertexNeighbours neighbours(mesh);
    const std::vector<Vector3f> normals = normals_of(mesh);
    mesh.enable_vFlag();
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        const auto count = static_cast<float>(neighbours.count(i));
        if (count == 0.0F) continue;
        const Vector3f& vertex = mesh.get_vCoord(i);
        Vector3f mean = Vector3f::Zero(), normal = Vector3f::Zero();
        float distance = 0.0F;
        neighbours.for_each(i, [&](std::size_t j) {
            mean += mesh.get_vCoord(j) / count;
            normal += normals[j];
            distance += (mesh.get_vCoord(j) - vertex).norm() / count;
        });
        const float length = normal.norm();
        if (length > 0.0F && std::abs((vertex - mean).dot(normal)) > ratio * distance * length) {
            mesh.set_vDeleted(i, true);
        }
    }
    keep_entries(vertexAxis, [&](std::size_t i) { return !mesh.get_vDeleted(i); });
    mesh.squeeze(false);
    mesh.disable_vFlag();
}

}  // namespace VexelAlgorithm
