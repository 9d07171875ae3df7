#include "foundation/DataArchiveConfig.h"
#include "fuzz/seeds.h"
#include "tests/project/projectScenes.h"

namespace VexelFuzz {

std::vector<Seed> debug_seeds() {
    using namespace VexelAlgorithm;
    const VexelTrial::TemporaryFolder folder;
    DataArchiveConfig& config = DataArchiveConfig::global();
    const std::string directory = config.get_store_directory();
    config.set_store_directory(folder.path().string());
    config.set_archive_enabled(true);
    config.set_testbug_enabled(true);
    {
        const TinyScene scene;
        const Session session(scene.records);
        set_icpKeepRatio(session, {0.5F, 0.75F});
        scene.scan(session);
        int microseconds = 0;
        printed([&] { fusion_and_track(session, PointImage(), microseconds); });
        fusion_reset(session);
    }
    config.set_archive_enabled(false);
    config.set_testbug_enabled(false);
    config.set_store_directory(directory);
    const std::string whole = VexelTrial::bytes_of(folder.path() / "testbug-000001.tb");
    return {{"whole.tb", whole}, {"begun.tb", whole.substr(0, whole.size() / 4)}};
}

}  // namespace VexelFuzz
