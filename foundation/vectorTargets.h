// The choice among vector forms of a function. Internal to the library.
#pragma once

#include <hwy/targets.h>

namespace VexelAlgorithm {

/// To be called before the address of a dispatched function is taken, which does not detect the processor as a call
/// would.
inline void detect_processor() {
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

}  // namespace VexelAlgorithm
