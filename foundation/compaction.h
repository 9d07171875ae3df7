// Dropping marked entries from parallel arrays. Internal to the library.
#pragma once

#include <cstddef>
#include <vector>

namespace VexelAlgorithm {

/// Keeps the entries i for which `isKept(i)`, in their order.
template <class T, class Predicate>
void keep_entries(std::vector<T>& values, const Predicate& isKept) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (!isKept(i)) continue;
        if (kept != i) values[kept] = values[i];
        ++kept;
    }
    values.resize(kept);
}

}  // namespace VexelAlgorithm
