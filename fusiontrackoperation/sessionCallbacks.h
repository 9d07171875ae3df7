// The functions of the application that a session may be given.
#pragma once

#include <vector>

#include "foundation/Cloud.h"
#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {

/// What a threaded frame was given with; only pointers to it pass through the library.
struct FusionparallelInputData;

/// A threaded frame was fused: display points, leaf indices, a count, the frame's points, the motion since the frame
/// before and the frame's pose (camera to model), the frame's input data, a status.
using FusionSuccessCallBack = void (*)(const Cloud&, const std::vector<int>&, int, const Cloud&, const RigidMatrix&,
                                       const RigidMatrix&, FusionparallelInputData*, int);
/// A threaded frame was rejected: its points and its input data.
using FusionFailCallBack = void (*)(const Cloud&, FusionparallelInputData*);
/// A threaded frame could not be used at all.
using IllegalInputCallBack = void (*)(FusionparallelInputData*);

}  // namespace VexelAlgorithm
