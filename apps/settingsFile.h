// Settings as YAML that explains itself.
#pragma once

#include <filesystem>
#include <string>

#include "apps/ScanSettings.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm::Apps {

/// All settings in OpenCV's YAML, a section a record, every field under a comment with its meaning and unit. Reads back
/// to the same settings, to the last bit. `title` becomes the first comment.
std::string settings_text(const ScanSettings& settings, const std::string& title);

/// The section of the stereo scanner alone, for the `settings.yml` of a recording.
std::string rig_settings_text(const ScanSettings& settings, const std::string& title);

/// Replaces what the text names and keeps the rest. Sections and fields that do not exist, values of another type or
/// number, and numbers that do not fit fail with one sentence that names the field, and change nothing. Whether values
/// make sense is for `check_settings`. The lines "%YAML:1.0" and "---" may be missing. Never throws.
Outcome<Done> read_settings_text(const std::string& text, ScanSettings& settings);
/// The same from a file of at most 64 KiB; the reason names the file.
Outcome<Done> read_settings_file(const std::filesystem::path& path, ScanSettings& settings);

}  // namespace VexelAlgorithm::Apps
