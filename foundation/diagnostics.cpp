#include "foundation/diagnostics.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <mutex>

namespace VexelAlgorithm {
namespace {

void write_and_flush(const std::string& text) noexcept {
    static std::mutex mutex;
    try {
        const std::lock_guard<std::mutex> lock(mutex);
        std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
        std::cout.flush();
    } catch (...) {
        // A closed or throwing standard output must not end a scan.
    }
}

}  // namespace

void print_line(std::string_view line) {
    std::string text(line);
    text += '\n';
    write_and_flush(text);
}

void print_text(std::string_view text) {
    write_and_flush(std::string(text));
}

std::string format_text(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.resize(static_cast<std::size_t>(length));
    }
    va_end(again);
    return text;
}

}  // namespace VexelAlgorithm
