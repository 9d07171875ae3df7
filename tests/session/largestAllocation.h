#pragma once

#include <atomic>
#include <cstddef>

/// Bytes of the largest allocation of the program since it was set to zero.
extern std::atomic<std::size_t> largestAllocation;
