// The trimming cut of a registration: the distance of a given rank, and the mean below it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VexelAlgorithm {
namespace Track {

/// The rank that keeps this share of `count` distances: their product cut off to an integer, within the valid ranks.
/// A share that is NaN keeps all.
std::size_t rank_of_share(std::size_t count, float share);

/// The element that stands at `rank` (from 0, below the count) when the values are sorted; exactly the one that
/// std::nth_element finds. Values are at least 0 and not NaN. The highest bits are counted first, and only the values
/// that share those of the wanted one are looked at again. `scratch` keeps its memory for the next call.
float element_of_rank(const float* values, std::size_t count, std::size_t rank, std::vector<float>& scratch,
                      int threads);

/// Mean (mm) of the values that are at most `cut`, summed in whole 1e-6 mm; 1e6 when there is none. Values are at least
/// 0 and not NaN.
double mean_up_to(const float* values, std::size_t count, float cut, int threads);

}  // namespace Track
}  // namespace VexelAlgorithm
