// A recorded scan, and vexel-scan replay as a process.
#pragma once

#include "ToolTest.h"
#include "foundation/DataArchiveConfig.h"

namespace VexelTest {

class ReplayTool : public ToolTest {
protected:
    static constexpr std::size_t kHeader = 19, kPoseInState = 32 + 96;

    /// A scan at a quarter of the resolution.
    std::string recorded(int threads, int frames) const {
        run_well("simulate --sequence smooth --noise --width 120 --height 96 --frames " + std::to_string(frames) +
                 " @/scan");
        put_bytes(path("coarse.yml"), "fusion:\n   pointDis: 2\ncommon:\n   rawPointDis: 1.6\n");
        const ToolRun tracked = run_well("track @/scan --preset object --settings @/coarse.yml --out @/out --threads " +
                                         std::to_string(threads) + " --debug-recording @/debug");
        EXPECT_TRUE(holds(tracked.output, "Opened testbug file: "));
        return bytes_of(path("debug/testbug-000001.tb"));
    }
    /// What `scan()` does in this process is recorded to testbug-000001.tb.
    template <class Scan>
    void record(const Scan& scan) const {
        auto& config = VexelAlgorithm::DataArchiveConfig::global();
        config.set_store_directory(path("").string());
        config.set_archive_enabled(true);
        config.set_testbug_enabled(true);
        scan();
        config.set_archive_enabled(false);
    }
    ToolRun replay(const std::string& bytes, const std::string& options = "") const {
        put_bytes(path("file.tb"), bytes);
        return run("replay @/file.tb " + options);
    }
    static void expect_in(const std::string& text, const ToolRun& run) {
        EXPECT_TRUE(holds(run.output + run.errors, text)) << text << " in\n" << run.output << run.errors;
    }
};

}  // namespace VexelTest
