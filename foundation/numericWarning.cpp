#include "foundation/numericWarning.h"

#ifdef _WIN32
#    define GLOG_NO_ABBREVIATED_SEVERITIES  // ERROR is a macro of the Windows headers
#endif
#include <glog/logging.h>

namespace VexelAlgorithm {

void log_numeric_warning(const char* line) noexcept {
    try {
        LOG(WARNING) << line;
    } catch (...) {
        // A log that cannot be written must not end a scan.
    }
}

}  // namespace VexelAlgorithm
