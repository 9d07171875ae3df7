// Sessions with projects: a tiny scene whose project has a few KB, files in memory, and a reader of the layout that
// knows nothing of the library.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "tests/apps/TemporaryFolder.h"
#include "tests/session/sessionScenes.h"

namespace VexelAlgorithm {

/// A dome of 60 mm, seen with 44 x 44 pixels, in voxels of 20 mm.
struct TinyScene {
    TinyScene() {
        records.common.imageSize = {44, 44};
        records.common.campar = {210, 210, 21.5, 21.5};
        records.common.sample = 1;
        records.common.rawPointDis = 1.4F;
        records.fusion.pointDis = 20.0F;
        records.fusion.treeDepth = 10;
        records.fusion.fusionDataSize = {3, 1};
        records.fusion.codeNumSet = 1;
    }
    PointImage frame() const {
        PointImage image;
        image.ini(44, 44, records.common.campar, 1, Vector2f::Zero());
        image.enable_vNormal();
        image.enable_vWeight();
        image.enable_vFlag();
        for (int y = 0; y < 44; ++y) {
            for (int x = 0; x < 44; ++x) {
                const float u = (static_cast<float>(x) - 21.5F) / 210.0F, v = (static_cast<float>(y) - 21.5F) / 210.0F;
                const float depth = 300.0F + 600.0F * (u * u + v * v);
                image.set_point(x, y, {u * depth, v * depth, depth});
                image.set_vWeight(image.index_of(x, y), 1.0F);
            }
        }
        image.count_point_normal(1, 1, 2, 2, 20.0F);
        return image;
    }
    /// Two frames, the second a few millimetres aside; with display.
    void scan(void* session) const {
        int microseconds = 0;
        Matrix3d rotation;
        rodrigures(Vector3d(0.0, 0.02, 0.01), rotation);
        EXPECT_TRUE(fusion(session, frame(), {}, microseconds));
        EXPECT_TRUE(fusion(session, frame(), {rotation, Vector3d(3.0, -2.0, 1.0)}, microseconds));
        EXPECT_GT(get_show_data(session).get_vn(), 0U);
    }

    Records records;
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
