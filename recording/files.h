// Whole files in, whole files out.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// All bytes of a file of at most `limit` bytes.
Outcome<std::string> read_whole_file(const std::filesystem::path& path, std::size_t limit);

/// Writes beside the place and renames when complete, so that nobody ever sees a part of the file; when it
/// fails, an older file stays as it was.
Outcome<Done> write_whole_file(const std::filesystem::path& path, std::string_view bytes);

/// Makes the folder when it is missing and proves by a probe file that it can be written.
Outcome<Done> prepare_output_folder(const std::filesystem::path& folder);

}  // namespace VexelAlgorithm
