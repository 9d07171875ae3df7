// Fewer vertices for a mesh that is finer than wanted.
#pragma once

#include "foundation/BaseTriMesh.h"

namespace VexelAlgorithm {

/// Keeps one vertex of each cube of edge `spacing` (mm, positive), the one nearest to the mean of those inside, and the
/// triangles whose corners lie in three different cubes: vertex clustering after J. Rossignac and P. Borrel,
/// "Multi-resolution 3D approximations for rendering complex scenes", 1993, with vertices that do not move. Vertices
/// that no triangle uses are dropped. Normals, where the mesh has them, are computed anew; other attributes are
/// dropped. Where two sheets of surface come closer than the spacing they may be joined.
void thin_mesh(BaseTriMesh& mesh, float spacing);

/// The triangles that keep a mesh from being an oriented manifold: those at an edge that is passed twice in the same
/// direction.
BaseTriMesh find_non_manifold_faces(const BaseTriMesh& mesh);

}  // namespace VexelAlgorithm
