// The parameter records as text on standard output.
#pragma once

#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/TrackParmeter.h"
#include "foundation/export.h"

namespace VexelAlgorithm {

/// Each function prints three empty lines, a header line and one line a field, label then value, in the order
/// of the record; nothing of another thread comes between. Numbers have the default form of a stream of the
/// classic locale (six significant digits). The values of a pair, a triple or a camera are separated by one
/// tab, and so are the labelled halves of `FusionParameter::colorImageSize`; each value of `colorImageRange` is
/// followed by a tab. A matrix follows its label row by row and ends with an empty line; a rigid transform is
/// the rows of its rotation, then its translation as one line, then the empty line.
VEXEL_API void print_parameter(const CommonParameter& record) noexcept;
VEXEL_API void print_parameter(const TrackParmeter& record) noexcept;
VEXEL_API void print_parameter(const FusionParameter& record) noexcept;

}  // namespace VexelAlgorithm
