// The handle functions of the CPU speckle reconstruction.
#pragma once

#include "SpeckleRebCPU/RebParam.h"
#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/export.h"

namespace VexelAlgorithm {

/// Creates a reconstruction: reads the calibration, rectifies, allocates. Prints the settings and the rectified
/// geometry, which ends with "SpeckleRebCpu ini done". As the settings hold no colour camera, "color camera par read
/// fail" is among the lines. Returns null, with a line that says why, when the settings or the calibration cannot be
/// used or memory runs out.
VEXEL_API void* speckle_rebuild_cpu_ini(const RebParam& param) noexcept;

/// Reconstructs one frame from raw 8-bit images of `imgSize`, row by row without padding. `result` must have
/// imgSize / sampleRatio slots; it gets normals and weights, and is emptied before anything else. Slot (x, y) holds
/// the point seen at rectified left pixel (x * sampleRatio, y * sampleRatio), in rectified-left camera coordinates
/// (mm), so that it projects onto itself with the rectified intrinsics divided by sampleRatio, which the result
/// carries as its camera. Normals face the camera; weights are the cosine between normal and viewing ray times the
/// correlation. Flags are left to the caller. `timeMs`: wall time of the call, ms, truncated; unchanged on failure.
/// Images without texture give an empty frame and success.
///
/// RET_INPUT_ERROR for null pointers and a result of another size, RET_RUN_FAIL when a stage fails. A handle must not
/// run two frames at once; different handles may.
VEXEL_API RetVal run_speckle_rebuild_cpu(void* handle, const unsigned char* left, const unsigned char* right,
                                         PointImage& result, int& timeMs) noexcept;

/// The pixel stage alone: leaves the depth range of the frame in the handle.
VEXEL_API RetVal run_speckle_rebuild_pixMatch_cpu(void* handle, const unsigned char* left, const unsigned char* right,
                                                  int& timeMs) noexcept;

/// The sub-pixel stage alone, within the depth range that the last pixel stage (or whole frame) left. RET_STATE_ERROR
/// when there is none. Both stages one after the other give what the whole frame gives.
VEXEL_API RetVal run_speckle_rebuild_subPix_cpu(void* handle, const unsigned char* left, const unsigned char* right,
                                                PointImage& result, int& timeMs) noexcept;

/// Destroys the object; the caller's handle is not touched.
VEXEL_API RetVal speckle_rebuild_cpu_release(void* handle) noexcept;

/// Debug dumps on or off: bitmaps of the images, text files of parallaxes and points, of frame number `frame` (counted
/// from 0 over all runs of the handle) or of every frame when negative. They go to `RebParam::debugPath`.
VEXEL_API RetVal should_we_debug(void* handle, bool isDebug, bool images, int frame, bool points) noexcept;
/// The same for a sequential reconstruction, which is made by the same function here.
VEXEL_API void should_we_debug_seq(void* handle, bool isDebug, bool images, int frame, bool points) noexcept;
/// Every kind of dump on or off.
VEXEL_API void is_debug_seq(void* handle, bool isDebug, int frame) noexcept;

}  // namespace VexelAlgorithm
