// The one place through which the library prints its lines.
#pragma once

#include <string>
#include <string_view>

#include "foundation/export.h"

namespace VexelAlgorithm {

/// Writes the text and a line end to standard output and flushes, or hands it to the application's function
/// (`foundation/diagnosticsCallBack.h`). Lines of several threads do not mix.
VEXEL_API void print_line(std::string_view line);
/// The same with the text as it stands, without a line end.
VEXEL_API void print_text(std::string_view text);

/// printf-style formatting into a string, for lines with numbers ("%d", "%f").
VEXEL_API std::string format_text(const char* format, ...);

}  // namespace VexelAlgorithm
