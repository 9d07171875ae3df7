// The largest amount of memory that the process has held.
#pragma once

namespace VexelAlgorithm::Apps {

/// Peak resident memory in MiB; 0 where the system does not tell.
double peak_memory_mib();

}  // namespace VexelAlgorithm::Apps
