// What fuzz targets share. A target is one function with the signature that libFuzzer calls; standalone.cpp calls the
// same function where there is no libFuzzer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace VexelFuzz {

/// What must hold whatever was read. Ends the program, which both drivers report together with the input.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The first byte of an input chooses among the readers of a target; it is cut off.
inline std::size_t take_choice(std::string_view& input, std::size_t count) {
    if (input.empty()) return 0;
    const std::size_t choice = static_cast<unsigned char>(input.front()) % count;
    input.remove_prefix(1);
    return choice;
}

/// The library prints a line for every refusal, which nobody reads here.
inline void stay_silent() {
    std::cout.rdbuf(nullptr);
}

/// Bytes for readers that take a path, in memory where the system has a place for that.
class InputFile {
public:
    explicit InputFile(const char* ending) {
        const std::filesystem::path inMemory = "/dev/shm";
        std::error_code error;
        const bool hasMemory = std::filesystem::is_directory(inMemory, error);
        _path = (hasMemory ? inMemory : std::filesystem::temp_directory_path()) /
                ("vexel-fuzz-" + std::to_string(std::random_device()()) + ending);
    }
    ~InputFile() {
        std::error_code ignored;
        std::filesystem::remove(_path, ignored);
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    const std::filesystem::path& hold(std::string_view bytes) {
        std::ofstream file(_path, std::ios::binary | std::ios::trunc);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        file.close();
        require(static_cast<bool>(file), "the input can be written to a file");
        return _path;
    }
    const std::filesystem::path& path() const { return _path; }

private:
    std::filesystem::path _path;
};

}  // namespace VexelFuzz
