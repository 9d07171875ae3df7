// The scanner of the examples is a virtual one, so that they run anywhere; an application has its own in its place.
#pragma once

#include <optional>

#include "algorithmQorInclude.h"
#include "simulation/Sequence.h"

/// A slow sweep about some blocks, 160 x 128 pixels.
inline std::optional<VexelAlgorithm::Simulation::Sequence> virtual_scanner() {
    VexelAlgorithm::Simulation::SequenceSettings settings;
    settings.width = 160;
    settings.height = 128;
    return VexelAlgorithm::Simulation::make_sequence("smooth", settings);
}

inline VexelAlgorithm::CommonParameter common_parameter(const VexelAlgorithm::Simulation::Sequence& scanner) {
    VexelAlgorithm::CommonParameter common;
    common.imageSize = {scanner.width, scanner.height};
    common.campar = scanner.camera;
    common.sample = 1;
    common.rawPointDis = 1.6F;  // mm between neighbouring points
    return common;
}

inline VexelAlgorithm::FusionParameter fusion_parameter() {
    VexelAlgorithm::FusionParameter fusion;
    fusion.pointDis = 2.0F;  // mm, edge of the voxels
    fusion.treeDepth = 10;
    fusion.codeNumSet = 2;
    return fusion;
}
