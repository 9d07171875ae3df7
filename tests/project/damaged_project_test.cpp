// Projects that somebody or something has damaged: one line, false, and a session that can be used. Random damages are
// for the fuzz target.
#include <climits>

#include "tests/project/projectScenes.h"

namespace {

using namespace VexelAlgorithm;

const char* const POSES_END = "read_whole_tree fail , invaild path \n";
const char* const TREES_END = "tree prative open Path Fail\n";
const char* const LEAVES_END = "open leaf Path Fail , save fail\n";
const char* const DISPLAY_END = "result data open Path Fail , save fail\n";

std::string because(const std::string& reason) {
    return "read_project fail because " + reason + "\n";
}

class DamagedProject : public testing::Test {
protected:
    DamagedProject() {
        const Session session(scene.records);
        scene.scan(session);
        whole = project_of(session);
    }
    /// The state of a session in which a load has failed: usable as if nothing had been.
    void expect_usable(Session& session) {
        Vector3f low, high;
        EXPECT_EQ(get_model_bounding_box(session, low, high), RET_STATE_ERROR);
        EXPECT_EQ(get_current_rt(session).get_translation(), Vector3d::Zero());
        EXPECT_EQ(get_show_data(session).get_vn(), 0U);
        EXPECT_TRUE(session.fuse(scene.frame()));
        EXPECT_EQ(fusion_reset(session), RET_SUCCESS);
    }

    /// What was loaded need not make sense, only do no harm.
    void use(Session& session) {
        BaseTriMesh mesh;
        EXPECT_EQ(get_fusion_result_tbb(session, 0.0F, mesh), RET_SUCCESS);
        printed([&] {
            session.step(scene.frame());
            session.fuse(scene.frame());
            get_show_data_filter_noise(session);
            Vector3f low, high;
            get_model_bounding_box(session, low, high);
        });
    }

    TinyScene scene;
    std::string whole;
    Loader loader;
};

TEST_F(DamagedProject, EndsAnywhere) {
    const ProjectLayout layout(whole);
    ASSERT_EQ(layout.end, whole.size());
    const auto line_for = [&](std::size_t size) -> std::string {
        if (size < 6) return because("no Fusion data");
        if (size < 10) return because("headerVersion != 1");
        if (size < 14) return because("majorVersion != 1");
        // A missing minor version reads as the 0 that it should be.
        if (size < layout.volume) return POSES_END;
        if (size < layout.leaves) return TREES_END;
        return size < layout.display ? LEAVES_END : DISPLAY_END;
    };
    // Header and poses at every byte; behind them, where a load takes its time, here and there and around each section.
    const auto next = [&](std::size_t size) { return size + (size < layout.top ? 1 : 61); };
    Session session(scene.records);
    for (std::size_t size = 0; size < whole.size(); size = next(size)) {
        ASSERT_FALSE(loader.load(session, whole.substr(0, size))) << size;
        ASSERT_EQ(loader.lines, line_for(size)) << size;
    }
    for (const std::size_t end :
         {layout.levels[0], layout.leaves, layout.records, layout.ids, layout.display, layout.end})
        for (const std::size_t size : {end - 1, end}) {
            ASSERT_EQ(loader.load(session, whole.substr(0, size)), size == whole.size()) << size;
            ASSERT_EQ(loader.lines, size == whole.size() ? "" : line_for(size)) << size;
        }
    fusion_reset(session);
    expect_usable(session);
    EXPECT_TRUE(loader.load(session, whole + "what stands behind is not read"));
}

struct Damage {
    const char* name;
    std::function<void(std::string&, const ProjectLayout&)> make;
    std::string lines;  // empty: it must load
};

template <class Number>
std::function<void(std::string&, const ProjectLayout&)> put(std::size_t ProjectLayout::*section, std::size_t offset,
                                                            Number number) {
    return
        [=](std::string& bytes, const ProjectLayout& layout) { put_number(bytes, layout.*section + offset, number); };
}

TEST_F(DamagedProject, ValuesThatNoProjectHas) {
    using Layout = ProjectLayout;
    const std::string tables = because("the tables of the octree are damaged");
    const std::string leaf = because("a leaf record is damaged");
    const std::string order = because("the leaf ids do not ascend or are out of their range");
    const std::string range = because("the number of leaves is out of its range");
    const std::string shown = because("the number of display points is out of its range");
    const std::string displayId = because("a display id is out of its range or there twice");
    const auto octets = [](std::int32_t number) {
        return [=](std::string& b, const Layout& l) { put_number(b, l.levels.front(), number); };
    };
    const auto repeat = [](std::size_t Layout::*section, std::size_t to, std::size_t from) {
        return [=](std::string& b, const Layout& l) {
            put_number(b, l.*section + to, number_at<std::int32_t>(b, l.*section + from));
        };
    };
    // The first entry of a level table that has a child.
    const auto entry = [](std::int32_t number) {
        return [=](std::string& b, const Layout& l) {
            std::size_t at = l.levels.front() + 8;
            while (number_at<std::int32_t>(b, at) < 0) at += 4;
            put_number(b, at, number);
        };
    };
    const Damage damages[] = {
        {"header version", put(&Layout::poses, 0 - std::size_t{12}, 2), because("headerVersion != 1")},
        {"major version", put(&Layout::poses, 0 - std::size_t{8}, INT_MAX), because("majorVersion != 1")},
        {"minor version", put(&Layout::poses, 0 - std::size_t{4}, 1), because("minorVersion != 0")},
        {"no poses", put(&Layout::poses, 0, 0), because("the number of poses is not positive")},
        {"stretched pose", put(&Layout::poses, 4 + 96, 1.5), because("pose 1 is not a rigid motion")},
        {"other depth", put(&Layout::volume, 0, 11),
         because("its volume has tree depth 11 and voxels of 20 mm, that of the session 10 and 20 mm")},
        {"other voxels", put(&Layout::volume, 4, 0.5F),
         because("its volume has tree depth 10 and voxels of 0.5 mm, that of the session 10 and 20 mm")},
        {"shift", put(&Layout::volume, 12, kNaN), because("the shift is not finite")},
        {"other top grid", put(&Layout::top, 0, 9), tables},
        {"2^31 - 1 cells", put(&Layout::top, 8, INT_MAX), tables},
        {"cell outside", put(&Layout::top, 12, 1 << 24), tables},
        {"two cells of one octet", repeat(&Layout::top, 16, 24), tables},
        {"2^31 - 1 octets", octets(INT_MAX), tables},
        {"one octet too many", octets(number_at<std::int32_t>(whole, ProjectLayout(whole).levels.front()) + 1), tables},
        {"entry outside", entry(8 << 20), tables},
        {"entry between octets", entry(4), tables},
        {"entry without child", entry(-1), tables},
        {"shared child",
         [](std::string& b, const Layout& l) {
             for (std::size_t at = l.levels[0] + 8, first = 0; at < l.leaves; at += 4) {
                 if (number_at<std::int32_t>(b, at) < 0) continue;
                 if (first == 0) first = at;
                 if (first == at) continue;
                 return put_number(b, at, number_at<std::int32_t>(b, first));
             }
         },
         tables},
        {"other leaf count", put(&Layout::leaves, 0, 8), because("the leaf count is not that of the octree")},
        {"2^31 - 1 leaves", put(&Layout::leaves, 4, INT_MAX), range},
        {"unused leaf", put(&Layout::records, 0, std::int16_t{-1}), leaf},
        {"-1 contributions", put(&Layout::records, 40 + 4, -1), leaf},
        {"2^31 - 1 contributions", put(&Layout::records, 4, INT_MAX), leaf},
        {"sum", put(&Layout::records, 8, kNaN), leaf},
        {"weight", put(&Layout::records, 12, -1.0F), leaf},
        {"pose far away", put(&Layout::poses, 4 + 96 + 72, 1e300), ""},
        {"volume far away", put(&Layout::volume, 8, 1e38F), ""},
        {"largest sum", put(&Layout::records, 8, 3e38F), ""},
        {"display point far away",
         [](std::string& b, const Layout& l) { put_number(b, l.ids + 4 * l.used + 8 + 4 * l.shown, 3e38F); }, ""},
        {"ids not ascending", put(&Layout::ids, 0, 1 << 20), order},
        {"id outside", put(&Layout::display, 0 - std::size_t{4}, 1 << 20), order},
        {"id twice", repeat(&Layout::ids, 4, 0), order},
        {"-1 display points", put(&Layout::display, 0, -1), shown},
        {"2^31 - 1 valid ones", put(&Layout::display, 4, INT_MAX), shown},
        {"2^31 - 1 of 2^31 - 1",
         [](std::string& b, const Layout& l) {
             put_number(b, l.display, INT_MAX);
             put_number(b, l.display + 4, INT_MAX);
         },
         DISPLAY_END},
        {"display id outside", put(&Layout::display, 8, INT_MAX), displayId},
        {"display id twice", repeat(&Layout::display, 12, 8), displayId},
        {"display point", [](std::string& b, const Layout& l) { put_number(b, l.display + 8 + 4 * l.shown, kNaN); },
         because("a display point is not finite")},
    };
    Session session(scene.records);
    std::string before = "none";
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.name);
        std::string bytes = whole;
        damage.make(bytes, ProjectLayout(whole));
        EXPECT_EQ(loader.load(session, bytes), damage.lines.empty());
        EXPECT_EQ(loader.lines, damage.lines);
        if (damage.lines.empty()) {
            use(session);
            fusion_reset(session);
        }
        if (damage.lines != before) expect_usable(session);  // a load takes its time, so once for a kind of damage
        before = damage.lines;
    }
}

TEST_F(DamagedProject, WhatCannotBeTakenLeavesTheModelAlone) {
    Session session(scene.records);
    scene.scan(session);
    const std::string before = project_of(session);
    const ProjectLayout layout(whole);
    std::string otherVoxels = whole, damaged = whole;
    put_number(otherVoxels, layout.volume + 4, 1.0F);
    put_number(damaged, layout.leaves, 0);
    for (const std::string& bytes : {std::string(), whole.substr(0, layout.volume - 1), otherVoxels}) {
        EXPECT_FALSE(loader.load(session, bytes));
        EXPECT_TRUE(project_of(session) == before);
    }
    EXPECT_FALSE(loader.load(session, damaged));
    expect_usable(session);
}

TEST_F(DamagedProject, StreamsThatAreNotOpen) {
    Session session(scene.records);
    std::ofstream out;
    std::ifstream in;
    EXPECT_EQ(printed([&] { EXPECT_FALSE(save_project(session, out)); }), "save_whole_tree fail , invaild path\n");
    EXPECT_EQ(printed([&] { EXPECT_FALSE(read_project(session, in)); }), because("no Fusion data"));
    std::ofstream throwingOut;
    std::ifstream throwingIn;
    throwingOut.exceptions(std::ios::badbit | std::ios::failbit);
    throwingIn.exceptions(std::ios::badbit | std::ios::failbit | std::ios::eofbit);
    const std::string text = printed([&] {
        EXPECT_FALSE(save_project(session, throwingOut));
        EXPECT_FALSE(read_project(session, throwingIn));
    });
    EXPECT_EQ(text.find("save_project failed: "), 0U) << text;
    EXPECT_NE(text.find("\nread_project failed: "), std::string::npos) << text;
    EXPECT_EQ(printed([&] { EXPECT_FALSE(save_project(nullptr, out) || read_project(nullptr, in)); }),
              "fail because pFusionTrack = NULL\nfail because pFusionTrack = NULL\n");
}

}  // namespace
