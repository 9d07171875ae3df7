#include "foundation/DataArchiveConfig.h"

#include "foundation/handle.h"

namespace VexelAlgorithm {

DataArchiveConfig& DataArchiveConfig::global() noexcept {
    // Never destroyed: sessions may be released when the process ends.
    static DataArchiveConfig* const only = new DataArchiveConfig;
    return *only;
}

RetVal DataArchiveConfig::set_store_directory(const std::string& directory) noexcept {
    return guarded<RetVal>("set_store_directory", RET_RUN_FAIL, [&] {
        const std::lock_guard<std::mutex> lock(_mutex);
        _storeDirectory = directory;
        return RET_SUCCESS;
    });
}

std::string DataArchiveConfig::get_store_directory() const noexcept {
    return guarded<std::string>("get_store_directory", {}, [&] {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _storeDirectory;
    });
}

RetVal DataArchiveConfig::set_name_prefix(const std::string& prefix) noexcept {
    return guarded<RetVal>("set_name_prefix", RET_RUN_FAIL, [&] {
        // None of these can be in the name of a file on every system.
        const std::string separators("/\\:\0", 4);
        if (prefix.empty() || prefix.find_first_of(separators) != std::string::npos) {
            print_line("can not run function set_name_prefix because the prefix is not the beginning of a file name");
            return RET_INPUT_ERROR;
        }
        const std::lock_guard<std::mutex> lock(_mutex);
        _namePrefix = prefix;
        return RET_SUCCESS;
    });
}

std::string DataArchiveConfig::get_name_prefix() const noexcept {
    return guarded<std::string>("get_name_prefix", {}, [&] {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _namePrefix;
    });
}

}  // namespace VexelAlgorithm
