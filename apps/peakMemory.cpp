#include "apps/peakMemory.h"

#if defined(_WIN32)
#    include <windows.h>
// after windows.h
#    include <psapi.h>
#elif defined(__unix__) || defined(__APPLE__)
#    include <sys/resource.h>
#endif

namespace VexelAlgorithm::Apps {

double peak_memory_mib() {
    constexpr double bytesPerMib = 1024.0 * 1024.0;
#if defined(_WIN32)
    PROCESS_MEMORY_COUNTERS counters{};
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return 0.0;
    return static_cast<double>(counters.PeakWorkingSetSize) / bytesPerMib;
#elif defined(__APPLE__)
    rusage usage{};
    return getrusage(RUSAGE_SELF, &usage) == 0 ? static_cast<double>(usage.ru_maxrss) / bytesPerMib : 0.0;
#elif defined(__unix__)
    rusage usage{};
    return getrusage(RUSAGE_SELF, &usage) == 0 ? static_cast<double>(usage.ru_maxrss) * 1024.0 / bytesPerMib : 0.0;
#else
    return 0.0;
#endif
}

}  // namespace VexelAlgorithm::Apps
