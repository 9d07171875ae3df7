// PNG files of one grey channel.
#pragma once

#include <filesystem>
#include <opencv2/core.hpp>

#include "recording/DepthImage.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm {

struct GreyPngKind {
    int bits;          ///< 8 or 16
    const char* name;  ///< what the image is, for "... is no depth image"
};

/// The size from the first bytes of the file; also looks at the last ones, so that a file that is cut short is found
/// without decoding it.
Outcome<ImageSize> inspect_grey_png(const std::filesystem::path& path, const GreyPngKind& kind);

/// The pixels, when every block of the file is intact. Anything else is refused with the file's name and the cause.
/// Never throws.
Outcome<cv::Mat> decode_grey_png(const std::filesystem::path& path, const GreyPngKind& kind);

}  // namespace VexelAlgorithm
