// Words, lines and numbers of a text, the same in every locale.
#pragma once

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace VexelAlgorithm {

constexpr std::string_view BlankLetters = " \t\r\n\v\f";

/// Cuts the next word off; empty at the end.
inline std::string_view next_word(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(BlankLetters), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(BlankLetters));
    text.remove_prefix(word.size());
    return word;
}

/// Cuts the next line off, without its end.
inline std::string_view next_line(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

/// The whole word must be the number.
template <class Number>
std::optional<Number> number_of(std::string_view word) {
    if (word.size() > 1 && word[0] == '+' && word[1] != '-') word.remove_prefix(1);
    Number number{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
    return number;
}

}  // namespace VexelAlgorithm
