#include "foundation/Cloud.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "foundation/archive.h"
#include "foundation/boundBox.h"
#include "foundation/compaction.h"

namespace VexelAlgorithm {
namespace {

constexpr std::uint32_t archiveNormals = 1;
constexpr std::uint32_t archiveColors = 2;
constexpr std::uint32_t archiveFlags = 4;
constexpr std::uint32_t archiveWeights = 8;

bool remove_file(const std::wstring& name) noexcept {
    try {
        std::error_code error;
        return std::filesystem::remove(std::filesystem::path(name), error) && !error;
    } catch (...) {
        return false;
    }
}

bool write_file(const std::wstring& name, const Cloud& cloud) {
    std::ofstream out(std::filesystem::path(name), std::ios::binary | std::ios::trunc);
    if (!out || !cloud.write_archive(out)) return false;
    out.close();
    return !out.fail();
}

}  // namespace

Cloud::Cloud() {
    Cloud::reset_type();
}

Cloud::Cloud(const Cloud& other)
    : BaseData(other),
      _coords(other._coords),
      _normals(other._normals),
      _colors(other._colors),
      _flags(other._flags),
      _hasNormals(other._hasNormals),
      _hasColors(other._hasColors),
      _hasFlags(other._hasFlags) {
    Cloud::reset_type();
}

Cloud::Cloud(Cloud&& other) noexcept : Cloud() {
    swap_content(other);
}

Cloud& Cloud::operator=(const Cloud& other) {
    if (this == &other) return *this;
    discard_swapped_out();
    _coords = other._coords;
    _normals = other._normals;
    _colors = other._colors;
    _flags = other._flags;
    _hasNormals = other._hasNormals;
    _hasColors = other._hasColors;
    _hasFlags = other._hasFlags;
    return *this;
}

Cloud& Cloud::operator=(Cloud&& other) noexcept {
    Cloud taken(std::move(other));
    swap_content(taken);
    return *this;
}

Cloud::~Cloud() {
    discard_swapped_out();
}

void Cloud::swap_content(Cloud& other) noexcept {
    swap_temp_name(other);
    _coords.swap(other._coords);
    _normals.swap(other._normals);
    _colors.swap(other._colors);
    _flags.swap(other._flags);
    std::swap(_hasNormals, other._hasNormals);
    std::swap(_hasColors, other._hasColors);
    std::swap(_hasFlags, other._hasFlags);
    std::swap(_isSwappedOut, other._isSwappedOut);
}

void Cloud::discard_swapped_out() noexcept {
    if (!_isSwappedOut) return;
    _isSwappedOut = false;
    try {
        remove_file(get_temp_full_name());
    } catch (...) {
        // Without memory for the name the file stays; the system clears its temporary folder.
    }
}

void Cloud::enable_vNormal() {
    _normals.resize(get_vn(), Vector3f::Zero());
    _hasNormals = true;
}

void Cloud::disable_vNormal() {
    _normals = {};
    _hasNormals = false;
}

void Cloud::set_vNrvs(std::vector<Vector3f> normals) {
    _normals = std::move(normals);
    _hasNormals = true;
}

void Cloud::enable_vColor() {
    _colors.resize(get_vn(), Vector3f::Zero());
    _hasColors = true;
}

void Cloud::disable_vColor() {
    _colors = {};
    _hasColors = false;
}

void Cloud::enable_vFlag() {
    _flags.resize(get_vn());
    _hasFlags = true;
}

void Cloud::disable_vFlag() {
    _flags = {};
    _hasFlags = false;
}

void Cloud::set_vDeleted(std::size_t i, bool deleted) {
    if (!_hasFlags) enable_vFlag();
    _flags[i].set(VertexFlag::Deleted, deleted);
}

void Cloud::clear() {
    discard_swapped_out();
    _coords.clear();
    _normals.clear();
    _colors.clear();
    _flags.clear();
}

void Cloud::reserve_vn(std::size_t count) {
    _coords.reserve(count);
    if (_hasNormals) _normals.reserve(count);
    if (_hasColors) _colors.reserve(count);
    if (_hasFlags) _flags.reserve(count);
}

void Cloud::resize_vn(std::size_t count) {
    _coords.resize(count, Vector3f::Zero());
    if (_hasNormals) _normals.resize(count, Vector3f::Zero());
    if (_hasColors) _colors.resize(count, Vector3f::Zero());
    if (_hasFlags) _flags.resize(count);
}

std::size_t Cloud::add_vCoord(const Vector3f& point) {
    const std::size_t index = get_vn();
    _coords.push_back(point);
    if (_hasNormals) _normals.push_back(Vector3f::Zero());
    if (_hasColors) _colors.push_back(Vector3f::Zero());
    if (_hasFlags) _flags.emplace_back();
    return index;
}

void Cloud::set_vCoords(const std::vector<Vector3f>& coords) {
    _coords = coords;
    Cloud::repair_illegal();
}

void Cloud::set_vCoords(std::vector<Vector3f>&& coords) {
    _coords = std::move(coords);
    Cloud::repair_illegal();
}

bool Cloud::get_boundBox(Vector3f& low, Vector3f& high) const {
    return bound_box(
        _coords, [this](std::size_t i) { return _coords[i].allFinite() && !get_vDeleted(i); }, low, high);
}

bool Cloud::is_legal() const {
    const std::size_t vn = get_vn();
    return _normals.size() == (_hasNormals ? vn : 0) && _colors.size() == (_hasColors ? vn : 0) &&
           _flags.size() == (_hasFlags ? vn : 0);
}

void Cloud::repair_illegal() {
    Cloud::resize_vn(get_vn());
}

void Cloud::reset_type() {
    set_type(DataType::Cloud);
}

void Cloud::squeeze(bool releaseMemory) {
    Cloud::repair_illegal();
    if (_hasFlags) {
        const auto isKept = [this](std::size_t i) { return !_flags[i].test(VertexFlag::Deleted); };
        keep_entries(_coords, isKept);
        keep_entries(_normals, isKept);
        keep_entries(_colors, isKept);
        _flags.erase(std::remove_if(_flags.begin(), _flags.end(),
                                    [](const VertexFlag& flag) { return flag.test(VertexFlag::Deleted); }),
                     _flags.end());
    }
    if (!releaseMemory) return;
    _coords.shrink_to_fit();
    _normals.shrink_to_fit();
    _colors.shrink_to_fit();
    _flags.shrink_to_fit();
}

int Cloud::swap_out_data() {
    if (_isSwappedOut) return 1;
    try {
        const std::wstring name = get_temp_full_name();
        if (!write_file(name, *this)) {
            remove_file(name);
            return 1;
        }
        clear();
        squeeze(true);
        _isSwappedOut = true;
        return 0;
    } catch (...) {
        return 1;
    }
}

int Cloud::swap_in_data() {
    if (!_isSwappedOut) return 1;
    try {
        const std::wstring name = get_temp_full_name();
        std::ifstream in(std::filesystem::path(name), std::ios::binary);
        _isSwappedOut = false;  // reading must not discard the file that it reads
        if (!in || !read_archive(in)) {
            _isSwappedOut = true;
            return 1;
        }
        in.close();
        remove_file(name);
        return 0;
    } catch (...) {
        _isSwappedOut = true;
        return 1;
    }
}

void Cloud::rigid_transformation(const RigidMatrix& rt) {
    for (Vector3f& point : _coords) point = rt * point;
    for (Vector3f& normal : _normals) normal = rt.transform_normal(normal);
}

bool Cloud::write_archive(std::ostream& out) const {
    try {
        return write_vertices(out, nullptr);
    } catch (...) {
        return false;
    }
}

bool Cloud::read_archive(std::istream& in) {
    try {
        Cloud read;
        if (!read.read_vertices(in, nullptr, nullptr)) return false;
        *this = std::move(read);
        return true;
    } catch (...) {
        return false;
    }
}

bool Cloud::write_vertices(std::ostream& out, const std::vector<float>* weights) const {
    if (!is_legal()) return false;
    const std::uint32_t attributes = (_hasNormals ? archiveNormals : 0) | (_hasColors ? archiveColors : 0) |
                                     (_hasFlags ? archiveFlags : 0) | (weights != nullptr ? archiveWeights : 0);
    return Archive::write_value(out, static_cast<std::int32_t>(get_type())) && Archive::write_value(out, attributes) &&
           Archive::write_value(out, static_cast<std::uint64_t>(get_vn())) && Archive::write_array(out, _coords) &&
           Archive::write_array(out, _normals) && Archive::write_array(out, _colors) &&
           Archive::write_array(out, _flags) && (weights == nullptr || Archive::write_array(out, *weights));
}

bool Cloud::read_vertices(std::istream& in, std::vector<float>* weights, bool* hasWeights) {
    std::int32_t type = 0;
    std::uint32_t attributes = 0;
    std::uint64_t vn = 0;
    if (!Archive::read_value(in, type) || !Archive::read_value(in, attributes) || !Archive::read_value(in, vn))
        return false;
    const std::uint32_t known =
        archiveNormals | archiveColors | archiveFlags | (weights != nullptr ? archiveWeights : 0);
    if (type != static_cast<std::int32_t>(get_type()) || (attributes & ~known) != 0) return false;

    _hasNormals = (attributes & archiveNormals) != 0;
    _hasColors = (attributes & archiveColors) != 0;
    _hasFlags = (attributes & archiveFlags) != 0;
    const bool withWeights = (attributes & archiveWeights) != 0;
    if (hasWeights != nullptr) *hasWeights = withWeights;
    return Archive::read_array(in, vn, _coords) && (!_hasNormals || Archive::read_array(in, vn, _normals)) &&
           (!_hasColors || Archive::read_array(in, vn, _colors)) &&
           (!_hasFlags || Archive::read_array(in, vn, _flags)) &&
           (!withWeights || Archive::read_array(in, vn, *weights));
}

}  // namespace VexelAlgorithm
