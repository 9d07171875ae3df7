#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "recording/meshReaders.h"
#include "recording/words.h"

namespace VexelAlgorithm {

namespace {

struct PlyType {
    std::size_t size = 0;  ///< bytes
    enum Kind { Signed, Unsigned, Real } kind = Signed;
};

std::optional<PlyType> ply_type(std::string_view name) {
    static const std::pair<const char*, PlyType> known[] = {
        {"char", {1, PlyType::Signed}},     {"int8", {1, PlyType::Signed}},     {"uchar", {1, PlyType::Unsigned}},
        {"uint8", {1, PlyType::Unsigned}},  {"short", {2, PlyType::Signed}},    {"int16", {2, PlyType::Signed}},
        {"ushort", {2, PlyType::Unsigned}}, {"uint16", {2, PlyType::Unsigned}}, {"int", {4, PlyType::Signed}},
        {"int32", {4, PlyType::Signed}},    {"uint", {4, PlyType::Unsigned}},   {"uint32", {4, PlyType::Unsigned}},
        {"float", {4, PlyType::Real}},      {"float32", {4, PlyType::Real}},    {"double", {8, PlyType::Real}},
        {"float64", {8, PlyType::Real}}};
    for (const auto& [knownName, type] : known)
        if (name == knownName) return type;
    return std::nullopt;
}

struct PlyProperty {
    std::string_view name;
    PlyType type;
    std::optional<PlyType> countType;  ///< of lists
};
struct PlyElement {
    std::string_view name;
    std::uint64_t count = 0;
    std::vector<PlyProperty> properties;
};
struct PlyHeader {
    std::string_view format;
    std::vector<PlyElement> elements;
};

bool read_ply_property(std::string_view line, PlyHeader& header) {
    if (header.elements.empty()) return false;
    PlyProperty property;
    std::string_view word = next_word(line);
    if (word == "list") {
        property.countType = ply_type(next_word(line));
        if (!property.countType || property.countType->kind == PlyType::Real) return false;
        word = next_word(line);
    }
    const std::optional<PlyType> type = ply_type(word);
    if (!type) return false;
    property.type = *type;
    property.name = next_word(line);
    header.elements.back().properties.push_back(property);
    return true;
}

std::optional<PlyHeader> read_ply_header(std::string_view& bytes) {
    PlyHeader header;
    if (next_word(bytes) != "ply") return std::nullopt;
    next_line(bytes);
    while (!bytes.empty()) {
        std::string_view line = next_line(bytes);
        const std::string_view keyword = next_word(line);
        if (keyword == "end_header") return header;
        if (keyword == "format") {
            header.format = next_word(line);
        } else if (keyword == "element") {
            const std::string_view name = next_word(line);
            const auto count = number_of<std::uint64_t>(next_word(line));
            if (!count) return std::nullopt;
            header.elements.push_back({name, *count, {}});
        } else if (keyword == "property") {
            if (!read_ply_property(line, header)) return std::nullopt;
        }
    }
    return std::nullopt;
}

/// The values of the body one after the other. At the end of the bytes, and at words that are no numbers, it fails and
/// stays so.
class PlyBody {
public:
    PlyBody(std::string_view bytes, std::string_view format)
        : _rest(bytes), _isText(format == "ascii"), _isBigEndian(format == "binary_big_endian") {}

    bool has_failed() const { return _hasFailed; }
    /// Whether there may be so many values of that size yet.
    bool has_room_for(double count, std::size_t bytes) const {
        return !_hasFailed && count * static_cast<double>(bytes) <= static_cast<double>(_rest.size());
    }

    double next(const PlyType& type) { return _isText ? next_text() : next_binary(type); }

private:
    double next_text() {
        const auto number = number_of<double>(next_word(_rest));
        _hasFailed = _hasFailed || !number;
        return number.value_or(0.0);
    }
    double next_binary(const PlyType& type) {
        if (_rest.size() < type.size) _hasFailed = true;
        if (_hasFailed) return 0.0;
        std::array<char, 8> bytes{};
        std::copy_n(_rest.data(), type.size, bytes.begin());
        if (_isBigEndian) std::reverse(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(type.size));
        _rest.remove_prefix(type.size);
        if (type.kind == PlyType::Real)
            return type.size == 8 ? little_endian<double>(bytes.data()) : little_endian<float>(bytes.data());
        const auto bits = little_endian<std::uint64_t>(bytes.data());
        const std::uint64_t range = std::uint64_t{1} << 8 * type.size;  // integers have at most four bytes
        const bool isNegative = type.kind == PlyType::Signed && bits >= range / 2;
        return static_cast<double>(bits) - (isNegative ? static_cast<double>(range) : 0.0);
    }

    std::string_view _rest;
    bool _isText;
    bool _isBigEndian;
    bool _hasFailed = false;
};

/// -1 for what is no index.
std::int64_t index_of(double value) {
    const bool isIndex = std::floor(value) == value && std::abs(value) < 1e15;
    return isIndex ? static_cast<std::int64_t>(value) : -1;
}

/// Bytes that a value takes at least.
std::size_t least_bytes(const PlyType& type, bool isText) {
    return isText ? 1 : type.size;
}

/// False when the body has not as many values as the list claims.
bool read_ply_list(const PlyProperty& property, bool isText, PlyBody& body, std::vector<std::int64_t>& values) {
    values.clear();
    const double count = body.next(*property.countType);
    if (!body.has_room_for(count, least_bytes(property.type, isText))) return false;
    for (double i = 0.0; i < count; ++i) values.push_back(index_of(body.next(property.type)));
    return !body.has_failed();
}

MeshFault read_ply_item(const PlyElement& element, bool isText, PlyBody& body, MeshData& mesh) {
    Vector3f point = Vector3f::Zero();
    std::vector<std::int64_t> list;
    for (const PlyProperty& property : element.properties) {
        if (property.countType) {
            if (!read_ply_list(property, isText, body, list)) return BrokenMesh;
            const bool areCorners = property.name == "vertex_indices" || property.name == "vertex_index";
            const MeshFault fault = element.name == "face" && areCorners ? add_polygon(list, mesh) : nullptr;
            if (fault != nullptr) return fault;
            continue;
        }
        const double value = body.next(property.type);
        for (int axis = 0; axis < 3; ++axis)
            if (property.name == std::string_view("xyz").substr(static_cast<std::size_t>(axis), 1))
                point[axis] = static_cast<float>(value);
    }
    if (body.has_failed()) return BrokenMesh;
    if (element.name == "vertex") mesh.points.push_back(point);
    return nullptr;
}

bool has_scalar(const PlyElement& element, std::string_view name) {
    return std::any_of(element.properties.begin(), element.properties.end(),
                       [name](const PlyProperty& p) { return p.name == name && !p.countType; });
}

bool is_usable(const PlyElement& element) {
    const bool isPoint = has_scalar(element, "x") && has_scalar(element, "y") && has_scalar(element, "z");
    return element.name != "vertex" || isPoint;
}

}  // namespace

MeshFault read_ply(std::string_view bytes, MeshData& mesh) {
    const std::optional<PlyHeader> header = read_ply_header(bytes);
    if (!header) return BrokenMesh;
    const bool isText = header->format == "ascii";
    if (!isText && header->format != "binary_little_endian" && header->format != "binary_big_endian") return BrokenMesh;
    PlyBody body(bytes, header->format);
    for (const PlyElement& element : header->elements) {
        std::size_t least = 0;
        for (const PlyProperty& property : element.properties)
            least += least_bytes(property.countType.value_or(property.type), isText);
        if (!is_usable(element)) return BrokenMesh;
        if (least == 0) continue;
        if (!body.has_room_for(static_cast<double>(element.count), least)) return BrokenMesh;
        for (std::uint64_t i = 0; i < element.count; ++i)
            if (const MeshFault fault = read_ply_item(element, isText, body, mesh)) return fault;
    }
    return nullptr;
}

}  // namespace VexelAlgorithm
