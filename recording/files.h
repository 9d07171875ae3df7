// Whole files in, whole files out.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "recording/Outcome.h"

namespace VexelAlgorithm {

/// All bytes of a file of at most `limit` bytes.
Outcome<std::string> read_whole_file(const std::filesystem::path& path, std::size_t limit);

/// Reads a text file of at most 64 KiB and hands it to a parser; the failure names the file.
template <class T>
Outcome<T> read_text_as(const std::filesystem::path& path, Outcome<T> (*parse)(std::string_view)) {
    const Outcome<std::string> text = read_whole_file(path, std::size_t{1} << 16);
    if (!text) return text.failure();
    Outcome<T> value = parse(*text);
    if (!value) return Failure{path.string() + " is not usable: " + value.failure().reason};
    return value;
}

/// Writes beside the place and renames when complete, so that nobody ever sees a part of the file; when it
/// fails, an older file stays as it was.
Outcome<Done> write_whole_file(const std::filesystem::path& path, std::string_view bytes);

/// Makes the folder when it is missing and proves by a probe file that it can be written.
Outcome<Done> prepare_output_folder(const std::filesystem::path& folder);

}  // namespace VexelAlgorithm
