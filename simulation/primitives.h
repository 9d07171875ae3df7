// The elementary solids of the virtual world.
#pragma once

#include "simulation/Shape.h"

namespace VexelAlgorithm::Simulation {

// Sizes must be finite and greater than zero; otherwise one line says what is wrong, and the result is the
// empty solid, which nothing hits.

ShapePtr sphere(const Vector3d& centre, double radius);
/// Everything behind the plane through `point` whose `normal` (any length but 0) points out of the solid.
ShapePtr half_space(const Vector3d& point, const Vector3d& normal);
/// Axis-parallel box of half lengths `halfSize`; edges and corners rounded with `rounding` (0 for sharp ones,
/// below the smallest half length).
ShapePtr box(const Vector3d& centre, const Vector3d& halfSize, double rounding = 0.0);
/// Ring around the z axis through `centre`: the tube's middle circle has `ringRadius`, the tube `tubeRadius`,
/// which is the smaller one.
ShapePtr torus(const Vector3d& centre, double ringRadius, double tubeRadius);
/// Ellipsoid with its half axes along x, y and z.
ShapePtr ellipsoid(const Vector3d& centre, const Vector3d& halfAxes);
/// The hull of two balls: a capsule when both radii are equal, otherwise a cone with round ends.
ShapePtr round_cone(const Vector3d& from, double radiusFrom, const Vector3d& to, double radiusTo);
/// Contains nothing: infinitely far from every point.
ShapePtr nothing();

}  // namespace VexelAlgorithm::Simulation
