// How the files of a frame are called.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace VexelAlgorithm {

/// "frame-NNNNNN" + ending, with at least six digits.
std::string frame_name(int number, std::string_view ending);

/// The number in "frame-NNNNNN" + ending; nothing for any other name.
std::optional<int> frame_number(const std::string& name, std::string_view ending);

}  // namespace VexelAlgorithm
