// 8-bit grey images in files. Internal to the library.
#pragma once

#include <string>

#include "exposure/ByteImage.h"

namespace VexelAlgorithm {
namespace autoExposureFoot {

constexpr int LargestSide = 32767;  ///< pixels, of images that are measured

/// Reads a PNG or JPEG file as grey; colour is weighted. False for anything that is not one, or larger than
/// `LargestSide`, or that claims more pixels than files of its size can hold.
bool read_grey_file(const std::string& path, ByteImage& image);
/// A JPEG file of quality 90; false when it cannot be written.
bool write_jpeg(const std::string& path, const ByteImage& image);

}  // namespace autoExposureFoot
}  // namespace VexelAlgorithm
