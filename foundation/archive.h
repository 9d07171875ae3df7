// Binary streams of plain values in machine byte order. Internal to the library.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm::Archive {

// Eigen's fixed-size vectors are plain floats in memory although the language does not call them trivially copyable.
template <class T>
struct IsPlain : std::is_trivially_copyable<T> {};
template <>
struct IsPlain<Vector3f> : std::true_type {};
template <>
struct IsPlain<std::array<Vector2f, 3>> : std::true_type {};
static_assert(sizeof(Vector3f) == 12 && sizeof(std::array<Vector2f, 3>) == 24, "vectors lie without padding");

template <class T>
bool write_value(std::ostream& out, const T& value) {
    static_assert(IsPlain<T>::value, "only plain values have a byte form");
    return static_cast<bool>(out.write(reinterpret_cast<const char*>(&value), sizeof(T)));
}

template <class T>
bool read_value(std::istream& in, T& value) {
    static_assert(IsPlain<T>::value, "only plain values have a byte form");
    T read{};
    if (!in.read(reinterpret_cast<char*>(&read), sizeof(T))) return false;
    value = read;
    return true;
}

/// The bytes of the entries without a count. `Array` is a std::vector or std::string.
template <class Array>
bool write_array(std::ostream& out, const Array& values) {
    using T = typename Array::value_type;
    static_assert(IsPlain<T>::value, "only plain values have a byte form");
    return static_cast<bool>(out.write(reinterpret_cast<const char*>(values.data()),
                                       static_cast<std::streamsize>(values.size() * sizeof(T))));
}

/// Reads `count` entries. The count is not trusted: memory grows by pieces, each after the bytes of the one
/// before it were really there.
template <class Array>
bool read_array(std::istream& in, std::uint64_t count, Array& values) {
    using T = typename Array::value_type;
    static_assert(IsPlain<T>::value, "only plain values have a byte form");
    constexpr std::uint64_t entriesPerPiece = (std::uint64_t{1} << 20) / sizeof(T);
    values.clear();
    if (count > values.max_size()) return false;
    for (std::uint64_t done = 0; done < count;) {
        const std::uint64_t piece = std::min(entriesPerPiece, count - done);
        values.resize(static_cast<std::size_t>(done + piece));
        if (!in.read(reinterpret_cast<char*>(values.data() + done), static_cast<std::streamsize>(piece * sizeof(T))))
            return false;
        done += piece;
    }
    return true;
}

}  // namespace VexelAlgorithm::Archive
