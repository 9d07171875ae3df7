// How far a long run is, on a terminal or in a log.
#pragma once

#include <chrono>
#include <string>

namespace VexelAlgorithm::Apps {

/// On a terminal one line that is rewritten, with the time left; elsewhere a plain line every tenth of the
/// work. For one thread.
class Progress {
public:
    Progress(std::string what, int total);
    /// Ends the rewritten line.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void advance();

private:
    std::string line() const;

    std::string _what;
    int _total;
    int _done = 0;
    int _tenthsShown = 0;
    bool _isTerminal;
    std::chrono::steady_clock::time_point _start;
    std::chrono::steady_clock::time_point _lastShown;
};

}  // namespace VexelAlgorithm::Apps
