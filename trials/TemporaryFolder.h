// A folder of one test or one run of fuzzing that goes away with it.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace VexelTrial {

class TemporaryFolder {
public:
    TemporaryFolder() {
        static std::atomic<int> count{0};
        const auto ticks = std::chrono::steady_clock::now().time_since_epoch().count();
        const std::string name = "vexel-test-" + std::to_string(ticks) + '-' + std::to_string(count++);
        _path = std::filesystem::temp_directory_path() / name;
        std::filesystem::create_directories(_path);
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return _path; }
    std::size_t file_count() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(_path), {}));
    }

private:
    std::filesystem::path _path;
};

inline std::string bytes_of(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::vector<std::string> lines_of(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline void put_bytes(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace VexelTrial
