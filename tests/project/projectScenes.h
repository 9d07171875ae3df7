// Sessions with projects: a tiny scene whose project has a few KB, files in memory, and a reader of the layout that
// knows nothing of the library.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/apps/TemporaryFolder.h"
#include "tests/project/DomeScene.h"
#include "tests/session/sessionScenes.h"

namespace VexelAlgorithm {

/// The dome as a scene of tests.
struct TinyScene : DomeScene {
    /// Two frames, the second a few millimetres aside; with display.
    void scan(void* session) const { EXPECT_TRUE(DomeScene::scan(session)); }
};

/// What `save_project` writes; the printed lines go to `lines`.
inline std::string project_of(void* session, std::string* lines = nullptr) {
    const VexelTest::TemporaryFolder folder;
    const std::string text = printed([&] {
        std::ofstream out(folder.path() / "project", std::ios::binary);
        EXPECT_TRUE(save_project(session, out));
    });
    if (lines != nullptr) *lines = text;
    return VexelTest::bytes_of(folder.path() / "project");
}

/// Loads bytes, by a file that is written again for each load.
class Loader {
public:
    /// The result, and the printed lines in `lines`.
    bool load(void* session, const std::string& bytes) {
        VexelTest::put_bytes(_folder.path() / "project", bytes);
        std::ifstream in(_folder.path() / "project", std::ios::binary);
        bool isRead = false;
        lines = printed([&] { isRead = read_project(session, in); });
        return isRead;
    }
    std::string lines;

private:
    VexelTest::TemporaryFolder _folder;
};

template <class Number>
Number number_at(const std::string& bytes, std::size_t at) {
    Number number{};
    if (at + sizeof(number) <= bytes.size()) std::memcpy(&number, bytes.data() + at, sizeof(number));
    return number;
}

template <class Number>
void put_number(std::string& bytes, std::size_t at, Number number) {
    std::memcpy(&bytes[at], &number, sizeof(number));
}

/// Where the sections of a project file begin.
struct ProjectLayout {
    explicit ProjectLayout(const std::string& bytes) {
        const auto count_at = [&](std::size_t at) {
            return static_cast<std::size_t>(number_at<std::int32_t>(bytes, at));
        };
        volume = poses + 4 + 96 * count_at(poses);
        top = volume + 8 + 12;
        std::size_t at = top + 12 + 8 * count_at(top + 8);
        for (int level = 0; level < number_at<std::int32_t>(bytes, volume) - 9; ++level) {
            levels.push_back(at);
            at += 8 + 4 * count_at(at + 4);
        }
        leaves = at;
        used = count_at(leaves + 4);
        records = leaves + 8;
        ids = records + 40 * used;
        display = ids + 4 * used;
        shown = count_at(display + 4);
        end = display + 8 + (4 + 12 + 12 + 12) * shown;
    }
    std::size_t poses = 18, volume, top;
    std::vector<std::size_t> levels;
    std::size_t leaves, used, records, ids, display, shown, end;
};

/// The display points to the last bit.
inline std::string display_bytes(void* session) {
    std::ostringstream out;
    get_show_data(session).write_archive(out);
    return out.str();
}

}  // namespace VexelAlgorithm
