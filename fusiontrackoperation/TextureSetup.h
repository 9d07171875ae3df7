// What texture tracking is made from.
#pragma once

#include "foundation/RigidMatrix.h"
#include "foundation/TextureParam.h"

namespace VexelAlgorithm {

/// The record, and the motion from left to texture camera coordinates.
struct TextureSetup {
    TextureParam record;
    RigidMatrix leftToTexture;
};

}  // namespace VexelAlgorithm
