// The result of most operations of the library.
#pragma once

#include <cstdint>

namespace VexelAlgorithm {

/// Result codes. The numbers are part of the interface: callers compare against them.
/// 5, 7, 8 and 9 are reserved and never returned.
enum RetVal : std::int32_t {
    RET_SUCCESS = 0,         ///< the operation did what was asked; the only success
    RET_STATE_ERROR = 1,     ///< the object is not in the state that the call needs
    RET_INPUT_ERROR = 2,     ///< illegal input or a missing object
    RET_INI_ERROR = 3,       ///< the object was not, or wrongly, initialised
    RET_RUN_FAIL = 4,        ///< the computation ran and failed
    RET_PAUSED = 6,          ///< input refused because the session is paused
    RET_NOT_CONVERGED = 10,  ///< an iterative registration ended without an accepted result
};

}  // namespace VexelAlgorithm
