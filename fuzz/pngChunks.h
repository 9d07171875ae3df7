// The chunks of PNG files (ISO/IEC 15948): signature, then length, name, data and check sum again and again.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace VexelFuzz {

inline std::uint32_t png_check_sum(std::string_view bytes) {
    std::uint32_t sum = 0xffffffffU;
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) sum = (sum & 1U) != 0 ? 0xedb88320U ^ (sum >> 1) : sum >> 1;
    }
    return ~sum;
}

/// Gives each chunk that is whole the check sum of what it holds.
inline void mend_check_sums(std::string& bytes) {
    constexpr std::size_t frame = 12;  // length, name, check sum
    for (std::size_t chunk = 8; chunk + frame <= bytes.size();) {
        std::size_t length = 0;
        for (std::size_t i = 0; i < 4; ++i) length = length << 8 | static_cast<unsigned char>(bytes[chunk + i]);
        if (length > bytes.size() - chunk - frame) return;
        const std::uint32_t sum = png_check_sum(std::string_view(bytes).substr(chunk + 4, length + 4));
        for (std::size_t i = 0; i < 4; ++i) bytes[chunk + 8 + length + i] = static_cast<char>(sum >> (24 - 8 * i));
        chunk += frame + length;
    }
}

}  // namespace VexelFuzz
