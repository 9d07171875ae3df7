// What travels with a frame of the threaded input.
#pragma once

#include <cstdint>

#include "foundation/ColorImage.h"
#include "fusiontrackoperation/FusionScanState.h"

namespace VexelAlgorithm {

/// Given with a frame, copied, and shown to the callback that reports the frame; the pointer that the callback gets is
/// valid until it returns.
struct FusionparallelInputData {
    std::int64_t frameId = 0;  ///< the application's; joins a frame with its colour image
    void* user = nullptr;      ///< the application's; never followed

    // How the frame is queued.
    int maxQueued = 4;                ///< frames that may wait when this one has come, itself included; 1 to 256
    int waitMilliseconds = 0;         ///< with no room: 0 refuses at once, more waits for room so long; at most 60000
    int colorWaitMilliseconds = 100;  ///< how long a frame from `..._load_cloud` waits for its colour; at most 60000

    // How it is tracked and fused: `fusion_and_track_with_speed_limit` says what goes in and what comes out.
    bool fuse = true;
    int contribution = 0;
    int frameTimeGap = -1;
    int speedState = -1;

    bool showData = true;  ///< whether the success callback is given display points and leaf ids

    // Filled in for the callback; what was given is ignored.
    FrameOutcome outcome = FrameOutcome::NoFrameYet;
    int queuedMicroseconds = 0;   ///< from the frame's arrival to the beginning of its step
    int elapsedMicroseconds = 0;  ///< of the step
    ColorImage color;             ///< without pixels when none has come
};

}  // namespace VexelAlgorithm
