// Sessions that are saved and go on: right after loading nothing has changed, and later next to nothing.
#include "fusion/FusionTsdf.h"
#include "fusion/octreeFile.h"
#include "simulation/Shape.h"
#include "tests/fusion/octreeScenes.h"
#include "tests/project/projectScenes.h"

namespace {

using namespace VexelAlgorithm;

TEST(Project, LoadedSessionIsTheSameAndGoesOn) {
    const Scan scan("smooth");
    const int saved = 6, end = 14;
    Session original(scan.records);
    for (int i = 0; i < saved; ++i) ASSERT_TRUE(original.step(scan.frame(i)));
    const std::string shown = display_bytes(original);
    const std::string bytes = original.bytes(), project = project_of(original);

    Loader loader;
    Session once(scan.records), again(scan.records);
    for (Session* session : {&once, &again}) {
        ASSERT_TRUE(loader.load(*session, project)) << loader.lines;
        EXPECT_EQ(loader.lines, "");
        EXPECT_TRUE(session->bytes() == bytes);
        EXPECT_TRUE(display_bytes(*session) == shown);
        EXPECT_TRUE(project_of(*session) == project) << "saving what was loaded";
        EXPECT_EQ(session->state().acceptedFrames, saved);
        EXPECT_EQ(session->state().outcome, FrameOutcome::NoFrameYet);
        Vector3f shift, expected;
        get_model2Volum_shift(*session, shift);
        get_model2Volum_shift(original, expected);
        EXPECT_EQ(shift, expected);
    }
    for (int i = saved; i < end; ++i) {
        const PointImage frame = scan.frame(i);
        ASSERT_TRUE(original.step(frame) && once.step(frame) && again.step(frame)) << i;
        // Millimetres and degrees; 0.01 degrees are as much at the edge of the frame as a twentieth of a voxel.
        const Vector2d difference = pose_error(get_current_rt(original), get_current_rt(once));
        EXPECT_TRUE(difference.x() < 0.05 && difference.y() < 0.01) << difference.transpose();
    }
    EXPECT_EQ(once.state().acceptedFrames, end);
    EXPECT_TRUE(once.bytes() == again.bytes());
    EXPECT_TRUE(display_bytes(once) == display_bytes(again));

    // Into a session that has a model, the project replaces it.
    ASSERT_TRUE(loader.load(once, project));
    EXPECT_TRUE(once.bytes() == bytes);
    EXPECT_TRUE(display_bytes(once) == shown);
}

TEST(Project, ColoursAreSavedWithTheLeavesAndHostileOnesAreHarmless) {
    const ColoredScan scan(80);
    Session original(scan.records), loaded(scan.records), again(scan.records);
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(original.step(scan.colored(i)));
    const std::string shown = display_bytes(original), project = project_of(original);
    ASSERT_TRUE(original.mesh().is_enable_vColor());
    Loader loader;
    for (Session* session : {&loaded, &again}) {
        ASSERT_TRUE(loader.load(*session, project)) << loader.lines;
        EXPECT_TRUE(session->bytes() == original.bytes());
        EXPECT_TRUE(display_bytes(*session) == shown);
        EXPECT_TRUE(project_of(*session) == project);
        for (int i = 4; i < 6; ++i) ASSERT_TRUE(session->step(scan.colored(i)));
    }
    EXPECT_TRUE(loaded.bytes() == again.bytes());

    const ProjectLayout layout(project);
    std::vector<std::size_t> colored;  // where in the file
    for (std::size_t at = layout.records; at < layout.ids; at += 40)
        if (number_at<float>(project, at + 28) > 0.0F) colored.push_back(at);
    ASSERT_GT(colored.size(), layout.used / 4);
    const float infinity = std::numeric_limits<float>::infinity();
    for (const auto& [offset, value] : std::vector<std::pair<std::size_t, float>>{{16, kNaN},
                                                                                  {20, infinity},
                                                                                  {24, -3.0F},
                                                                                  {16, 1e30F},
                                                                                  {28, kNaN},
                                                                                  {28, infinity},
                                                                                  {28, -1.0F},
                                                                                  {28, 1e30F}}) {
        std::string bytes = project;
        for (const std::size_t at : colored) put_number(bytes, at + offset, value);
        ASSERT_TRUE(loader.load(loaded, bytes)) << offset << ' ' << value << loader.lines;
        const BaseTriMesh mesh = loaded.mesh();
        const bool hasColors = std::isfinite(value) && value != -1.0F;
        ASSERT_EQ(mesh.is_enable_vColor(), hasColors) << offset << ' ' << value;
        for (std::size_t i = 0; hasColors && i < mesh.get_vn(); ++i)
            ASSERT_TRUE((mesh.get_vColor(i).array() >= 0.0F).all() && (mesh.get_vColor(i).array() <= 1.0F).all());
        ASSERT_TRUE(loaded.step(scan.colored(4)));
    }
    // A model without colours takes the place of one with colours.
    Session plain(scan.records);
    ASSERT_TRUE(plain.step(scan.frame(0)));
    get_show_data(plain);
    ASSERT_TRUE(loader.load(loaded, project_of(plain)));
    EXPECT_TRUE(loaded.mesh_bytes() == plain.mesh_bytes());
}

TEST(Project, SavingSaysWhatItDoes) {
    const TinyScene scene;
    Session session(scene.records);
    const VexelTrial::TemporaryFolder folder;
    std::ofstream out(folder.path() / "project", std::ios::binary);
    EXPECT_EQ(printed([&] { EXPECT_FALSE(save_project(session, out)); }),
              "save tree prative\nthe max vaild leaf id = -1\nsave leaf data\nleaf.size() 0\nvaildSize = 0\n"
              "output all cloudShow \nResult data has been destory , save fail\n");
    scene.scan(session);
    std::string lines;
    const std::string bytes = project_of(session, &lines);
    const ProjectLayout layout(bytes);
    const std::int32_t slots = number_at<std::int32_t>(bytes, layout.leaves);
    EXPECT_EQ(lines, format_text("save tree prative\nthe max vaild leaf id = %d\nsave leaf data\nleaf.size() %d\n"
                                 "vaildSize = %zu\noutput all cloudShow \nshow cloud = %zu\nvaildSize = %zu\n",
                                 slots - 1, slots, layout.used, layout.shown, layout.shown));
}

#if defined(__linux__)
TEST(Project, AFullDiskIsNoticed) {
    const TinyScene scene;
    Session session(scene.records);
    scene.scan(session);
    std::ofstream full("/dev/full", std::ios::binary);
    if (!full) GTEST_SKIP() << "no /dev/full";
    const std::string lines = printed([&] { EXPECT_FALSE(save_project(session, full)); });
    EXPECT_NE(lines.find("Fail , save fail\n"), std::string::npos) << lines;
}
#endif

// Saved from the tiny scene when the form was fixed, with fusion() at the poses of its scan; to be read for ever.
TEST(Project, TheFirstProjectStillOpens) {
    const std::string bytes = VexelTrial::bytes_of(VEXEL_SMALL_PROJECT);
    const ProjectLayout layout(bytes);
    ASSERT_EQ(layout.end, bytes.size());
    const TinyScene scene;
    Session session(scene.records);
    Loader loader;
    ASSERT_TRUE(loader.load(session, bytes)) << loader.lines;
    EXPECT_EQ(session.state().acceptedFrames, 2);
    EXPECT_LT(pose_error({turned({0.0, 0.02, 0.01}), {3.0, -2.0, 1.0}}, get_current_rt(session)).norm(), 1e-9);

    // The dome z = 300 + 600 (u^2 + v^2), u = x / z and v = y / z, by the display and by the mesh.
    const auto distance = [](const Vector3f& p) {
        return p.z() - 300.0F - 600.0F * (p.head<2>() / p.z()).squaredNorm();
    };
    const Cloud& display = get_show_data(session);
    ASSERT_EQ(display.get_vn(), layout.shown);
    EXPECT_EQ(layout.shown, 9U);
    for (std::size_t i = 0; i < display.get_vn(); ++i) EXPECT_LT(std::abs(distance(display.get_vCoord(i))), 2.0F);
    EXPECT_TRUE(project_of(session) == bytes) << "the form has changed";
}

// Trees of every depth with scattered cells, the corners of the volume among them.
TEST(OctreeFile, EveryLeafIsFoundAgain) {
    using VexelOctree::Tree;
    const VexelTrial::TemporaryFolder folder;
    for (const int depth : {10, 13, 20}) {
        Tree tree, read;
        tree.set_depth(depth, 1);
        read.set_depth(depth, 1);
        const std::vector<Vector3i> voxels = VexelOctree::scattered_voxels(tree.get_size(), 30, 100);
        for (const Vector3i& v : voxels) tree.find_or_create_leaf(v.x(), v.y(), v.z());
        {
            std::ofstream out(folder.path() / "trees", std::ios::binary);
            ASSERT_TRUE(VexelOctree::save_trees_binary(tree, out));
        }
        std::ifstream in(folder.path() / "trees", std::ios::binary);
        ASSERT_EQ(VexelOctree::OctreeReader<Fusion::LeafTSDFSpeckle>(read, in).run(), VexelOctree::TreesRead::Whole);
        EXPECT_EQ(VexelOctree::check_octree(read), std::vector<std::string>());
        EXPECT_EQ(read.get_vaild_leaf_num(), tree.get_vaild_leaf_num());
        for (const Vector3i& v : voxels) ASSERT_EQ(read.find_leaf(v), tree.find_leaf(v)) << v.transpose();
    }
}

}  // namespace
