// The handle functions of the choice of exposure.
#pragma once

#include <string>
#include <vector>

#include "exposure/autoExposureC.h"
#include "foundation/RetVal.h"
#include "foundation/export.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// Creates a calculator; the arguments are those of `autoExposureC`. Null, with a line, for a size that cannot be used.
/// A null handle prints "fail because pTemp == NULL " in all functions below, which then return `RET_INI_ERROR` and
/// change nothing.
VEXEL_API void* autoexposure_ini(const unsigned char* refImage, Vector2i& size, const Vector4i& roi,
                                 std::string debugPath) noexcept;

/// Measures a series of images of the calculator's size and chooses one, counted from 0. Images that are null print a
/// line and are left out of the choice; when no image is left `bestIndex` is -1 and the result `RET_INPUT_ERROR`.
VEXEL_API RetVal exposureparameter_claculation(void* handle, std::vector<unsigned char*> images,
                                               int& bestIndex) noexcept;
VEXEL_API RetVal exposureparameter_claculation(void* handle, std::vector<char*> images, int& bestIndex) noexcept;
/// The choice of the last series, -1 with `RET_INPUT_ERROR` as above; `RET_STATE_ERROR`, with a line, before the first.
VEXEL_API RetVal bestexposureindex(void* handle, int& bestIndex) noexcept;
/// Debug mode on or off; see `autoExposureC::debug_mode`.
VEXEL_API RetVal autoexposure_debug_mode(void* handle, bool isDebug) noexcept;
/// Destroys the calculator and nulls the caller's handle.
VEXEL_API RetVal autoexposure_release(void*& handle) noexcept;

/// All in one call. `refImage` may be null. `isDebug`: in debug mode. `isWholeImage`: `roi` is not looked at, and the
/// region is all but a margin of 10 pixels. `RET_INPUT_ERROR` with `bestIndex` -1 when the size cannot be used or no
/// image is left.
VEXEL_API RetVal autoexposure(const std::vector<char*>& images, int& bestIndex, Vector2i& size, const Vector4i& roi,
                              char* refImage, bool isDebug, bool isWholeImage, const std::string& debugPath) noexcept;

}  // namespace VexelAlgorithm
