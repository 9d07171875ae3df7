// What an application chooses about the final mesh, counts, and writes down.
#include "tests/project/projectScenes.h"
#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;

class ResultSettingsTest : public testing::Test {
protected:
    ResultSettingsTest() {
        for (int i = 0; i < 2; ++i) EXPECT_TRUE(session.step(scan.frame(i)));
    }
    double roughness() const { return rms_of(scan.off_surface(session.mesh().get_vCoords())); }
    double turn_of_normals() const { return scan.turn_of_normals(session.mesh()); }
    std::vector<std::string> dumped_by(RetVal (*output)(void*, const std::string&)) const {
        const VexelTrial::TemporaryFolder folder;
        const std::string path = (folder.path() / "text").string();
        EXPECT_EQ(output(session, path), RET_SUCCESS);
        return VexelTrial::lines_of(path);
    }

    Scan scan{"smooth", 160, 0.3};
    Session session{scan.records};
};

TEST_F(ResultSettingsTest, EachShowsInTheMesh) {
    const std::string usual = session.mesh_bytes();
    const std::size_t triangles = session.mesh().get_fn(), vertices = session.mesh().get_vn();
    const double rough = roughness(), turned = turn_of_normals();

    ASSERT_EQ(reset_final_gauss_smooth_window(session, 3), RET_SUCCESS);
    EXPECT_LT(roughness(), 0.9 * rough);
    EXPECT_EQ(session.mesh().get_fn(), triangles);
    ASSERT_EQ(reset_final_gauss_smooth_window(session, 0), RET_SUCCESS);

    ASSERT_EQ(reset_final_normal_window(session, 3), RET_SUCCESS);
    EXPECT_LT(turn_of_normals(), 0.8 * turned);
    EXPECT_EQ(roughness(), rough) << "vertices stay";
    ASSERT_EQ(reset_final_normal_window(session, 1), RET_SUCCESS);

    ASSERT_EQ(reset_final_isolated_island_delete(session, 1000000), RET_SUCCESS);
    EXPECT_EQ(session.mesh().get_fn(), 0U);
    ASSERT_EQ(reset_final_isolated_island_delete(session, 100), RET_SUCCESS);

    ASSERT_EQ(reset_delete_distance_ratio_with_tanget_plane(session, 0.3F), RET_SUCCESS);
    EXPECT_LT(session.mesh().get_vn(), vertices);
    EXPECT_GT(session.mesh().get_vn(), vertices / 2);
    ASSERT_EQ(reset_delete_distance_ratio_with_tanget_plane(session, 0.0F), RET_SUCCESS);
    EXPECT_EQ(session.mesh_bytes(), usual) << "all is as it was";

    ASSERT_EQ(set_fusion_result_opt(session, true, true, true), RET_SUCCESS);
    EXPECT_LT(roughness(), rough);
    ASSERT_EQ(set_fusion_result_opt(session, true, false, false), RET_SUCCESS);
    EXPECT_FALSE(session.mesh().is_enable_vNormal());
    EXPECT_EQ(session.mesh().get_fn(), triangles);
    ASSERT_EQ(reset_final_isolated_island_delete(session, 1000000), RET_SUCCESS);
    ASSERT_EQ(set_fusion_result_opt(session, false, false, true), RET_SUCCESS);
    EXPECT_GE(session.mesh().get_fn(), triangles);
}

TEST_F(ResultSettingsTest, CountsAndDumpsAgreeWithWhatIsThere) {
    EXPECT_EQ(get_show_num_ini(session), 0) << "nothing has been shown yet";
    const auto valid = static_cast<int>(get_show_data_filter_noise(session).get_vn());
    EXPECT_EQ(get_show_num_ini(session), static_cast<int>(get_show_data(session).get_vn()));
    EXPECT_EQ(get_valid_count_of_show_cloud(session), 0);
    EXPECT_EQ(count_valid_num_of_show_cloud(session), valid);
    EXPECT_EQ(get_valid_count_of_show_cloud(session), valid);

    const std::size_t used = ProjectLayout(project_of(session)).used;
    const auto whole = dumped_by(output_whole_tree), near = dumped_by(output_tree);
    EXPECT_EQ(whole.size(), used);
    EXPECT_LT(near.size(), used);
    EXPECT_GT(near.size(), used / 4);
    std::istringstream first(near.front());
    Vector3f centre;
    float distance = 0.0F, weight = 0.0F;
    int count = 0;
    ASSERT_TRUE(first >> centre.x() >> centre.y() >> centre.z() >> distance >> weight >> count);
    EXPECT_NEAR(scan.off_surface({centre}).front(), static_cast<double>(distance), 1.0);
    EXPECT_TRUE(weight > 0.0F && count > 0);

    ASSERT_EQ(delete_selected_point(session, {1, 2, 3}), RET_SUCCESS);
    ASSERT_EQ(delete_frame_point(session, 1), RET_SUCCESS);
    EXPECT_EQ(dumped_by(output_operate_record),
              (std::vector<std::string>{"2 delete_selected_point 3", "2 delete_frame_point 1"}));
}

TEST_F(ResultSettingsTest, BadValuesAreRefusedWithOneLine) {
    const std::string before = session.mesh_bytes(), folder = VexelTrial::TemporaryFolder().path().string();
    const std::string window = "window is not between ";
    const std::string unwritable = folder + "/x";
    expect_refused(
        session, {
                     REFUSED(reset_final_gauss_smooth_window, window + "0 and 64", -1),
                     REFUSED(reset_final_normal_window, window + "1 and 64", 65),
                     REFUSED(reset_final_isolated_island_delete, "triangles is not between 0 and 2147483647", -5),
                     REFUSED(reset_delete_distance_ratio_with_tanget_plane, "ratio is negative or not a number", kNaN),
                     REFUSED(output_tree, "the path is empty", ""),
                     REFUSED(output_whole_tree, unwritable + " cannot be written", unwritable).giving(RET_RUN_FAIL),
                     REFUSED(output_operate_record, "the path is empty", ""),
                 });
    EXPECT_EQ(session.mesh_bytes(), before);
}

}  // namespace
