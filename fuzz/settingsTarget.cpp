// Settings files. What they say is written and read again.
#include "apps/ScanSettings.h"
#include "apps/settingsFile.h"
#include "fuzz/target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace VexelAlgorithm::Apps;
    using VexelFuzz::require;
    const std::string text(VexelFuzz::text_of(data, size));
    ScanSettings settings = preset_settings("room");
    if (!read_settings_text(text, settings)) return 0;
    check_settings(settings);
    const std::string written = settings_text(settings, "title");
    ScanSettings again = preset_settings("desk");
    require(static_cast<bool>(read_settings_text(written, again)), "settings that are written can be read");
    require(settings_text(again, "title") == written, "settings come back as they were");
    return 0;
}
