#include "foundation/BaseTriMesh.h"

#include <Eigen/Geometry>
#include <cmath>
#include <utility>

#include "foundation/archive.h"
#include "foundation/compaction.h"

namespace VexelAlgorithm {
namespace {

constexpr std::uint32_t archiveFaceNormals = 1;
constexpr std::uint32_t archiveFaceFlags = 2;
constexpr std::uint32_t archiveTexture = 4;

std::array<Vector2f, 3> zero_tex_coords() {
    return {Vector2f::Zero(), Vector2f::Zero(), Vector2f::Zero()};
}

Vector3f unit_or_zero(const Vector3d& direction) {
    const double length = direction.norm();
    return length > 0.0 && std::isfinite(length) ? Vector3f((direction / length).cast<float>()) : Vector3f::Zero();
}

}  // namespace

BaseTriMesh::BaseTriMesh() {
    BaseTriMesh::reset_type();
}

BaseTriMesh::BaseTriMesh(const BaseTriMesh& other)
    : Cloud(other),
      _faces(other._faces),
      _faceNormals(other._faceNormals),
      _faceFlags(other._faceFlags),
      _faceTexCoords(other._faceTexCoords),
      _textureName(other._textureName),
      _hasFaceNormals(other._hasFaceNormals),
      _hasFaceFlags(other._hasFaceFlags),
      _hasTexture(other._hasTexture) {
    BaseTriMesh::reset_type();
}

BaseTriMesh::BaseTriMesh(BaseTriMesh&& other) noexcept : BaseTriMesh() {
    swap_content(other);
}

BaseTriMesh& BaseTriMesh::operator=(const BaseTriMesh& other) {
    Cloud::operator=(other);
    _faces = other._faces;
    _faceNormals = other._faceNormals;
    _faceFlags = other._faceFlags;
    _faceTexCoords = other._faceTexCoords;
    _textureName = other._textureName;
    _hasFaceNormals = other._hasFaceNormals;
    _hasFaceFlags = other._hasFaceFlags;
    _hasTexture = other._hasTexture;
    return *this;
}

BaseTriMesh& BaseTriMesh::operator=(BaseTriMesh&& other) noexcept {
    BaseTriMesh taken(std::move(other));
    swap_content(taken);
    return *this;
}

BaseTriMesh::~BaseTriMesh() = default;

void BaseTriMesh::swap_content(BaseTriMesh& other) noexcept {
    Cloud::swap_content(other);
    _faces.swap(other._faces);
    _faceNormals.swap(other._faceNormals);
    _faceFlags.swap(other._faceFlags);
    _faceTexCoords.swap(other._faceTexCoords);
    _textureName.swap(other._textureName);
    std::swap(_hasFaceNormals, other._hasFaceNormals);
    std::swap(_hasFaceFlags, other._hasFaceFlags);
    std::swap(_hasTexture, other._hasTexture);
}

void BaseTriMesh::set_faces(std::vector<BaseTriFace> faces) {
    _faces = std::move(faces);
    resize_fn(_faces.size());
}

void BaseTriMesh::resize_fn(std::size_t count) {
    _faces.resize(count);
    if (_hasFaceNormals) _faceNormals.resize(count, Vector3f::Zero());
    if (_hasFaceFlags) _faceFlags.resize(count);
    if (_hasTexture) _faceTexCoords.resize(count, zero_tex_coords());
}

void BaseTriMesh::enable_fNormal() {
    _faceNormals.resize(get_fn(), Vector3f::Zero());
    _hasFaceNormals = true;
}

void BaseTriMesh::enable_fFlag() {
    _faceFlags.resize(get_fn());
    _hasFaceFlags = true;
}

void BaseTriMesh::set_fDeleted(std::size_t i, bool deleted) {
    if (!_hasFaceFlags) enable_fFlag();
    _faceFlags[i].set(FaceFlag::Deleted, deleted);
}

void BaseTriMesh::enable_texture() {
    _faceTexCoords.resize(get_fn(), zero_tex_coords());
    _hasTexture = true;
}

bool BaseTriMesh::has_all_corners(std::size_t i) const {
    for (const std::int32_t v : _faces[i].v)
        if (v < 0 || static_cast<std::size_t>(v) >= get_vn()) return false;
    return true;
}

void BaseTriMesh::update_VNrv() {
    std::vector<Vector3d> sums(get_vn(), Vector3d::Zero());
    for (std::size_t i = 0; i < get_fn(); ++i) {
        Vector3d areaNormal = Vector3d::Zero();  // twice the area long
        if (has_all_corners(i)) {
            const BaseTriFace& face = _faces[i];
            const Vector3d origin = _coords[face[0]].cast<double>();
            areaNormal = (_coords[face[1]].cast<double>() - origin).cross(_coords[face[2]].cast<double>() - origin);
        }
        if (_hasFaceNormals) _faceNormals[i] = unit_or_zero(areaNormal);
        if (get_fDeleted(i) || !areaNormal.allFinite() || areaNormal.isZero(0.0)) continue;
        for (const std::int32_t v : _faces[i].v) sums[v] += areaNormal;
    }
    enable_vNormal();
    for (std::size_t i = 0; i < get_vn(); ++i) _normals[i] = unit_or_zero(sums[i]);
}

void BaseTriMesh::clear() {
    Cloud::clear();
    _faces.clear();
    _faceNormals.clear();
    _faceFlags.clear();
    _faceTexCoords.clear();
    _textureName.clear();
}

void BaseTriMesh::reset_type() {
    set_type(DataType::BaseTriMesh);
}

bool BaseTriMesh::is_legal() const {
    const std::size_t fn = get_fn();
    return Cloud::is_legal() && _faceNormals.size() == (_hasFaceNormals ? fn : 0) &&
           _faceFlags.size() == (_hasFaceFlags ? fn : 0) && _faceTexCoords.size() == (_hasTexture ? fn : 0);
}

void BaseTriMesh::repair_illegal() {
    Cloud::repair_illegal();
    BaseTriMesh::resize_fn(get_fn());
}

void BaseTriMesh::squeeze(bool releaseMemory) {
    BaseTriMesh::repair_illegal();
    constexpr std::int32_t dropped = -1;
    std::vector<std::int32_t> newIndex(get_vn(), dropped);
    std::int32_t next = 0;
    for (std::size_t i = 0; i < get_vn(); ++i)
        if (!get_vDeleted(i)) newIndex[i] = next++;

    std::vector<std::uint8_t> isFaceKept(get_fn(), 0);
    for (std::size_t i = 0; i < get_fn(); ++i) {
        if (get_fDeleted(i) || !has_all_corners(i)) continue;
        for (std::int32_t& v : _faces[i].v) v = newIndex[v];
        isFaceKept[i] = _faces[i][0] != dropped && _faces[i][1] != dropped && _faces[i][2] != dropped;
    }
    const auto isKept = [&isFaceKept](std::size_t i) { return isFaceKept[i] != 0; };
    keep_entries(_faces, isKept);
    keep_entries(_faceNormals, isKept);
    keep_entries(_faceFlags, isKept);
    keep_entries(_faceTexCoords, isKept);
    if (releaseMemory) {
        _faces.shrink_to_fit();
        _faceNormals.shrink_to_fit();
        _faceFlags.shrink_to_fit();
        _faceTexCoords.shrink_to_fit();
    }
    Cloud::squeeze(releaseMemory);
}

int BaseTriMesh::swap_out_data() {
    return Cloud::swap_out_data();
}

int BaseTriMesh::swap_in_data() {
    return Cloud::swap_in_data();
}

void BaseTriMesh::rigid_transformation(const RigidMatrix& rt) {
    Cloud::rigid_transformation(rt);
    for (Vector3f& normal : _faceNormals) normal = rt.transform_normal(normal);
}

bool BaseTriMesh::write_archive(std::ostream& out) const {
    if (!is_legal()) return false;
    try {
        const std::uint32_t attributes = (_hasFaceNormals ? archiveFaceNormals : 0) |
                                         (_hasFaceFlags ? archiveFaceFlags : 0) | (_hasTexture ? archiveTexture : 0);
        return write_vertices(out, nullptr) && Archive::write_value(out, attributes) &&
               Archive::write_value(out, static_cast<std::uint64_t>(get_fn())) && Archive::write_array(out, _faces) &&
               Archive::write_array(out, _faceNormals) && Archive::write_array(out, _faceFlags) &&
               Archive::write_array(out, _faceTexCoords) &&
               Archive::write_value(out, static_cast<std::uint64_t>(_textureName.size())) &&
               Archive::write_array(out, _textureName);
    } catch (...) {
        return false;
    }
}

bool BaseTriMesh::read_archive(std::istream& in) {
    try {
        BaseTriMesh read;
        if (!read.read_vertices(in, nullptr, nullptr) || !read.read_faces(in)) return false;
        *this = std::move(read);
        return true;
    } catch (...) {
        return false;
    }
}

bool BaseTriMesh::read_faces(std::istream& in) {
    std::uint32_t attributes = 0;
    std::uint64_t fn = 0;
    std::uint64_t nameLength = 0;
    if (!Archive::read_value(in, attributes) || !Archive::read_value(in, fn)) return false;
    if ((attributes & ~(archiveFaceNormals | archiveFaceFlags | archiveTexture)) != 0) return false;
    _hasFaceNormals = (attributes & archiveFaceNormals) != 0;
    _hasFaceFlags = (attributes & archiveFaceFlags) != 0;
    _hasTexture = (attributes & archiveTexture) != 0;
    return Archive::read_array(in, fn, _faces) && (!_hasFaceNormals || Archive::read_array(in, fn, _faceNormals)) &&
           (!_hasFaceFlags || Archive::read_array(in, fn, _faceFlags)) &&
           (!_hasTexture || Archive::read_array(in, fn, _faceTexCoords)) && Archive::read_value(in, nameLength) &&
           Archive::read_array(in, nameLength, _textureName);
}

}  // namespace VexelAlgorithm
