// One-byte bit sets of vertices and faces.
#pragma once

#include <cstdint>

namespace VexelAlgorithm {

/// Independent bits of one vertex.
struct VertexFlag {
    static constexpr std::uint8_t Deleted = 1;   ///< dropped by `squeeze`
    static constexpr std::uint8_t Edge = 2;      ///< on a depth edge, set by `PointImage::find_egde_point`
    static constexpr std::uint8_t Selected = 4;  ///< chosen by the application
    static constexpr std::uint8_t Locked = 16;   ///< not to be changed by editing

    std::uint8_t bits = 0;

    bool test(std::uint8_t mask) const { return (bits & mask) != 0; }
    void set(std::uint8_t mask, bool on) { bits = static_cast<std::uint8_t>(on ? (bits | mask) : (bits & ~mask)); }
};

/// Independent bits of one face.
struct FaceFlag {
    static constexpr std::uint8_t Deleted = 1;

    std::uint8_t bits = 0;

    bool test(std::uint8_t mask) const { return (bits & mask) != 0; }
    void set(std::uint8_t mask, bool on) { bits = static_cast<std::uint8_t>(on ? (bits | mask) : (bits & ~mask)); }
};

static_assert(sizeof(VertexFlag) == 1 && sizeof(FaceFlag) == 1, "flags are one byte");

}  // namespace VexelAlgorithm
