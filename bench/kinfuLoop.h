// The peer: a scan loop put together from parts of OpenCV's rgbd module, on the same frames.
#pragma once

#include <benchmark/benchmark.h>

#include "bench/sessionData.h"

namespace VexelBench {

/// An iteration scans the whole sequence: FastICPOdometry registers each depth image against the depths that the hashed
/// volume shows from the pose before, the volume takes it and is rendered anew. The module's own settings but for the
/// voxel size, which is the session's. The first frame counts in no figure.
void kinfu_loop(benchmark::State& state, ScanSource source, VexelAlgorithm::ImageSize size);

}  // namespace VexelBench
