#include "foundation/meshExport.h"

#include <Eigen/Geometry>
#include <OpenMesh/Core/IO/MeshIO.hh>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <exception>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/ReplacedFile.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm {
namespace {

int report_failure(const std::string& path, const std::string& reason) {
    print_line("cannot write " + path + ": " + reason);
    return 1;
}

// Runs a writer on the file's stream; whatever it throws becomes a line.
template <class Write>
int write_replaced(const std::string& path, const Write& write) {
    try {
        ReplacedFile file(path);
        if (!file.stream()) return report_failure(path, "the file cannot be created");
        if (!write(file.stream()) || !file.commit()) return report_failure(path, "writing failed");
        return 0;
    } catch (const std::exception& error) {
        return report_failure(path, error.what());
    } catch (...) {
        return report_failure(path, "writing failed");
    }
}

std::uint8_t color_byte(float value) {
    return static_cast<std::uint8_t>(std::lround(255.0f * (value > 0.0f ? std::min(value, 1.0f) : 0.0f)));
}

// ---- clouds as text -------------------------------------------------------------------------------

// One line of numbers in their shortest form that reads back to the same value.
class TextLine {
public:
    template <class Number>
    void add(Number value) {
        if (_length > 0) _text[_length++] = ' ';
        _length = static_cast<std::size_t>(
            std::to_chars(_text.data() + _length, _text.data() + _text.size(), value).ptr - _text.data());
    }
    void add(const Vector3f& values) {
        for (int i = 0; i < 3; ++i) add(values[i]);
    }
    void write_to(std::ostream& out) {
        _text[_length++] = '\n';
        out.write(_text.data(), static_cast<std::streamsize>(_length));
        _length = 0;
    }

private:
    std::array<char, 256> _text;  // ten numbers of at most sixteen characters
    std::size_t _length = 0;
};

void add_vertex(TextLine& line, const Cloud& cloud, std::size_t i) {
    line.add(cloud.get_vCoord(i));
    if (cloud.is_enable_vNormal()) line.add(cloud.get_vNrv(i));
    if (!cloud.is_enable_vColor()) return;
    for (int channel = 0; channel < 3; ++channel) line.add(static_cast<int>(color_byte(cloud.get_vColor(i)[channel])));
}

template <class IsWritten, class AddVertex>
int write_lines(const std::string& path, const Cloud& cloud, const IsWritten& isWritten, const AddVertex& addVertex) {
    if (!cloud.is_legal()) return report_failure(path, "the attributes of the cloud do not fit its vertices");
    return write_replaced(path, [&](std::ostream& out) {
        TextLine line;
        for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
            if (!isWritten(i)) continue;
            addVertex(line, i);
            line.write_to(out);
        }
        return out.good();
    });
}

// ---- meshes through OpenMesh ----------------------------------------------------------------------

// What a mesh file can hold, as plain arrays; attributes may be empty.
struct MeshArrays {
    std::vector<OpenMesh::Vec3f> points;
    std::vector<OpenMesh::Vec3f> normals;
    std::vector<OpenMesh::Vec3uc> colors;
    std::vector<std::array<int, 3>> faces;
};

OpenMesh::Vec3f to_open_mesh(const Vector3f& v) {
    return {v.x(), v.y(), v.z()};
}

// Shows the arrays to OpenMesh's writers. They only walk over vertices and faces, so no half-edges are needed, every
// triangle can be written, and all keep their order. The mesh of the base class stays empty.
class ArrayExporter : public OpenMesh::IO::ExporterT<TriMesh> {
public:
    explicit ArrayExporter(const MeshArrays& arrays) : ExporterT(_empty), _arrays(arrays) {}

    std::size_t n_vertices() const override { return _arrays.points.size(); }
    std::size_t n_faces() const override { return _arrays.faces.size(); }
    bool is_triangle_mesh() const override { return true; }
    bool has_vertex_normals() const override { return !_arrays.normals.empty(); }
    bool has_vertex_colors() const override { return !_arrays.colors.empty(); }
    bool has_face_normals() const override { return true; }

    OpenMesh::Vec3f point(OpenMesh::VertexHandle v) const override { return _arrays.points[v.idx()]; }
    // The OBJ writer asks for it whether or not the file is to have normals.
    OpenMesh::Vec3f normal(OpenMesh::VertexHandle v) const override {
        return has_vertex_normals() ? _arrays.normals[v.idx()] : OpenMesh::Vec3f(0.0f, 0.0f, 0.0f);
    }
    OpenMesh::Vec3uc color(OpenMesh::VertexHandle v) const override { return _arrays.colors[v.idx()]; }
    // The PLY writer asks for these forms even when the file has neither alpha nor wide colours.
    OpenMesh::Vec4uc colorA(OpenMesh::VertexHandle v) const override {
        const OpenMesh::Vec3uc& color = _arrays.colors[v.idx()];
        return {color[0], color[1], color[2], 255};
    }
    OpenMesh::Vec3ui colori(OpenMesh::VertexHandle v) const override {
        return OpenMesh::Vec3ui(_arrays.colors[v.idx()]);
    }

    unsigned int get_vhandles(OpenMesh::FaceHandle f, std::vector<OpenMesh::VertexHandle>& corners) const override {
        corners.clear();
        for (const int v : _arrays.faces[f.idx()]) corners.emplace_back(v);
        return 3;
    }
    // STL stores it; zero for a triangle without an area.
    OpenMesh::Vec3f normal(OpenMesh::FaceHandle f) const override {
        const std::array<int, 3>& face = _arrays.faces[f.idx()];
        const OpenMesh::Vec3d origin(_arrays.points[face[0]]);
        const OpenMesh::Vec3d direction =
            (OpenMesh::Vec3d(_arrays.points[face[1]]) - origin) % (OpenMesh::Vec3d(_arrays.points[face[2]]) - origin);
        const double length = direction.norm();
        return length > 0.0 ? OpenMesh::Vec3f(direction / length) : OpenMesh::Vec3f(0.0f, 0.0f, 0.0f);
    }

private:
    static const TriMesh _empty;
    const MeshArrays& _arrays;
};

const TriMesh ArrayExporter::_empty;

std::string lower_case_ending(const std::string& path) {
    std::string ending = std::filesystem::path(path).extension().string();
    for (char& letter : ending)
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    return ending;
}

// OpenMesh's writers tell what they do on its log stream, which goes to the error output of the process.
class QuietOpenMesh {
public:
    QuietOpenMesh() : _lock(mutex()), _wasEnabled(omlog().is_enabled()) { omlog().disable(); }
    QuietOpenMesh(const QuietOpenMesh&) = delete;
    QuietOpenMesh& operator=(const QuietOpenMesh&) = delete;
    ~QuietOpenMesh() {
        if (_wasEnabled) omlog().enable();
    }

private:
    static std::mutex& mutex() {
        static std::mutex shared;
        return shared;
    }

    std::lock_guard<std::mutex> _lock;
    bool _wasEnabled;
};

int write_arrays(const std::string& path, const MeshArrays& arrays, std::uint32_t options, int precision) {
    const std::string ending = lower_case_ending(path);
    const std::array<const char*, 4> formats{".ply", ".obj", ".stl", ".off"};
    if (std::find(formats.begin(), formats.end(), ending) == formats.end())
        return report_failure(path, "the ending is none of .ply, .obj, .stl, .off");

    OpenMesh::IO::Options fileOptions;
    if (ending != ".obj" && (options & MESH_WRITE_BINARY) != 0) fileOptions += OpenMesh::IO::Options::Binary;
    if (ending != ".stl" && !arrays.normals.empty()) fileOptions += OpenMesh::IO::Options::VertexNormal;
    if (ending != ".stl" && ending != ".obj" && !arrays.colors.empty())
        fileOptions += OpenMesh::IO::Options::VertexColor;
    return write_replaced(path, [&](std::ostream& out) {
        const QuietOpenMesh quiet;
        ArrayExporter exporter(arrays);
        return OpenMesh::IO::IOManager().write(out, ending, exporter, fileOptions, std::clamp(precision, 1, 17)) &&
               out.good();
    });
}

constexpr int leftOut = -1;

// Appends the face when all its corners are written.
void add_face(MeshArrays& arrays, const std::vector<int>& newIndex, const std::array<int, 3>& corners) {
    std::array<int, 3> face{};
    for (int i = 0; i < 3; ++i) {
        const int v = corners[i];
        if (v < 0 || static_cast<std::size_t>(v) >= newIndex.size() || newIndex[v] == leftOut) return;
        face[i] = newIndex[v];
    }
    arrays.faces.push_back(face);
}

MeshArrays arrays_of(const BaseTriMesh& mesh, bool withNormals, bool withColors) {
    MeshArrays arrays;
    std::vector<int> newIndex(mesh.get_vn(), leftOut);
    arrays.points.reserve(mesh.get_vn());
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        if (mesh.get_vDeleted(i)) continue;
        newIndex[i] = static_cast<int>(arrays.points.size());
        arrays.points.push_back(to_open_mesh(mesh.get_vCoord(i)));
        if (withNormals) arrays.normals.push_back(to_open_mesh(mesh.get_vNrv(i)));
        if (!withColors) continue;
        const Vector3f& color = mesh.get_vColor(i);
        arrays.colors.push_back({color_byte(color.x()), color_byte(color.y()), color_byte(color.z())});
    }
    arrays.faces.reserve(mesh.get_fn());
    for (std::size_t i = 0; i < mesh.get_fn(); ++i) {
        const BaseTriFace& face = mesh.get_face(i);
        if (!mesh.get_fDeleted(i)) add_face(arrays, newIndex, {face[0], face[1], face[2]});
    }
    return arrays;
}

MeshArrays arrays_of(const TriMesh& mesh, bool withNormals, bool withColors) {
    MeshArrays arrays;
    std::vector<int> newIndex(mesh.n_vertices(), leftOut);
    for (const auto v : mesh.vertices()) {  // skips deleted ones
        newIndex[v.idx()] = static_cast<int>(arrays.points.size());
        arrays.points.push_back(mesh.point(v));
        if (withNormals) arrays.normals.push_back(mesh.normal(v));
        if (withColors) arrays.colors.push_back(mesh.color(v));
    }
    for (const auto f : mesh.faces()) {
        std::array<int, 3> corners{};
        std::size_t i = 0;
        for (const auto v : mesh.fv_range(f)) corners[i++] = v.idx();
        add_face(arrays, newIndex, corners);
    }
    return arrays;
}

template <class Mesh>
int write_checked(const std::string& path, const Mesh& mesh, bool hasNormals, bool hasColors, std::uint32_t options,
                  int precision) {
    const bool withNormals = (options & MESH_WRITE_VERTEX_NORMAL) != 0;
    const bool withColors = (options & MESH_WRITE_VERTEX_COLOR) != 0;
    if (withNormals && !hasNormals) return report_failure(path, "the mesh has no vertex normals");
    if (withColors && !hasColors) return report_failure(path, "the mesh has no vertex colours");
    try {
        return write_arrays(path, arrays_of(mesh, withNormals, withColors), options, precision);
    } catch (const std::exception& error) {
        return report_failure(path, error.what());
    }
}

}  // namespace

int write_asc(const std::string& path, const Cloud& cloud) {
    return write_lines(
        path, cloud, [&](std::size_t i) { return !cloud.get_vDeleted(i); },
        [&](TextLine& line, std::size_t i) { add_vertex(line, cloud, i); });
}

int write_asc(const std::string& path, const PointImage& frame, bool allSlots) {
    return write_lines(
        path, frame, [&](std::size_t i) { return allSlots || (frame.has_point(i) && !frame.get_vDeleted(i)); },
        [&](TextLine& line, std::size_t i) { add_vertex(line, frame, i); });
}

int write_cloudWithWeight(const std::string& path, const CloudWithWeight& cloud) {
    return write_lines(
        path, cloud, [&](std::size_t i) { return !cloud.get_vDeleted(i); },
        [&](TextLine& line, std::size_t i) {
            add_vertex(line, cloud, i);
            if (cloud.is_enable_vWeight()) line.add(cloud.get_vWeight(i));
        });
}

int write_mesh(const std::string& path, const TriMesh& mesh, std::uint32_t options, int precision) {
    return write_checked(path, mesh, mesh.has_vertex_normals(), mesh.has_vertex_colors(), options, precision);
}

int write_mesh(const std::string& path, const BaseTriMesh& mesh, std::uint32_t options, int precision) {
    if (!mesh.is_legal()) return report_failure(path, "the attributes of the mesh do not fit its vertices or faces");
    return write_checked(path, mesh, mesh.is_enable_vNormal(), mesh.is_enable_vColor(), options, precision);
}

}  // namespace VexelAlgorithm
