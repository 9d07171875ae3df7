// Solids made of solids.
#pragma once

#include <vector>

#include "foundation/RigidMatrix.h"
#include "simulation/Shape.h"

namespace VexelAlgorithm::Simulation {

// Operands that are null or empty are left out. `blend` (mm, at least 0) is the radius of the fillet along the
// seams, 0 for sharp ones; a blend that is not finite or negative is reported and taken as 0.

/// The union of solids whose seams are filled with a fillet of radius `blend`. Where several operands are
/// nearer than `blend`, the surface is
///     sum over i of max(0, 1 - d_i / blend)^2 = 1,
/// which does not depend on the order of the operands, rounds two perpendicular faces with a quarter circle,
/// and ignores every operand farther away than `blend`. The distance s is the root of the same equation with
/// d_i - s in place of d_i: a smooth minimum whose gradient is a weighted mean of the operands' gradients, so
/// that it changes by at most 1 per mm.
ShapePtr smooth_union(const std::vector<ShapePtr>& shapes, double blend);
/// What `solid` keeps when `tool` is carved out of it.
ShapePtr smooth_difference(const ShapePtr& solid, const ShapePtr& tool, double blend);
/// The solid carried by a rigid motion from its own coordinates to those of the caller. A motion that is not
/// finite or not a rotation is reported, and the result is the empty solid.
ShapePtr moved(const ShapePtr& shape, const RigidMatrix& motion);

/// Whether the pose is finite and its matrix a rotation (to 1e-6).
bool is_rigid(const RigidMatrix& pose);

}  // namespace VexelAlgorithm::Simulation
