// Warnings of numerical routines, for the host's log.
#pragma once

namespace VexelAlgorithm {

/// Hands one line to glog as a warning. The host decides where its log goes; before it has initialised glog, warnings
/// go to standard error. Nothing is ever written to standard output. Safe from several threads. Internal to the
/// library.
void log_numeric_warning(const char* line) noexcept;

}  // namespace VexelAlgorithm
