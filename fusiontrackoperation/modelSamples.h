// A sparse look at the surface of the model.
#pragma once

#include <cstddef>

#include "foundation/Cloud.h"
#include "fusion/FusionTsdf.h"
#include "fusion/LeafTSDFSpeckle.h"

namespace VexelAlgorithm {

/// Surface points of the model (mm, model coordinates) with their normals, out of the surface: those of evenly chosen
/// octets of leaves, `mostOctets` at most, so that time and memory are bounded however large the model is. The volume
/// is only read. The same for any number of threads.
Cloud sample_model(const Fusion::FusionTsdf<Fusion::LeafTSDFSpeckle>& volume, std::size_t mostOctets);

}  // namespace VexelAlgorithm
