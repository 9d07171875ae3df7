#include "apps/settingsFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <limits>
#include <opencv2/core.hpp>
#include <set>
#include <string_view>
#include <vector>

#include "apps/settingsFields.h"
#include "recording/files.h"
#include "recording/numberText.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr std::size_t largestFile = 1 << 16;
constexpr std::size_t commentWidth = 110;

// ---- fields as lists of numbers ---------------------------------------------------------------------------

/// Three rows of rotation and translation.
std::array<double, 12> numbers_of(const RigidMatrix& motion) {
    std::array<double, 12> numbers{};
    for (std::size_t row = 0; row < 3; ++row) {
        const auto r = static_cast<Eigen::Index>(row);
        for (Eigen::Index c = 0; c < 3; ++c) {
            numbers[4 * row + static_cast<std::size_t>(c)] = motion.get_rotation()(r, c);
        }
        numbers[4 * row + 3] = motion.get_translation()[r];
    }
    return numbers;
}

RigidMatrix motion_of(const std::array<double, 12>& numbers) {
    const Eigen::Map<const Eigen::Matrix<double, 3, 4, Eigen::RowMajor>> matrix(numbers.data());
    return {matrix.leftCols<3>(), matrix.col(3)};
}

std::array<double, 9> numbers_of(const Matrix3d& matrix) {
    std::array<double, 9> numbers{};
    Eigen::Map<Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(numbers.data()) = matrix;
    return numbers;
}

std::array<double, 4> numbers_of(const CameraInParam& camera) {
    return {camera.get_fx(), camera.get_fy(), camera.get_cx(), camera.get_cy()};
}

// ---- writing ----------------------------------------------------------------------------------------------

std::string shortest_text(float value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

std::string value_text(float value) {
    return shortest_text(value);
}
std::string value_text(double value) {
    return number_text(value);
}
std::string value_text(bool value) {
    return value ? "1" : "0";
}
std::string value_text(std::int32_t value) {
    return std::to_string(value);
}
std::string value_text(std::uint8_t value) {
    return std::to_string(static_cast<int>(value));
}
/// The format's whole numbers end at 2^31 - 1; larger ones go as text.
std::string value_text(std::uint64_t value) {
    const std::string digits = std::to_string(value);
    return value <= static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max()) ? digits : '"' + digits + '"';
}
std::string value_text(std::uint32_t value) {
    return value_text(std::uint64_t{value});
}
/// Other control characters than these, which no path needs, cannot be written in this format.
std::string value_text(const std::string& value) {
    std::string text = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            text += {'\\', c};
        } else if (c == '\n' || c == '\r' || c == '\t') {
            text += {'\\', c == '\n' ? 'n' : c == '\r' ? 'r' : 't'};
        } else {
            text += static_cast<unsigned char>(c) < ' ' ? '?' : c;
        }
    }
    return text + '"';
}

template <class Values>
std::string list_text(const Values& values) {
    std::string text;
    for (const auto& value : values) text += (text.empty() ? "[ " : ", ") + value_text(value);
    return text + " ]";
}

template <class Scalar, std::size_t Count>
std::string value_text(const std::array<Scalar, Count>& values) {
    return list_text(values);
}
template <class Scalar, int Rows>
std::string value_text(const Eigen::Matrix<Scalar, Rows, 1>& vector) {
    std::array<Scalar, static_cast<std::size_t>(Rows)> values{};
    std::copy_n(vector.data(), values.size(), values.begin());
    return list_text(values);
}
std::string value_text(const std::vector<float>& values) {
    return values.empty() ? "[ ]" : list_text(values);
}
std::string value_text(const Matrix3d& matrix) {
    return list_text(numbers_of(matrix));
}
std::string value_text(const RigidMatrix& motion) {
    return list_text(numbers_of(motion));
}
std::string value_text(const CameraInParam& camera) {
    return list_text(numbers_of(camera));
}

std::string comment_text(std::string_view words, const std::string& indent) {
    std::string text;
    while (!words.empty()) {
        const std::size_t room = commentWidth - indent.size();
        std::size_t end = words.size();
        if (end > room) {
            const std::size_t blank = words.rfind(' ', room);
            end = blank == std::string_view::npos ? words.size() : blank;
        }
        text += indent + "# " + std::string(words.substr(0, end)) + '\n';
        words.remove_prefix(std::min(words.size(), end + 1));
    }
    return text;
}

struct Writer {
    std::string text;
    std::string_view onlySection = {};  ///< all when empty

    bool section(const char* name, const char* meaning) {
        if (!onlySection.empty() && onlySection != name) return false;
        text += '\n' + comment_text(meaning, "") + name + ":\n";
        return true;
    }
    template <class Value>
    void field(const char* name, const Value& value, const char* meaning) {
        text += comment_text(meaning, "   ") + "   " + name + ": " + value_text(value) + '\n';
    }
};

// ---- what the parser of the format does not check ---------------------------------------------------------

/// It descends once for every one of these, however deep, and silently cuts whole numbers to 32 bits.
constexpr const char* nestingMarks = "[{-";
constexpr std::ptrdiff_t mostNestingMarks = 1000;

std::string printable(std::string_view word) {
    std::string result(word.substr(0, 40));
    for (char& c : result) {
        if (c < ' ' || c > '~') c = '?';
    }
    return result;
}

bool is_too_large(const std::string& token) {
    if (token.find_first_not_of("+-0123456789abcdefxABCDEFX") != std::string::npos) return false;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(token.c_str(), &end, 0);
    const bool isWhole = end == token.c_str() + token.size() && end != token.c_str();
    const bool fits =
        value >= std::numeric_limits<std::int32_t>::min() && value <= std::numeric_limits<std::int32_t>::max();
    return isWhole && (errno == ERANGE || !fits);
}

/// Unquoted words of a line before its comment; a name keeps its colon.
std::vector<std::string> words_of(std::string_view line) {
    std::vector<std::string> words(1);
    bool isQuoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"' && (i == 0 || line[i - 1] != '\\')) isQuoted = !isQuoted;
        if (isQuoted) continue;
        if (c == '#') break;
        if (c == ':') words.back() += c;
        const bool isSeparator = std::string_view(" \t\r,:[]{}\"").find(c) != std::string_view::npos;
        if (!isSeparator) {
            words.back() += c;
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    return words;
}

Outcome<Done> check_before_parsing(const std::string& text) {
    const auto isUnusable = [](char c) { return static_cast<unsigned char>(c) < ' ' && c != '\n' && c != '\r'; };
    if (std::any_of(text.begin(), text.end(), isUnusable)) {
        return Failure{"it holds a tab or another control character; settings are plain text indented with blanks"};
    }
    const auto isMark = [](char c) { return std::string_view(nestingMarks).find(c) != std::string_view::npos; };
    if (std::count_if(text.begin(), text.end(), isMark) > mostNestingMarks) {
        return Failure{"it has more brackets and dashes than any settings need"};
    }
    std::string name = "a number";
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        for (const std::string& word : words_of(line)) {
            if (!word.empty() && word.back() == ':') name = word.substr(0, word.size() - 1);
            if (is_too_large(word)) {
                return Failure{printable(name) + ": " + printable(word) +
                               " is beyond the largest whole number, 2147483647"};
            }
        }
    }
    return Done{};
}

// ---- reading ----------------------------------------------------------------------------------------------

/// Why a value cannot be taken; empty when it was.
using Reason = std::string;

Reason take(const cv::FileNode& node, double& value) {
    if (!node.isInt() && !node.isReal()) return "a number is expected";
    const double number = node.isInt() ? static_cast<int>(node) : static_cast<double>(node);
    if (!std::isfinite(number)) return "a finite number is expected";
    value = number;
    return {};
}

Reason take(const cv::FileNode& node, float& value) {
    double number = 0.0;
    const Reason reason = take(node, number);
    if (!reason.empty()) return reason;
    if (std::abs(number) > static_cast<double>(std::numeric_limits<float>::max())) return "the number is too large";
    value = static_cast<float>(number);
    return {};
}

Reason take(const cv::FileNode& node, std::int32_t& value) {
    if (!node.isInt()) return "a whole number is expected";
    value = static_cast<int>(node);
    return {};
}

Reason take_flag(const cv::FileNode& node, int& flag) {
    if (!node.isInt() || (static_cast<int>(node) != 0 && static_cast<int>(node) != 1)) return "0 or 1 is expected";
    flag = static_cast<int>(node);
    return {};
}

Reason take(const cv::FileNode& node, bool& value) {
    int flag = 0;
    const Reason reason = take_flag(node, flag);
    if (reason.empty()) value = flag != 0;
    return reason;
}

Reason take(const cv::FileNode& node, std::uint8_t& value) {
    int flag = 0;
    const Reason reason = take_flag(node, flag);
    if (reason.empty()) value = static_cast<std::uint8_t>(flag);
    return reason;
}

template <class Unsigned>
Reason take_unsigned(const cv::FileNode& node, Unsigned& value) {
    const std::string largest = std::to_string(std::numeric_limits<Unsigned>::max());
    const Reason reason =
        "a whole number from 0 to " + largest + " is expected, in quotation marks when above 2147483647";
    if (node.isInt()) {
        const int number = static_cast<int>(node);
        if (number < 0) return reason;
        value = static_cast<Unsigned>(number);
        return {};
    }
    if (!node.isString()) return reason;
    const std::string text = node.string();
    Unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return reason;
    value = number;
    return {};
}

Reason take(const cv::FileNode& node, std::uint32_t& value) {
    return take_unsigned(node, value);
}
Reason take(const cv::FileNode& node, std::uint64_t& value) {
    return take_unsigned(node, value);
}

Reason take(const cv::FileNode& node, std::string& value) {
    if (!node.isString()) return "a text in quotation marks is expected";
    value = node.string();
    return {};
}

template <class Scalar, std::size_t Count>
Reason take(const cv::FileNode& node, std::array<Scalar, Count>& values) {
    if (!node.isSeq() || node.size() != Count) return "a list of " + std::to_string(Count) + " numbers is expected";
    std::size_t place = 0;
    for (const cv::FileNode& element : node) {
        const Reason reason = take(element, values[place]);
        if (!reason.empty()) return "entry " + std::to_string(place) + ": " + reason;
        ++place;
    }
    return {};
}

constexpr std::size_t longestList = 64;

Reason take(const cv::FileNode& node, std::vector<float>& values) {
    if (!node.isSeq() || node.size() > longestList) return "a list of numbers is expected";
    values.assign(node.size(), 0.0F);
    for (std::size_t place = 0; place < values.size(); ++place) {
        const Reason reason = take(node[static_cast<int>(place)], values[place]);
        if (!reason.empty()) return "entry " + std::to_string(place) + ": " + reason;
    }
    return {};
}

template <class Scalar, int Rows>
Reason take(const cv::FileNode& node, Eigen::Matrix<Scalar, Rows, 1>& vector) {
    std::array<Scalar, static_cast<std::size_t>(Rows)> values{};
    const Reason reason = take(node, values);
    if (reason.empty()) std::copy(values.begin(), values.end(), vector.data());
    return reason;
}

Reason take(const cv::FileNode& node, Matrix3d& matrix) {
    std::array<double, 9> numbers{};
    const Reason reason = take(node, numbers);
    if (reason.empty()) matrix = Eigen::Map<const Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(numbers.data());
    return reason;
}

Reason take(const cv::FileNode& node, RigidMatrix& motion) {
    std::array<double, 12> numbers{};
    const Reason reason = take(node, numbers);
    if (reason.empty()) motion = motion_of(numbers);
    return reason;
}

Reason take(const cv::FileNode& node, CameraInParam& camera) {
    std::array<double, 4> numbers{};
    const Reason reason = take(node, numbers);
    if (reason.empty()) camera.set_param(numbers[0], numbers[1], numbers[2], numbers[3]);
    return reason;
}

/// Takes the fields it is shown from the file and remembers their names; the first fault stops it.
class Reader {
public:
    explicit Reader(cv::FileNode root) : _root(std::move(root)) {}

    bool section(const char* name, const char*) {
        finish_section();
        _sections += (_sections.empty() ? "" : ", ") + std::string(name);
        _sectionName = name;
        _node = _root[name];
        _known.clear();
        if (_node.empty() || !_reason.empty()) return false;
        if (!_node.isMap()) _reason = "section " + _sectionName + " holds no fields";
        return _reason.empty();
    }

    template <class Value>
    void field(const char* name, Value& value, const char*) {
        _known.insert(name);
        if (!_reason.empty() || _node[name].empty()) return;
        const Reason reason = take(_node[name], value);
        if (!reason.empty()) _reason = _sectionName + '.' + name + ": " + reason;
    }

    /// Empty when all was well.
    Reason finish() {
        finish_section();
        std::set<std::string> names;
        for (const cv::FileNode& node : _root) {
            const bool isKnown = (", " + _sections + ", ").find(", " + node.name() + ", ") != std::string::npos;
            if (_reason.empty() && !isKnown) {
                _reason = "there is no section '" + printable(node.name()) + "', only " + _sections;
            }
            if (_reason.empty() && !names.insert(node.name()).second) {
                _reason = "section " + node.name() + " stands there twice";
            }
        }
        return _reason;
    }

private:
    void finish_section() {
        if (!_reason.empty() || !_node.isMap()) return;
        std::set<std::string> names;
        for (const cv::FileNode& node : _node) {
            if (_known.count(node.name()) == 0) {
                _reason = "section " + _sectionName + " has no field '" + printable(node.name()) + "'";
            } else if (!names.insert(node.name()).second) {
                _reason = _sectionName + '.' + node.name() + " stands there twice";
            }
            if (!_reason.empty()) return;
        }
    }

    cv::FileNode _root;
    cv::FileNode _node;
    std::string _sectionName;
    std::string _sections;
    std::set<std::string> _known;
    Reason _reason;
};

constexpr const char* header = "%YAML:1.0\n---\n";

/// The parser says "(line): what" in a place meant for the function's name.
std::string parser_reason(const cv::Exception& error, int linesBefore) {
    const std::string& place = error.func;
    const std::size_t end = place.find("): ");
    int line = 0;
    const bool hasLine = end != std::string::npos && place.front() == '(' &&
                         std::from_chars(place.data() + 1, place.data() + end, line).ec == std::errc();
    if (!hasLine) return "it is no YAML";
    return "line " + std::to_string(line - linesBefore) + ": " + printable(place.substr(end + 3));
}

}  // namespace

std::string settings_text(const ScanSettings& settings, const std::string& title) {
    Writer writer{header + comment_text(title, "")};
    visit_settings(writer, settings);
    return writer.text;
}

std::string rig_settings_text(const ScanSettings& settings, const std::string& title) {
    Writer writer{header + comment_text(title, ""), "rig"};
    visit_settings(writer, settings);
    return writer.text;
}

Outcome<Done> read_settings_text(const std::string& text, ScanSettings& settings) {
    const Outcome<Done> checked = check_before_parsing(text);
    if (!checked) return checked;
    const bool hasHeader = text.compare(0, 5, "%YAML") == 0;
    try {
        const cv::FileStorage storage(hasHeader ? text : header + text,
                                      cv::FileStorage::READ | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_YAML);
        if (!storage.isOpened()) return Failure{"it is no YAML"};
        const cv::FileNode root = storage.root();
        if (root.empty()) return Done{};
        if (!root.isMap()) return Failure{"it does not consist of sections with fields"};
        ScanSettings changed = settings;
        Reader reader(root);
        visit_settings(reader, changed);
        const Reason reason = reader.finish();
        if (!reason.empty()) return Failure{reason};
        settings = std::move(changed);
        return Done{};
    } catch (const cv::Exception& error) {
        return Failure{parser_reason(error, hasHeader ? 0 : 2)};
    } catch (const std::exception&) {  // the parser lets slip through what its own checks miss
        return Failure{"it is no YAML"};
    }
}

Outcome<Done> read_settings_file(const std::filesystem::path& path, ScanSettings& settings) {
    const Outcome<std::string> text = read_whole_file(path, largestFile);
    if (!text) return text.failure();
    const Outcome<Done> read = read_settings_text(*text, settings);
    if (!read) return Failure{path.string() + " is not usable: " + read.failure().reason};
    return read;
}

}  // namespace VexelAlgorithm::Apps
