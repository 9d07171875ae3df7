// Whole files that are too large for the memory.
#pragma once

#include <filesystem>
#include <fstream>
#include <functional>

#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// Writes what `write` puts into a binary stream; it returns false when it cannot. Like `write_whole_file` beside the
/// place, where it is moved when complete.
Outcome<Done> write_streamed_file(const std::filesystem::path& path, const std::function<bool(std::ofstream&)>& write);

}  // namespace VexelAlgorithm
