// The peers: the volumes of OpenCV's rgbd module on the same frames.
#pragma once

#include "bench/benchData.h"

namespace VexelBench {

/// Registers integration and raycast of the dense and of the hashed volume. The sequence must hold depth images.
void add_kinfu_volumes(const std::string& data, const Sequence* (*source)());

}  // namespace VexelBench
