// One image of a camera that sees brightness alone, and its PNG file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "recording/DepthImage.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// 8-bit grey, row by row.
struct GreyPicture {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;
};

/// The size of an 8-bit grey PNG without decoding it, see `inspect_depth_png`.
Outcome<ImageSize> inspect_grey_picture(const std::filesystem::path& path);
/// Reads an 8-bit grey PNG whose every block is intact. Anything else is refused with the file's name and the cause.
/// Never throws.
Outcome<GreyPicture> read_grey_picture(const std::filesystem::path& path);

/// Writes an 8-bit grey PNG, fast rather than small; the file appears only when it is complete.
Outcome<Done> write_grey_png(const std::filesystem::path& path, const GreyPicture& picture);

}  // namespace VexelAlgorithm
