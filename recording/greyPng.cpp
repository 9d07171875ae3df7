#include "recording/greyPng.h"

#include <array>
#include <cstdint>
#include <exception>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <string_view>

#include "recording/files.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t largestFile = std::size_t{256} << 20;
constexpr std::uint32_t longestSide = 16384;

// The layout of a PNG file: signature, then chunks of length, name, data and check sum; the first chunk is
// IHDR with 13 bytes, the last IEND with none (ISO/IEC 15948).
constexpr std::string_view signature("\x89PNG\r\n\x1a\n", 8);
constexpr std::string_view lastChunk("\0\0\0\0IEND\xae\x42\x60\x82", 12);
constexpr std::size_t chunkFrame = 12;
constexpr std::size_t headerBytes = 8 + chunkFrame + 13;

std::uint32_t number_at(std::string_view bytes, std::size_t position) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[position + i]);
    return value;
}

std::array<std::uint32_t, 256> check_sum_table() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit) value = (value & 1) ? 0xedb88320u ^ (value >> 1) : value >> 1;
        table[byte] = value;
    }
    return table;
}

std::uint32_t check_sum(std::string_view bytes) {
    static const std::array<std::uint32_t, 256> table = check_sum_table();
    std::uint32_t sum = 0xffffffffu;
    for (const char byte : bytes) sum = table[(sum ^ static_cast<unsigned char>(byte)) & 0xff] ^ (sum >> 8);
    return ~sum;
}

/// The reason of a failure is the cause alone.
Outcome<ImageSize> parse_header(std::string_view bytes, const GreyPngKind& kind) {
    if (bytes.empty()) return Failure{"is empty"};
    if (bytes.substr(0, signature.size()) != signature.substr(0, bytes.size())) return Failure{"is not a PNG image"};
    if (bytes.size() < headerBytes) return Failure{"is cut short"};
    if (number_at(bytes, 8) != 13 || bytes.substr(12, 4) != "IHDR") return Failure{"is a damaged PNG image"};
    const std::uint32_t width = number_at(bytes, 16);
    const std::uint32_t height = number_at(bytes, 20);
    const int bits = bytes[24];
    const int colourType = bytes[25];
    if (bits != kind.bits || colourType != 0) {
        return Failure{std::string("is no ") + kind.name + ": it has " + std::to_string(bits) + " bits " +
                       (colourType == 0 ? "of grey" : "a colour") + ", needed are " + std::to_string(kind.bits) +
                       " bits of grey"};
    }
    if (width == 0 || height == 0 || width > longestSide || height > longestSide) {
        return Failure{"has an absurd size of " + std::to_string(width) + " x " + std::to_string(height) + " pixels"};
    }
    return ImageSize{static_cast<int>(width), static_cast<int>(height)};
}

/// Null when every chunk up to the last is there with the right check sum; otherwise the cause. The decoder
/// would print such findings to standard error by itself.
const char* find_damage(std::string_view bytes) {
    std::size_t position = signature.size();
    for (;;) {
        if (bytes.size() - position < chunkFrame) return "is cut short";
        const std::size_t length = number_at(bytes, position);
        if (bytes.size() - position - chunkFrame < length) return "is cut short";
        const std::string_view nameAndData = bytes.substr(position + 4, length + 4);
        position += chunkFrame + length;
        if (check_sum(nameAndData) != number_at(bytes, position - 4)) return "is damaged: a check sum is wrong";
        if (nameAndData == "IEND") return nullptr;
    }
}

/// Deflate packs at most 1032 bytes into one; the decoder would make room for all that the header claims.
bool can_hold(std::size_t fileBytes, const ImageSize& size, const GreyPngKind& kind) {
    constexpr std::size_t bestRatio = 1032;
    const auto pixels = static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height);
    return pixels * static_cast<std::size_t>(kind.bits / 8) <= bestRatio * fileBytes;
}

cv::Mat decode(std::string& bytes) {
    try {
        const cv::Mat encoded(1, static_cast<int>(bytes.size()), CV_8UC1, bytes.data());
        return cv::imdecode(encoded, cv::IMREAD_UNCHANGED);
    } catch (const std::exception&) {
        return {};
    }
}

Failure failure_of(const fs::path& path, const std::string& cause) {
    return {path.string() + ' ' + cause};
}

}  // namespace

Outcome<ImageSize> inspect_grey_png(const fs::path& path, const GreyPngKind& kind) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return failure_of(path, "cannot be opened");
    std::string head(headerBytes, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(in.gcount()));
    const Outcome<ImageSize> size = parse_header(head, kind);
    if (!size) return failure_of(path, size.failure().reason);

    std::string tail(lastChunk.size(), '\0');
    in.seekg(-static_cast<std::streamoff>(tail.size()), std::ios::end);
    in.read(tail.data(), static_cast<std::streamsize>(tail.size()));
    if (!in || tail != lastChunk) return failure_of(path, "is cut short");
    return size;
}

Outcome<cv::Mat> decode_grey_png(const fs::path& path, const GreyPngKind& kind) {
    Outcome<std::string> bytes = read_whole_file(path, largestFile);
    if (!bytes) return bytes.failure();
    const Outcome<ImageSize> size = parse_header(*bytes, kind);
    if (!size) return failure_of(path, size.failure().reason);
    if (const char* damage = find_damage(*bytes)) return failure_of(path, damage);
    if (!can_hold(bytes->size(), *size, kind)) return failure_of(path, "is damaged: it is too small for its image");

    const cv::Mat picture = decode(*bytes);
    const int expectedType = kind.bits == 16 ? CV_16UC1 : CV_8UC1;
    const bool isExpected = picture.type() == expectedType && ImageSize{picture.cols, picture.rows} == *size;
    if (!isExpected) return failure_of(path, "is damaged and cannot be decoded");
    return picture;
}

}  // namespace VexelAlgorithm
