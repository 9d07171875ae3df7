#include "recording/files.h"

#include <system_error>

#include "recording/streamedFile.h"

namespace VexelAlgorithm {
namespace {

namespace fs = std::filesystem;

fs::path beside(const fs::path& path, const char* ending) {
    fs::path result = path;
    result += ending;
    return result;
}

using Content = std::function<bool(std::ofstream&)>;

Content content_of(std::string_view bytes) {
    return [bytes](std::ofstream& out) {
        return static_cast<bool>(out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())));
    };
}

bool write_content(const fs::path& path, const Content& write) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out || !write(out)) return false;
    out.close();
    return out.good();
}

}  // namespace

Outcome<std::string> read_whole_file(const fs::path& path, std::size_t limit) {
    std::error_code error;
    if (fs::is_directory(path, error)) return Failure{path.string() + " is a folder where a file is expected"};
    std::ifstream in(path, std::ios::binary);
    if (!in) return Failure{path.string() + " cannot be opened"};

    std::string bytes;
    char block[1 << 16];
    while (in.read(block, sizeof block), in.gcount() > 0) {
        bytes.append(block, static_cast<std::size_t>(in.gcount()));
        if (bytes.size() > limit) {
            return Failure{path.string() + " is larger than " + std::to_string(limit) + " bytes and was not read"};
        }
    }
    if (in.bad()) return Failure{path.string() + " cannot be read to its end"};
    return bytes;
}

Outcome<Done> write_whole_file(const fs::path& path, std::string_view bytes) {
    return write_streamed_file(path, content_of(bytes));
}

Outcome<Done> write_streamed_file(const fs::path& path, const Content& write) {
    const fs::path part = beside(path, ".part");
    std::error_code error;
    if (write_content(part, write)) {
        fs::rename(part, path, error);
        if (!error) return Done{};
    }
    const std::string reason = error ? " (" + error.message() + ")" : "";
    fs::remove(part, error);
    return Failure{path.string() + " cannot be written" + reason + "; check the folder and the space on the disk"};
}

Outcome<Done> prepare_output_folder(const fs::path& folder) {
    std::error_code error;
    if (fs::exists(folder, error) && !fs::is_directory(folder, error)) {
        return Failure{folder.string() + " is a file and cannot hold the output; name a folder"};
    }
    fs::create_directories(folder, error);
    if (error) {
        return Failure{"the output folder " + folder.string() + " cannot be made (" + error.message() +
                       "); name a folder that can be written"};
    }
    const fs::path probe = folder / ".vexel-write-probe";
    const bool writable = write_content(probe, content_of("probe"));
    fs::remove(probe, error);
    if (!writable) {
        return Failure{"the output folder " + folder.string() + " cannot be written; name a folder that can be"};
    }
    return Done{};
}

}  // namespace VexelAlgorithm
