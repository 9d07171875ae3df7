// Settings that reconstruction and scan session share.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/CameraInParam.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// The defaults describe a hand-held speckle scanner with a 1.3 megapixel camera that works at about 400 mm.
struct CommonParameter {
    Vector2i imageSize{1280, 1024};       ///< width, height of the camera image, pixels
    Vector2i colorImageSize{1280, 1024};  ///< width, height of the colour image, pixels; (0, 0) without a colour camera
    int sample = 2;                       ///< one point per `sample` x `sample` pixels; 1 is full resolution
    float rawPointDis = 0.4F;             ///< nominal spacing of the points of a raw frame, mm
    std::string outputPath;               ///< directory of debug output; empty for the working directory
    std::uint32_t deviceTag = 0;  ///< the application's own mark of the device; handed on unchanged, never printed
    int scanType = 0;             ///< kind of scan; 0 is a hand-held scan
    CameraInParam campar{2000.0, 2000.0, 639.5, 511.5};  ///< intrinsics of the full-resolution rectified camera, pixels
};

}  // namespace VexelAlgorithm
