// vexel-scan replay: a recorded scan happens once more, to the last bit.
#include "ReplayTool.h"
#include "tests/session/sessionScenes.h"

namespace VexelTest {
namespace {

TEST_F(ReplayTool, RepeatsARecordedScanToTheLastBit) {
    const std::string file = recorded(1, 8);
    ASSERT_GT(file.size(), 100000U);
    const ToolRun same = replay(file, "--out @/again");
    EXPECT_EQ(same.exitCode, 0) << same.errors;
    expect_in("8 frames, 8 compared, 0 with differences", same);
    expect_in("by at most 0 mm", same);
    EXPECT_TRUE(bytes_of(path("again/mesh.ply")) == bytes_of(path("out/mesh.ply")));
    EXPECT_EQ(replay(file, "--threads 2").exitCode, 0);

    const ToolRun listed = replay(file, "--list");
    EXPECT_EQ(listed.exitCode, 0);
    expect_in("120 x 96 pixels", listed);
    expect_in("fused, residual", listed);
    expect_in("fusiontrack_release", listed);

    // The last bit of the last pose.
    std::string doctored = file;
    const std::size_t state = file.rfind("state") + 5 + 8;
    doctored[state + kPoseInState + 72] = static_cast<char>(doctored[state + kPoseInState + 72] ^ 1);
    const ToolRun other = replay(doctored);
    EXPECT_EQ(other.exitCode, 1);
    expect_in("8 compared, 1 with differences", other);
    expect_in("First         frame 8 (record ", other);
    EXPECT_EQ(replay(doctored, "--tolerance 0.001").exitCode, 0);

    // A program that died: up to the cut all is as it was.
    const ToolRun cut = replay(file.substr(0, file.size() / 2), "--out @/half");
    EXPECT_EQ(cut.exitCode, 0) << cut.errors;
    expect_in("0 with differences", cut);
    expect_in("End           the file is cut off within record ", cut);
    EXPECT_TRUE(exists("half/mesh.ply"));
    const ToolRun died = replay(file.substr(0, file.rfind("AccumalateFusionData", state) - 4));
    EXPECT_EQ(died.exitCode, 0) << died.errors;
    expect_in("No result     of frame 8 was recorded", died);
    expect_in("ends before the session was released", died);
}

TEST_F(ReplayTool, RepeatsColouredFramesAndWritesTheirColours) {
    using namespace VexelAlgorithm;
    record([&] {
        const ColoredScan scan(80);
        Session session(scan.records);
        for (int i = 0; i < 4; ++i) {
            EXPECT_TRUE(session.step(scan.colored(i)));
            const RetVal edited = i == 1 ? delete_frame_point(session, 0) : RET_SUCCESS;
            EXPECT_EQ(edited, RET_SUCCESS);
        }
        write_mesh(path("expected.ply").string(), session.mesh(),
                   MESH_WRITE_BINARY | MESH_WRITE_VERTEX_NORMAL | MESH_WRITE_VERTEX_COLOR, 7);
    });
    const ToolRun same = run("replay @/testbug-000001.tb --out @/again");
    EXPECT_EQ(same.exitCode, 0) << same.errors;
    expect_in("4 frames, 4 compared, 0 with differences", same);
    EXPECT_TRUE(bytes_of(path("again/mesh.ply")) == bytes_of(path("expected.ply")));
    EXPECT_TRUE(holds(bytes_of(path("again/mesh.ply")).substr(0, 400), "property uchar red"));
}

TEST_F(ReplayTool, RepeatsEditsBetweenFrames) {
    using namespace VexelAlgorithm;
    record([&] {
        const Scan scan("smooth", 80);
        Session session(scan.records);
        int next = 0;
        const auto step = [&] { EXPECT_TRUE(session.step(scan.frame(next++))); };
        step(), step(), step();
        Cloud corner;
        for (std::size_t i = 0; i < 40; ++i) corner.add_vCoord(get_show_data(session).get_vCoord(i));
        EXPECT_EQ(delete_point_when_scan(session, corner, 3.0F), RET_SUCCESS);
        EXPECT_EQ(delete_selected_point(session, {5, 6, 7, 300}), RET_SUCCESS);
        step();
        EXPECT_EQ(delete_unStable(session, 3), RET_SUCCESS);
        step();
        std::vector<int> slots(3000);
        for (std::size_t i = 0; i < slots.size(); ++i) slots[i] = static_cast<int>(i);
        EXPECT_EQ(delete_single_frame_point(session, 2, slots), RET_SUCCESS);
        EXPECT_EQ(map_on_frame_delete_point(session, 3, corner, 20.0F), RET_SUCCESS);
        step();
        EXPECT_EQ(delete_key_frame(session, 1), RET_SUCCESS);
        EXPECT_EQ(fusion_single_frame_filtering_using_tsdf(session, 4, 0.5F), RET_SUCCESS);
        step();
    });
    const ToolRun same = run("replay @/testbug-000001.tb");
    EXPECT_EQ(same.exitCode, 0) << same.errors;
    expect_in("7 frames, 7 compared, 0 with differences", same);
    expect_in("map_on_frame_delete_point", run("replay @/testbug-000001.tb --list"));
}

}  // namespace
}  // namespace VexelTest
