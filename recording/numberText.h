// Numbers in text files, the same in every locale.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// Exactly `count` numbers separated by white space, decimal point always '.'; NaN and infinities are read
/// as such. The reason of a failure is the cause alone, for the caller to put the file's name before it.
Outcome<std::vector<double>> parse_numbers(std::string_view text, std::size_t count);

/// The shortest text that reads back as the same number.
std::string number_text(double value);

}  // namespace VexelAlgorithm
