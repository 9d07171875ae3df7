// Settings of texture-based tracking.
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

namespace VexelAlgorithm {

/// Handed to the texture tracker, which alone gives the settings, the flags and the token their meaning. The
/// zeros of the default leave every choice to it. Plain data of 56 bytes; the order of the fields is part of
/// the interface.
struct TextureParam {
    std::array<std::int32_t, 4> trackerSettings{};                  ///< copied unchanged
    std::array<float, 4> camera{2000.0F, 2000.0F, 639.5F, 511.5F};  ///< fx, fy, cx, cy of the texture camera, pixels
    std::int32_t featureCount = 1000;                               ///< features looked for in one image, at least 1
    std::array<std::uint8_t, 4> trackerFlags{};                     ///< each 0 or 1
    std::array<std::uint8_t, 3> matchFlags{};                       ///< each 0 or 1
    std::uint64_t trackerToken = 0;                                 ///< copied unchanged
};

static_assert(std::is_standard_layout_v<TextureParam> && std::is_trivially_copyable_v<TextureParam> &&
                  sizeof(TextureParam) == 56,
              "shared with the texture tracker as plain bytes");

}  // namespace VexelAlgorithm
