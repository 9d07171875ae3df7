// Ranges of numbers on the command line.
#pragma once

#include <CLI/CLI.hpp>

namespace VexelAlgorithm::Apps {

/// Accepts a number in [low, high]; unlike CLI::Range it refuses NaN.
CLI::Validator number_between(double low, double high);

}  // namespace VexelAlgorithm::Apps
