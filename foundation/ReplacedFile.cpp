#include "foundation/ReplacedFile.h"

#include <locale>
#include <random>
#include <system_error>

namespace VexelAlgorithm {
namespace {

// Two writers of one file must not write into the same part.
std::filesystem::path part_path(const std::filesystem::path& path) {
    std::filesystem::path part = path;
    part += "." + std::to_string(std::random_device()()) + ".part";
    return part;
}

}  // namespace

ReplacedFile::ReplacedFile(const std::string& path) : _path(path), _partPath(part_path(_path)), _buffer(1 << 20) {
    _stream.imbue(std::locale::classic());
    _stream.rdbuf()->pubsetbuf(_buffer.data(), static_cast<std::streamsize>(_buffer.size()));
    _stream.open(_partPath, std::ios::binary | std::ios::trunc);
}

ReplacedFile::~ReplacedFile() {
    if (_stream.is_open()) _stream.close();
    std::error_code ignored;
    std::filesystem::remove(_partPath, ignored);
}

bool ReplacedFile::commit() {
    if (!_stream.is_open()) return false;
    _stream.close();
    if (_stream.fail()) return false;
    std::error_code error;
    std::filesystem::rename(_partPath, _path, error);
    return !error;
}

}  // namespace VexelAlgorithm
