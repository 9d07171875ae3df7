// Formatted reads of numbers from text, the same in every locale.
#pragma once

#include <string_view>

namespace VexelAlgorithm {
namespace Rebuild {

/// Reads a text with patterns as `fscanf` would in the classic locale. Patterns consist of literal characters,
/// white space and `%lf`.
class FormattedReader {
public:
    explicit FormattedReader(std::string_view text) : _rest(text) {}

    /// Stores the numbers of the pattern one after the other and returns how many were converted. Stops, and
    /// stays, at the first character that does not fit.
    int read(std::string_view pattern, double* numbers);

private:
    void skip_white_space();
    bool read_literal(char expected);
    bool read_number(double& number);

    std::string_view _rest;
};

}  // namespace Rebuild
}  // namespace VexelAlgorithm
