// A surface of triangles as a solid of the virtual world.
#pragma once

#include <vector>

#include "simulation/Shape.h"

namespace VexelAlgorithm::Simulation {

/// The solid that the triangles (indices of `points`, mm) enclose. Points at the same place are one corner; triangles
/// without an area are left out. When they enclose a negative volume, all of them are turned. The sign of the distance
/// is that of the angle-weighted normal at the nearest point (J. A. Baerentzen, H. Aanaes, "Signed distance computation
/// using the angle weighted pseudonormal", IEEE TVCG 11, 2005): right for closed surfaces, and for open ones as the
/// nearest triangle faces. Rays hit triangles from both sides. Where one triangle ends and another begins the gradient
/// is the mean of their normals.
///
/// Points that are not finite, indices out of range and no triangle with an area give one line and the empty solid.
ShapePtr triangle_mesh(const std::vector<Vector3f>& points, const std::vector<Vector3i>& triangles);

}  // namespace VexelAlgorithm::Simulation
