#include "recording/numberText.h"

#include <charconv>
#include <system_error>

namespace VexelAlgorithm {
namespace {

constexpr std::string_view whiteSpace = " \t\r\n\v\f";

/// The first word of the text, which is shortened by it; empty at the end of the text.
std::string_view take_word(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(whiteSpace), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(whiteSpace));
    text.remove_prefix(word.size());
    return word;
}

bool parse_number(std::string_view word, double& value) {
    if (word.size() > 1 && word[0] == '+' && word[1] != '-') word.remove_prefix(1);
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    return error == std::errc() && end == word.data() + word.size();
}

/// Hostile bytes must not reach the terminal with the message.
std::string printable(std::string_view word) {
    std::string result(word.substr(0, 24));
    for (char& c : result) {
        if (c < ' ' || c > '~') c = '?';
    }
    return result;
}

}  // namespace

Outcome<std::vector<double>> parse_numbers(std::string_view text, std::size_t count) {
    std::vector<double> numbers;
    for (std::string_view word = take_word(text); !word.empty(); word = take_word(text)) {
        double value = 0.0;
        if (!parse_number(word, value)) return Failure{"'" + printable(word) + "' is not a number"};
        numbers.push_back(value);
        if (numbers.size() > count) return Failure{"more than the expected " + std::to_string(count) + " numbers"};
    }
    if (numbers.size() < count) {
        return Failure{"only " + std::to_string(numbers.size()) + " of " + std::to_string(count) + " numbers"};
    }
    return numbers;
}

std::string number_text(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

}  // namespace VexelAlgorithm
