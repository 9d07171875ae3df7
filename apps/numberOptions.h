// Ranges of numbers on the command line.
#pragma once

#include "apps/CommandLine.h"

namespace VexelAlgorithm::Apps {

/// Accepts a number in [low, high]; NaN is none.
ArgumentCheck number_between(double low, double high);

}  // namespace VexelAlgorithm::Apps
