// Clouds as text, meshes as PLY, OBJ or STL.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/BaseTriMesh.h"
#include "foundation/CloudWithWeight.h"
#include "foundation/PointImage.h"
#include "foundation/TriMesh.h"
#include "foundation/export.h"

namespace VexelAlgorithm {

/// One line a vertex: "x y z", then "nx ny nz" when there are normals, then "r g b" (0 to 255) when there
/// are colours. Deleted vertices are left out. 0 on success; otherwise one printed line and non-zero.
VEXEL_API int write_asc(const std::string& path, const Cloud& cloud);
/// Only the slots that hold a point; with `allSlots` every slot, so that line i is slot i.
VEXEL_API int write_asc(const std::string& path, const PointImage& frame, bool allSlots);
/// As for a cloud, the weight as last number of the line.
VEXEL_API int write_cloudWithWeight(const std::string& path, const CloudWithWeight& cloud);

/// What a mesh file carries beside coordinates and faces. Bits to be joined with |.
enum MeshWriteOption : std::uint32_t {
    MESH_WRITE_DEFAULT = 0,
    MESH_WRITE_BINARY = 1,
    MESH_WRITE_VERTEX_NORMAL = 2,
    MESH_WRITE_VERTEX_COLOR = 4,
};

/// Writes through OpenMesh; the ending of the path chooses the format (.ply, .obj, .stl, .off). `options` is
/// a set of `MeshWriteOption`, `precision` the number of digits in text formats (1 to 17). The file is
/// written beside its place and moved there when it is complete. 0 on success; otherwise one printed line,
/// non-zero, and no file (an older one stays). Normals or colours that the mesh does not have are an error;
/// what the format cannot hold is left out (colours in OBJ, both in STL), and OBJ, which has no binary form, is text.
/// Deleted vertices and faces are left out.
VEXEL_API int write_mesh(const std::string& path, const TriMesh& mesh, std::uint32_t options, int precision);
/// The same from a vertex/face mesh. Vertices and faces keep their order, and triangles at non-manifold
/// edges are written too, because no half-edge mesh is built; faces whose vertices do not exist are left out.
VEXEL_API int write_mesh(const std::string& path, const BaseTriMesh& mesh, std::uint32_t options, int precision);

}  // namespace VexelAlgorithm
