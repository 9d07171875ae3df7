// Whether and where sessions record themselves for debugging.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "foundation/RetVal.h"
#include "foundation/export.h"

namespace VexelAlgorithm {

/// Sessions record what they are given, and what came of it, while both flags are set. Each writes a file of its own,
/// STORE_DIRECTORY/PREFIX-NNNNNN.tb, whose number is one above the highest that the directory has for the prefix; at
/// least six digits. The directory must exist. docs/debug-recording.md tells the form of the files.
///
/// Safe to use from any thread at any time. Flags are looked at by each frame; directory and prefix by a session that
/// begins a file.
class VEXEL_API DataArchiveConfig {
public:
    /// The one of this process.
    static DataArchiveConfig& global() noexcept;

    DataArchiveConfig(const DataArchiveConfig&) = delete;
    DataArchiveConfig& operator=(const DataArchiveConfig&) = delete;

    /// At first empty: the working directory.
    RetVal set_store_directory(const std::string& directory) noexcept;
    std::string get_store_directory() const noexcept;
    /// At first "testbug". `RET_INPUT_ERROR` with a line for one that is empty or leads out of the directory.
    RetVal set_name_prefix(const std::string& prefix) noexcept;
    std::string get_name_prefix() const noexcept;

    /// Whether data may be archived at all.
    void set_archive_enabled(bool enabled) noexcept { _isArchiveEnabled = enabled; }
    bool is_archive_enabled() const noexcept { return _isArchiveEnabled; }
    /// Whether sessions make "testbug" files.
    void set_testbug_enabled(bool enabled) noexcept { _isTestbugEnabled = enabled; }
    bool is_testbug_enabled() const noexcept { return _isTestbugEnabled; }
    /// Both.
    bool is_recording() const noexcept {
        return _isArchiveEnabled.load(std::memory_order_relaxed) && _isTestbugEnabled.load(std::memory_order_relaxed);
    }

private:
    DataArchiveConfig() = default;

    mutable std::mutex _mutex;
    std::string _storeDirectory;  // under the mutex, like the next one
    std::string _namePrefix = "testbug";
    std::atomic<bool> _isArchiveEnabled{false};
    std::atomic<bool> _isTestbugEnabled{false};
};

}  // namespace VexelAlgorithm
