#include "apps/numberOptions.h"

#include "recording/numberText.h"

namespace VexelAlgorithm::Apps {

ArgumentCheck number_between(double low, double high) {
    const std::string range = "between " + number_text(low) + " and " + number_text(high);
    const auto check = [low, high, range](const std::string& text) {
        const Outcome<std::vector<double>> number = parse_numbers(text, 1);
        const bool isInRange = number && number->front() >= low && number->front() <= high;
        return isInRange ? std::string() : "'" + text + "' is not a number " + range;
    };
    return ArgumentCheck(check, range);
}

}  // namespace VexelAlgorithm::Apps
