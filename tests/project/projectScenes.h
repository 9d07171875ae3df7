// Sessions with projects: a tiny scene whose project has a few KB, and files in memory.
#pragma once

#include "tests/session/sessionScenes.h"
#include "trials/DomeScene.h"
#include "trials/ProjectLayout.h"
#include "trials/TemporaryFolder.h"

namespace VexelAlgorithm {

using namespace VexelTrial;

/// The dome as a scene of tests.
struct TinyScene : VexelTrial::DomeScene {
    /// Two frames, the second a few millimetres aside; with display.
    void scan(void* session) const { EXPECT_TRUE(DomeScene::scan(session)); }
};

/// What `save_project` writes; the printed lines go to `lines`.
inline std::string project_of(void* session, std::string* lines = nullptr) {
    const VexelTrial::TemporaryFolder folder;
    const std::string text = printed([&] {
        std::ofstream out(folder.path() / "project", std::ios::binary);
        EXPECT_TRUE(save_project(session, out));
    });
    if (lines != nullptr) *lines = text;
    return VexelTrial::bytes_of(folder.path() / "project");
}

/// Loads bytes, by a file that is written again for each load.
class Loader {
public:
    /// The result, and the printed lines in `lines`.
    bool load(void* session, const std::string& bytes) {
        VexelTrial::put_bytes(_folder.path() / "project", bytes);
        std::ifstream in(_folder.path() / "project", std::ios::binary);
        bool isRead = false;
        lines = printed([&] { isRead = read_project(session, in); });
        return isRead;
    }
    std::string lines;

private:
    VexelTrial::TemporaryFolder _folder;
};

/// The display points to the last bit.
inline std::string display_bytes(void* session) {
    return archive(get_show_data(session));
}

}  // namespace VexelAlgorithm
