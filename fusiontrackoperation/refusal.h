// The line of a function of the session that cannot do what it is asked for.
#pragma once

#include <string>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm {

/// Prints "can not run function NAME because REASON"; false.
inline bool refuse(const char* function, const std::string& reason) {
    print_line(format_text("can not run function %s because %s", function, reason.c_str()));
    return false;
}

}  // namespace VexelAlgorithm
