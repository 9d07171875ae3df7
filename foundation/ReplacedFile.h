// A file that takes its place only when it is complete. Internal to the library.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace VexelAlgorithm {

/// Writes beside `path` and moves the result there in `commit`. Without a successful commit the destructor
/// removes what was written, and an older file of the name stays.
class ReplacedFile {
public:
    explicit ReplacedFile(const std::string& path);
    ReplacedFile(const ReplacedFile&) = delete;
    ReplacedFile& operator=(const ReplacedFile&) = delete;
    ~ReplacedFile();

    /// Binary, with the "C" locale.
    std::ostream& stream() { return _stream; }
    /// False when anything of the file could not be written or it could not be moved to its place.
    bool commit();

private:
    std::filesystem::path _path;
    std::filesystem::path _partPath;
    std::vector<char> _buffer;
    std::ofstream _stream;
};

}  // namespace VexelAlgorithm
