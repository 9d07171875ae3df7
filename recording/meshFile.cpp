#include "recording/meshFile.h"

#include <algorithm>
#include <cctype>
#include <optional>

#include "recording/files.h"
#include "recording/meshReaders.h"
#include "recording/words.h"

namespace VexelAlgorithm {

namespace {

constexpr std::size_t largestFile = std::size_t{2} << 30;  // and so fewer points than 32 bits can number
constexpr MeshFault WrongCorner = "a face of the mesh has a corner that does not exist";

std::optional<Vector3f> next_point(std::string_view& text) {
    Vector3f point;
    for (int axis = 0; axis < 3; ++axis) {
        const auto value = number_of<double>(next_word(text));
        if (!value) return std::nullopt;
        point[axis] = static_cast<float>(*value);
    }
    return point;
}

// ---- .obj ------------------------------------------------------------------------------------------

/// "f 1/5/2 2//3 -1": the first number of each word counts, from 1 on, or backwards from the last point.
MeshFault read_obj_face(std::string_view line, MeshData& mesh) {
    std::vector<std::int64_t> corners;
    for (std::string_view word = next_word(line); !word.empty(); word = next_word(line)) {
        const auto number = number_of<std::int64_t>(word.substr(0, word.find('/')));
        if (!number) return BrokenMesh;
        corners.push_back(*number > 0 ? *number - 1 : *number + static_cast<std::int64_t>(mesh.points.size()));
        if (*number == 0) return WrongCorner;
    }
    return add_polygon(corners, mesh);
}

}  // namespace

MeshFault read_obj(std::string_view text, MeshData& mesh) {
    while (!text.empty()) {
        std::string_view line = next_line(text);
        const std::string_view kind = next_word(line);
        if (kind == "v") {
            const std::optional<Vector3f> point = next_point(line);
            if (!point) return BrokenMesh;
            mesh.points.push_back(*point);
        } else if (kind == "f") {
            if (const MeshFault fault = read_obj_face(line, mesh)) return fault;
        }
    }
    return nullptr;
}

namespace {

// ---- .stl ------------------------------------------------------------------------------------------

constexpr std::size_t stlHead = 84;
constexpr std::size_t stlFacet = 50;

void close_facet(MeshData& mesh) {
    const int count = static_cast<int>(mesh.points.size());
    mesh.triangles.emplace_back(count - 3, count - 2, count - 1);
}

MeshFault read_binary_stl(std::string_view bytes, MeshData& mesh) {
    if (bytes.size() < stlHead) return BrokenMesh;
    const std::size_t count = little_endian<std::uint32_t>(bytes.data() + stlHead - 4);
    if (count > (bytes.size() - stlHead) / stlFacet) return BrokenMesh;
    for (std::size_t facet = 0; facet < count; ++facet) {
        const char* corners = bytes.data() + stlHead + facet * stlFacet + 12;
        for (int corner = 0; corner < 3; ++corner, corners += 12)
            mesh.points.emplace_back(little_endian<float>(corners), little_endian<float>(corners + 4),
                                     little_endian<float>(corners + 8));
        close_facet(mesh);
    }
    return nullptr;
}

MeshFault read_text_stl(std::string_view text, MeshData& mesh) {
    for (std::string_view word = next_word(text); !word.empty(); word = next_word(text)) {
        if (word != "vertex") continue;
        const std::optional<Vector3f> point = next_point(text);
        if (!point) return BrokenMesh;
        mesh.points.push_back(*point);
        if (mesh.points.size() % 3 == 0) close_facet(mesh);
    }
    return mesh.points.size() % 3 == 0 ? nullptr : BrokenMesh;
}

}  // namespace

/// Binary files may begin like text ones; then the size tells.
MeshFault read_stl(std::string_view bytes, MeshData& mesh) {
    const bool hasSizeOfBinary =
        bytes.size() >= stlHead &&
        bytes.size() == stlHead + stlFacet * std::size_t{little_endian<std::uint32_t>(bytes.data() + stlHead - 4)};
    const bool isText = bytes.substr(0, 5) == "solid" && !hasSizeOfBinary;
    return isText ? read_text_stl(bytes, mesh) : read_binary_stl(bytes, mesh);
}

MeshFault add_polygon(const std::vector<std::int64_t>& corners, MeshData& mesh) {
    const auto count = static_cast<std::int64_t>(mesh.points.size());
    const auto exists = [count](std::int64_t corner) { return corner >= 0 && corner < count; };
    if (!std::all_of(corners.begin(), corners.end(), exists)) return WrongCorner;
    const auto corner = [&](std::size_t i) { return static_cast<int>(corners[i]); };
    for (std::size_t i = 2; i < corners.size(); ++i) mesh.triangles.emplace_back(corner(0), corner(i - 1), corner(i));
    return nullptr;
}

namespace {

std::string lower_case_ending(const std::filesystem::path& path) {
    std::string ending = path.extension().string();
    for (char& letter : ending) letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return ending;
}

}  // namespace

Outcome<MeshData> read_mesh_file(const std::filesystem::path& path) {
    const auto failed = [&](const std::string& reason) { return Failure{path.string() + ": " + reason}; };
    const std::string ending = lower_case_ending(path);
    const auto reader = ending == ".ply"   ? read_ply
                        : ending == ".obj" ? read_obj
                        : ending == ".stl" ? read_stl
                                           : nullptr;
    if (reader == nullptr) return failed("is no mesh file, the ending is none of .ply, .obj, .stl");
    const Outcome<std::string> bytes = read_whole_file(path, largestFile);
    if (!bytes) return bytes.failure();
    if (bytes->empty()) return failed("the file is empty");
    MeshData mesh;
    if (const MeshFault fault = reader(*bytes, mesh)) return failed(fault);
    if (mesh.triangles.empty()) return failed("the mesh has no faces");
    if (!std::all_of(mesh.points.begin(), mesh.points.end(), [](const Vector3f& p) { return p.allFinite(); }))
        return failed("a coordinate of the mesh is not a finite number");
    return mesh;
}

}  // namespace VexelAlgorithm
