// Triangles of a mesh file, for whoever needs no more than the surface.
#pragma once

#include <filesystem>
#include <vector>

#include "foundation/types.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// Corners in the unit of the file; triangles as indices of points, all within range. Nothing else is promised: points
/// may repeat, triangles may be degenerate, hang together or not.
struct MeshData {
    std::vector<Vector3f> points;
    std::vector<Vector3i> triangles;
};

/// Reads .ply, .obj and .stl, text or binary, in every locale; polygons are split into fans, everything but points and
/// faces is passed over. Refused with one sentence: a file that is missing, of another kind, broken or ends too early,
/// no faces at all, corners that do not exist, coordinates that are not finite. The readers are our own because those
/// of the half-edge library trust counts and do not come back from some damaged files; here every count is held
/// against the bytes that are left.
Outcome<MeshData> read_mesh_file(const std::filesystem::path& path);

}  // namespace VexelAlgorithm
