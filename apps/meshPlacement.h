// A mesh file as a scene of the virtual world.
#pragma once

#include <string>

#include "recording/Outcome.h"
#include "simulation/Shape.h"

namespace VexelAlgorithm::Apps {

struct MeshPlacement {
    std::string unit;        ///< of the file: mm, cm, m or inch; empty when it is not known
    double size = 0.0;       ///< mm, the largest side afterwards; 0 when it is not asked for
    std::string up = "z";    ///< the file's axis that shall point upwards: x, y, z, -x, -y or -z
    bool isOnTable = false;  ///< a table that fills the view comes with it
};

struct PlacedMesh {
    Simulation::ShapePtr scene;
    Vector3d centre;          ///< mm, of the mesh
    std::string description;  ///< one line
};

/// Stands the mesh on z = 0 with the middle of its box on the z axis. Without unit and size a mesh of 40 to 220 mm is
/// taken to be in millimetres; any other is scaled to a largest side of 150 mm, which the rig has in view.
Outcome<PlacedMesh> place_mesh(const std::string& file, const MeshPlacement& placement);

}  // namespace VexelAlgorithm::Apps
