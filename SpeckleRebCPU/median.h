// The middle value.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace VexelAlgorithm {

/// Of an even number of values the upper one. They change places; at least one, no NaN.
template <class Value>
Value take_median(std::vector<Value>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace VexelAlgorithm
