// The built-in scenes.
#pragma once

#include <string>
#include <vector>

#include "simulation/Shape.h"

namespace VexelAlgorithm::Simulation {

/// The demo object: an owl that perches on two books, 184 mm tall. It stands on z = 0 around the z axis (up) and
/// looks along -y. Round, flat, sharp and finely sculpted places, and no symmetry that would let a tracker slide.
ShapePtr owl_on_books();
/// About the middle of the demo object, to look at (mm).
Vector3d owl_centre();

/// Names that `make_scene` knows: "owl", "owl_on_table" (the owl on a table that fills the view), "sphere"
/// (radius 50), "torus" (ring 60, tube 25), "blocks" (boxes and balls on a table), "table" (the bare table).
std::vector<std::string> scene_names();
/// All scenes stand on or above z = 0 around the z axis. An unknown name gives one line and null.
ShapePtr make_scene(const std::string& name);

}  // namespace VexelAlgorithm::Simulation
