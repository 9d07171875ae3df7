// The peer: FastICPOdometry of OpenCV's rgbd module on the same pairs.
#pragma once

#include <benchmark/benchmark.h>

#include "bench/trackingData.h"

namespace VexelBench {

/// An iteration registers one pair of depth images from the pose of no motion. The pyramids, points and normals of the
/// moving image count, because the peer makes them itself; those of the fixed one do not, as it keeps them.
void fast_icp_odometry(benchmark::State& state, FramePairsSource source, VexelAlgorithm::ImageSize size);

}  // namespace VexelBench
