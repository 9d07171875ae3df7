// The functions of the application that a session may be given.
#pragma once

#include <vector>

#include "foundation/Cloud.h"
#include "foundation/RigidMatrix.h"
#include "fusiontrackoperation/FusionparallelInputData.h"

namespace VexelAlgorithm {

// Each frame that the threaded input took is reported by exactly one call of one of these, on the session's worker
// thread, frame by frame in order. No lock of the library is held, and the function may use the session, but for what
// stops the worker: reset and release are refused with a line. What it throws is dropped with a line. References and
// pointers are valid until it returns.

/// A frame was accepted: the display points and the ids of the leaves that changed since the display before (none
/// without `showData`; ids may repeat), the number of accepted frames, the frame's points (camera coordinates as they
/// came, mm), the motion since the pose before and the frame's pose (camera to model), its input data, its
/// `FrameOutcome` as a number. The display points are those of `get_show_data`, for which this counts as a call.
using FusionSuccessCallBack = void (*)(const Cloud&, const std::vector<int>&, int, const Cloud&, const RigidMatrix&,
                                       const RigidMatrix&, FusionparallelInputData*, int);
/// A frame was rejected, or given up because reset or release came first (`outcome` tells): its points and its input
/// data.
using FusionFailCallBack = void (*)(const Cloud&, FusionparallelInputData*);
/// A frame could not be used at all: attributes missing, another size, not consistent in itself.
using IllegalInputCallBack = void (*)(FusionparallelInputData*);

}  // namespace VexelAlgorithm
