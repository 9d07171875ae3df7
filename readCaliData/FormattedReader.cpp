#include "readCaliData/FormattedReader.h"

#include <charconv>
#include <limits>
#include <system_error>

namespace VexelAlgorithm {
namespace Rebuild {
namespace {

constexpr std::string_view NUMBER = "%lf";

bool is_white_space(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

/// Out of the range of double: too small counts as zero, too large as infinite.
double out_of_range_value(std::string_view digits) {
    const std::size_t exponent = digits.find_first_of("eE");
    const bool small = exponent != std::string_view::npos ? digits.substr(exponent + 1, 1) == "-" : digits[0] == '0';
    return small ? 0.0 : std::numeric_limits<double>::infinity();
}

}  // namespace

int FormattedReader::read(std::string_view pattern, double* numbers) {
    int converted = 0;
    while (!pattern.empty()) {
        if (pattern.substr(0, NUMBER.size()) == NUMBER) {
            if (!read_number(numbers[converted])) break;
            ++converted;
            pattern.remove_prefix(NUMBER.size());
            continue;
        }
        if (is_white_space(pattern.front())) {
            skip_white_space();
        } else if (!read_literal(pattern.front())) {
            break;
        }
        pattern.remove_prefix(1);
    }
    return converted;
}

void FormattedReader::skip_white_space() {
    while (!_rest.empty() && is_white_space(_rest.front())) _rest.remove_prefix(1);
}

bool FormattedReader::read_literal(char expected) {
    if (_rest.empty() || _rest.front() != expected) return false;
    _rest.remove_prefix(1);
    return true;
}

bool FormattedReader::read_number(double& number) {
    skip_white_space();
    std::string_view digits = _rest;
    const bool negative = !digits.empty() && digits.front() == '-';
    if (negative || (!digits.empty() && digits.front() == '+')) digits.remove_prefix(1);
    if (digits.empty() || digits.front() == '-') return false;

    double magnitude = 0.0;
    const std::from_chars_result parsed = std::from_chars(digits.data(), digits.data() + digits.size(), magnitude);
    if (parsed.ec == std::errc::invalid_argument) return false;
    const auto length = static_cast<std::size_t>(parsed.ptr - digits.data());
    if (parsed.ec == std::errc::result_out_of_range) magnitude = out_of_range_value(digits.substr(0, length));
    number = negative ? -magnitude : magnitude;
    _rest = digits.substr(length);
    return true;
}

}  // namespace Rebuild
}  // namespace VexelAlgorithm
