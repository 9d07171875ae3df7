// The bytes of mesh files, one format a file.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "recording/meshFile.h"

namespace VexelAlgorithm {

/// What a reader has to say against a file, to follow its name; null when all is well.
using MeshFault = const char*;
constexpr MeshFault BrokenMesh = "the mesh is broken or ends too early";

MeshFault read_obj(std::string_view text, MeshData& mesh);
MeshFault read_stl(std::string_view bytes, MeshData& mesh);
/// G. Turk, "The PLY polygon file format", 1994: text and both byte orders.
MeshFault read_ply(std::string_view bytes, MeshData& mesh);

/// Splits a polygon into a fan; its corners are indices from 0 on.
MeshFault add_polygon(const std::vector<std::int64_t>& corners, MeshData& mesh);

/// A value stored with its lowest byte first, on any machine.
template <class Value>
Value little_endian(const char* bytes) {
    std::array<unsigned char, sizeof(Value)> order{};
    std::memcpy(order.data(), bytes, order.size());
    std::uint64_t bits = 0;
    for (std::size_t i = order.size(); i > 0; --i) bits = bits << 8 | order[i - 1];
    Value value{};
    if constexpr (sizeof(Value) == 8) {
        std::memcpy(&value, &bits, sizeof(Value));
    } else {
        const auto low = static_cast<std::uint32_t>(bits);
        std::memcpy(&value, &low, sizeof(Value));
    }
    return value;
}

}  // namespace VexelAlgorithm
