// A deformation that an application attaches to a session.
#pragma once

#include <vector>

#include "foundation/BaseTriMesh.h"

namespace VexelAlgorithm {

/// Displacements (mm, model coordinates) of the vertices of a reference model.
struct NonRigid {
    BaseTriMesh referenceModel;
    std::vector<Vector3f> field;  ///< empty, or one a vertex
};

}  // namespace VexelAlgorithm
