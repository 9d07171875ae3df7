#include "SpeckleRebCPU/DebugDump.h"

#include <filesystem>
#include <fstream>
#include <locale>
#include <system_error>
#include <vector>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm {
namespace {

std::ofstream open_file(const std::string& path) {
    std::ofstream file(path, std::ios::binary);
    file.imbue(std::locale::classic());
    if (!file) print_line("file open failed! ");
    return file;
}

void append_little_endian(std::string& bytes, std::uint32_t value, int count) {
    for (int i = 0; i < count; ++i) bytes.push_back(static_cast<char>(value >> (8 * i) & 0xFFU));
}

/// Header and grey palette of an 8-bit Windows bitmap.
std::string bitmap_header(std::uint32_t width, std::uint32_t height, std::uint32_t stride) {
    constexpr std::uint32_t HEADERS = 14 + 40, PALETTE = 256 * 4;
    std::string bytes = "BM";
    append_little_endian(bytes, HEADERS + PALETTE + stride * height, 4);
    append_little_endian(bytes, 0, 4);
    append_little_endian(bytes, HEADERS + PALETTE, 4);
    append_little_endian(bytes, 40, 4);
    append_little_endian(bytes, width, 4);
    append_little_endian(bytes, height, 4);
    append_little_endian(bytes, 1, 2);
    append_little_endian(bytes, 8, 2);
    for (int i = 0; i < 4; ++i) append_little_endian(bytes, 0, 4);
    append_little_endian(bytes, 256, 4);
    append_little_endian(bytes, 0, 4);
    for (std::uint32_t grey = 0; grey < 256; ++grey) append_little_endian(bytes, grey * 0x010101U, 4);
    return bytes;
}

}  // namespace

void DebugDump::select(bool images, bool points, int frame) {
    _images = images;
    _points = points;
    _onlyFrame = frame;
}

std::string DebugDump::file_name(std::string_view name, std::string_view side, std::string_view extension) const {
    std::error_code none;
    const bool isFolder = std::filesystem::path(_path).has_filename() && std::filesystem::is_directory(_path, none);
    std::string path = _path + (isFolder ? "/" : "");
    path.append(name).append(side).append(format_text("_%d", _frame)).append(extension);
    return path;
}

void DebugDump::bitmap(const std::string& path, const GreyImage& image, int factor) const {
    std::ofstream file = open_file(path);
    if (!file) return;
    const std::size_t stride = (static_cast<std::size_t>(image.width()) + 3) / 4 * 4;
    const std::string header =
        bitmap_header(static_cast<std::uint32_t>(image.width()), static_cast<std::uint32_t>(image.height()),
                      static_cast<std::uint32_t>(stride));
    file.write(header.data(), static_cast<std::streamsize>(header.size()));
    std::vector<char> row(stride, 0);
    for (int y = image.height() - 1; y >= 0; --y) {  // bottom row first
        for (int x = 0; x < image.width(); ++x)
            row[static_cast<std::size_t>(x)] = static_cast<char>(image.at(x, y) * factor);
        file.write(row.data(), static_cast<std::streamsize>(stride));
    }
}

void DebugDump::images(std::string_view name, const GreyImage& left, const GreyImage& right) const {
    if (!is_on() || !_images) return;
    bitmap(file_name(name, "_L", ".bmp"), left, 1);
    bitmap(file_name(name, "_R", ".bmp"), right, 1);
}

void DebugDump::masks(std::string_view name, const Mask& left, const Mask& right) const {
    if (!is_on() || !_images) return;
    bitmap(file_name(name, "_L", ".bmp"), left, 255);
    bitmap(file_name(name, "_R", ".bmp"), right, 255);
}

void DebugDump::image(std::string_view name, const GreyImage& image) const {
    if (is_on() && _images && !name.empty()) bitmap(file_name(name, "", ".bmp"), image, 1);
}

void DebugDump::points(std::string_view name, const DepthRange& store) const {
    if (!is_on() || !_points || name.empty()) return;
    std::ofstream file = open_file(file_name(name, "", ".asc"));
    if (!file) return;
    const std::vector<Vector3f>& points = store.get_point_vector();
    const std::vector<Vector3f>& normals = store.get_normal_vector();
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (points[i].isZero(0.0F)) continue;
        file << points[i].x() << ' ' << points[i].y() << ' ' << points[i].z() << ' ' << normals[i].x() << ' '
             << normals[i].y() << ' ' << normals[i].z() << '\n';
    }
}

void DebugDump::parallaxes(std::string_view name, const Raster<float>& parallax) const {
    if (!is_on() || !_points) return;
    std::ofstream file = open_file(file_name(name, "", ".asc"));
    if (!file) return;
    for (int y = 0; y < parallax.height(); ++y)
        for (int x = 0; x < parallax.width(); ++x)
            if (has_parallax(parallax.at(x, y))) file << x << ' ' << y << ' ' << parallax.at(x, y) << '\n';
}

}  // namespace VexelAlgorithm
