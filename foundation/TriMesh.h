// The half-edge triangle mesh, for neighbourhood traversal and face normals.
#pragma once

#include <vector>

// OpenMesh asks for this on Windows before its headers.
#if defined(_WIN32) && !defined(_USE_MATH_DEFINES)
#    define _USE_MATH_DEFINES
#endif
#include <OpenMesh/Core/Mesh/Traits.hh>
#include <OpenMesh/Core/Mesh/TriMesh_ArrayKernelT.hh>

#include "foundation/BaseTriMesh.h"
#include "foundation/export.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// Float vectors, triangles only.
struct TriMeshTraits : public OpenMesh::DefaultTraits {
    using Point = OpenMesh::Vec3f;
    using Normal = OpenMesh::Vec3f;
};

/// OpenMesh's half-edge mesh with construction from arrays. Not thread-safe while it is built.
class VEXEL_API TriMesh : public OpenMesh::TriMesh_ArrayKernelT<TriMeshTraits> {
public:
    TriMesh();
    TriMesh(const TriMesh& other);
    TriMesh& operator=(const TriMesh& other);
    ~TriMesh() override;

    /// Replaces the mesh and computes its face normals. `indices` holds three vertex indices a triangle;
    /// triangles with an index that does not exist or twice the same one, an incomplete last one, and those
    /// that would make an edge or a vertex non-manifold are left out. Returns the number left out.
    std::size_t build_mesh(const std::vector<Vector3f>& vertices, const std::vector<int>& indices);
    /// Drops vertices, edges and faces.
    void clear();
};

}  // namespace VexelAlgorithm
