#include "foundation/PointImage.h"

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <utility>

#include "foundation/archive.h"
#include "foundation/boundBox.h"
#include "foundation/diagnostics.h"

namespace VexelAlgorithm {
namespace {

constexpr std::uint64_t maxSlots = std::numeric_limits<std::int32_t>::max();

std::uint64_t slot_number(int width, int height) {
    return static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height);
}

}  // namespace

PointImage::PointImage() {
    PointImage::reset_type();
}

PointImage::PointImage(const PointImage& other)
    : CloudWithWeight(other),
      _width(other._width),
      _height(other._height),
      _camera(other._camera),
      _sample(other._sample),
      _viewRadial(other._viewRadial),
      _rt(other._rt) {
    PointImage::reset_type();
}

PointImage::PointImage(PointImage&& other) noexcept : PointImage() {
    swap_content(other);
}

PointImage& PointImage::operator=(const PointImage& other) {
    CloudWithWeight::operator=(other);
    _width = other._width;
    _height = other._height;
    _camera = other._camera;
    _sample = other._sample;
    _viewRadial = other._viewRadial;
    _rt = other._rt;
    return *this;
}

PointImage& PointImage::operator=(PointImage&& other) noexcept {
    PointImage taken(std::move(other));
    swap_content(taken);
    return *this;
}

PointImage::~PointImage() = default;

void PointImage::swap_content(PointImage& other) noexcept {
    CloudWithWeight::swap_content(other);
    std::swap(_width, other._width);
    std::swap(_height, other._height);
    std::swap(_camera, other._camera);
    std::swap(_sample, other._sample);
    std::swap(_viewRadial, other._viewRadial);
    std::swap(_rt, other._rt);
}

void PointImage::ini(int width, int height) {
    clear();
    _rt.set_identity();
    width = std::max(width, 0);
    height = std::max(height, 0);
    try {
        if (slot_number(width, height) > maxSlots) throw std::bad_alloc();
        resize_vn(static_cast<std::size_t>(slot_number(width, height)));
    } catch (const std::bad_alloc&) {
        clear();
        print_line(format_text("a point image of %d x %d slots is too large", width, height));
        return;
    }
    _width = width;
    _height = height;
}

void PointImage::ini(int width, int height, const CameraInParam& camera, int sample, const Vector2f& viewRadial) {
    ini(width, height);
    _camera = camera;
    _sample = sample;
    _viewRadial = viewRadial;
}

void PointImage::to_ori_coor() {
    move_slots(_rt.inverse());
    _rt.set_identity();
}

int PointImage::count_vaildNum() const {
    int count = 0;
    for (std::size_t i = 0; i < get_vn(); ++i) count += has_point(i) ? 1 : 0;
    return count;
}

void PointImage::setZero() {
    std::fill(_coords.begin(), _coords.end(), Vector3f::Zero());
    std::fill(_normals.begin(), _normals.end(), Vector3f::Zero());
    std::fill(_colors.begin(), _colors.end(), Vector3f::Zero());
    std::fill(_flags.begin(), _flags.end(), VertexFlag());
    std::fill(_weights.begin(), _weights.end(), 0.0f);
}

void PointImage::set_slot_empty(std::size_t index) {
    _coords[index].setZero();
    if (_hasNormals) _normals[index].setZero();
    if (_hasColors) _colors[index].setZero();
    if (_hasFlags) _flags[index] = VertexFlag();
    if (_hasWeights) _weights[index] = 0.0f;
}

Vector3f PointImage::get_ray_direct(std::size_t index) const {
    const std::size_t width = static_cast<std::size_t>(_width);
    const Vector2d pixel(static_cast<double>(index % width) + static_cast<double>(_viewRadial.x()),
                         static_cast<double>(index / width) + static_cast<double>(_viewRadial.y()));
    Vector3d onRay;
    _camera.depth_to_point(1.0, pixel, onRay);
    return onRay.normalized().cast<float>();
}

void PointImage::clear() {
    CloudWithWeight::clear();
    _width = 0;
    _height = 0;
}

void PointImage::reset_type() {
    set_type(DataType::PointImage);
}

void PointImage::squeeze(bool releaseMemory) {
    PointImage::repair_illegal();
    for (std::size_t i = 0; i < get_vn(); ++i)
        if (get_vDeleted(i)) set_slot_empty(i);
    CloudWithWeight::squeeze(releaseMemory);  // nothing is marked any more
}

bool PointImage::get_boundBox(Vector3f& low, Vector3f& high) const {
    return bound_box(
        _coords, [this](std::size_t i) { return has_point(i) && !get_vDeleted(i); }, low, high);
}

bool PointImage::is_legal() const {
    return CloudWithWeight::is_legal() && static_cast<std::uint64_t>(get_vn()) == slot_number(_width, _height);
}

void PointImage::repair_illegal() {
    resize_vn(static_cast<std::size_t>(slot_number(_width, _height)));
}

void PointImage::rigid_transformation(const RigidMatrix& rt) {
    move_slots(rt);
    _rt = rt * _rt;
}

void PointImage::move_slots(const RigidMatrix& rt) {
    for (std::size_t i = 0; i < get_vn(); ++i) {
        if (!has_point(i)) continue;
        _coords[i] = rt * _coords[i];
        // A point that lands on the origin must not read as an empty slot.
        if (_coords[i] == Vector3f::Zero()) _coords[i].z() = std::numeric_limits<float>::min();
    }
    for (Vector3f& normal : _normals) normal = rt.transform_normal(normal);
}

bool PointImage::write_archive(std::ostream& out) const {
    try {
        const std::array<std::int32_t, 3> size{_width, _height, _sample};
        const std::array<float, 2> radial{_viewRadial.x(), _viewRadial.y()};
        return CloudWithWeight::write_archive(out) && Archive::write_value(out, size) &&
               Archive::write_value(out, radial) && _camera.write_archive(out) && _rt.write_archive(out);
    } catch (...) {
        return false;
    }
}

bool PointImage::read_archive(std::istream& in) {
    try {
        PointImage read;
        std::array<std::int32_t, 3> size{};
        std::array<float, 2> radial{};
        if (!read.read_vertices(in, &read._weights, &read._hasWeights) || !Archive::read_value(in, size) ||
            !Archive::read_value(in, radial) || !read._camera.read_archive(in) || !read._rt.read_archive(in))
            return false;
        const std::int32_t width = size[0], height = size[1];
        if (width < 0 || height < 0 || read.get_vn() > maxSlots || slot_number(width, height) != read.get_vn())
            return false;
        read._width = width;
        read._height = height;
        read._sample = size[2];
        read._viewRadial = {radial[0], radial[1]};
        *this = std::move(read);
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace VexelAlgorithm
