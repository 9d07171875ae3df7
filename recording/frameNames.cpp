#include "recording/frameNames.h"

#include <algorithm>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm {
namespace {

constexpr std::string_view framePrefix = "frame-";

}  // namespace

std::string frame_name(int number, std::string_view ending) {
    return format_text("frame-%06d", number) + std::string(ending);
}

std::optional<int> frame_number(const std::string& name, std::string_view ending) {
    const std::size_t frame = framePrefix.size() + ending.size();
    if (name.size() < frame + 6 || name.size() > frame + 9) return std::nullopt;
    const std::string digits = name.substr(framePrefix.size(), name.size() - frame);
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) return std::nullopt;
    const int number = std::stoi(digits);
    if (name != frame_name(number, ending)) return std::nullopt;
    return number;
}

}  // namespace VexelAlgorithm
