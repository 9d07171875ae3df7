#include <OpenMesh/Core/IO/MeshIO.hh>

#include "foundation/meshExport.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace {

using namespace VexelAlgorithm;

namespace fs = std::filesystem;

class Export : public testing::Test {
protected:
    std::string path(const std::string& name) const { return (folder.path() / name).string(); }
    std::vector<std::string> lines(const std::string& name) const { return VexelTrial::lines_of(path(name)); }

    const VexelTrial::TemporaryFolder folder;
};

BaseTriMesh tetrahedron() {
    BaseTriMesh mesh;
    mesh.set_vCoords({{0, 0, 0}, {1.25f, 0, 0}, {0, 2.5f, 0}, {0, 0, -3.125f}});
    mesh.set_faces({{{0, 1, 2}}, {{0, 3, 1}}, {{0, 2, 3}}, {{1, 3, 2}}});
    mesh.update_VNrv();
    mesh.enable_vColor();
    for (std::size_t i = 0; i < 4; ++i) mesh.set_vColor(i, {0.2f * static_cast<float>(i), 1.0f, -7.0f});
    return mesh;
}

/// The call must fail with one line, which is returned.
template <class Call>
std::string failure_line(const Call& call) {
    const auto [result, text] = VexelTest::outcome(call);
    EXPECT_TRUE(result != 0 && VexelTest::line_count(text) == 1) << text;
    return text;
}

TEST_F(Export, OpenMeshReadsBackEveryFormat) {
    const BaseTriMesh mesh = tetrahedron();
    constexpr std::uint32_t all = MESH_WRITE_VERTEX_NORMAL | MESH_WRITE_VERTEX_COLOR;
    const std::tuple<std::string, std::uint32_t, bool, bool> formats[] = {
        {"text.ply", all, true, true},   {"binary.ply", all | MESH_WRITE_BINARY, true, true},
        {"text.off", all, true, true},   {"plain.ply", MESH_WRITE_BINARY, false, false},
        {"upper.OBJ", all, true, false}, {"binary.stl", all | MESH_WRITE_BINARY, false, false},
        {"text.stl", all, false, false}};
    testing::internal::CaptureStderr();
    for (const auto& [name, written, hasNormals, hasColors] : formats) {
        SCOPED_TRACE(name);
        ASSERT_EQ(write_mesh(path(name), mesh, written, 9), 0);
        TriMesh read;
        read.request_vertex_normals();
        read.request_vertex_colors();
        OpenMesh::IO::Options options = OpenMesh::IO::Options::VertexNormal;
        options += OpenMesh::IO::Options::VertexColor;
        if ((written & MESH_WRITE_BINARY) != 0) options += OpenMesh::IO::Options::Binary;
        ASSERT_TRUE(OpenMesh::IO::read_mesh(read, path(name), options));
        ASSERT_EQ(read.n_vertices(), 4u);
        ASSERT_EQ(read.n_faces(), 4u);
        if (name.find("stl") == std::string::npos) {  // whose reader leaves the options alone
            EXPECT_EQ(options.vertex_has_normal(), hasNormals);
            EXPECT_EQ(options.vertex_has_color(), hasColors);
        }
        for (const auto f : read.faces()) {
            int corner = 0;
            for (const auto v : read.fv_range(f)) {
                const Vector3f& expected = mesh.get_vCoord(mesh.get_face(f.idx())[corner++]);
                const auto point = read.point(v);
                EXPECT_EQ(Vector3f(point[0], point[1], point[2]), expected) << "face " << f.idx();
            }
        }
        if (hasNormals) {
            for (const auto v : read.vertices()) EXPECT_NEAR(read.normal(v)[2], mesh.get_vNrv(v.idx()).z(), 1e-6f);
        }
        if (hasColors) {
            EXPECT_EQ(read.color(TriMesh::VertexHandle(3)), OpenMesh::Vec3uc(153, 255, 0));
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(folder.file_count(), 7u) << "nothing is left beside the files";
}

TEST_F(Export, KeepsOrderAndNonManifoldTrianglesAndDropsDeletedOnes) {
    BaseTriMesh mesh;
    mesh.set_vCoords({{9, 9, 9}, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, -1, 0}});
    // Three triangles on the edge 1-2; then a deleted one, one with a deleted vertex, two with missing ones.
    mesh.set_faces({{{1, 2, 3}}, {{1, 2, 4}}, {{1, 2, 5}}, {{3, 4, 5}}, {{0, 1, 2}}, {{1, 2, 6}}, {{-1, 2, 3}}});
    mesh.set_vDeleted(0, true);
    mesh.set_fDeleted(3, true);
    ASSERT_EQ(write_mesh(path("a.off"), mesh, MESH_WRITE_DEFAULT, 6), 0);
    const std::vector<std::string> expected{"OFF",   "5 3 0",  "0 0 0",   "1 0 0",   "0 1 0",
                                            "0 0 1", "0 -1 0", "3 0 1 2", "3 0 1 3", "3 0 1 4"};
    EXPECT_EQ(lines("a.off"), expected);
}

TEST_F(Export, FailuresGiveOneLineAndKeepTheOlderFile) {
    const BaseTriMesh mesh = tetrahedron();
    BaseTriMesh plain = mesh;
    plain.disable_vNormal();
    Cloud illegal;
    illegal.set_vNrvs({Vector3f::Zero()});
    // The name is allowed, but leaves no room for the part that is written first.
    const std::string older = path(std::string(250, 'n') + ".ply");
    VexelTrial::put_bytes(older, "older");
    fs::create_directory(path("folder.ply"));
    const std::string missing = path("missing/mesh.ply");
    EXPECT_NE(failure_line([&] { return write_mesh(missing, mesh, 0, 6); }).find(missing), std::string::npos);
    for (const std::string& wrong : {path("folder.ply"), older, path("mesh.xyz"), std::string()})
        failure_line([&] { return write_mesh(wrong, mesh, 0, 6); });
    failure_line([&] { return write_mesh(path("mesh.ply"), plain, MESH_WRITE_VERTEX_NORMAL, 6); });
    failure_line([&] { return write_asc(path("cloud.asc"), illegal); });
    failure_line([&] { return write_cloudWithWeight(path("missing/cloud.asc"), CloudWithWeight()); });
    EXPECT_EQ(folder.file_count(), 2u) << "only what was there before";
    EXPECT_EQ(VexelTrial::bytes_of(older), "older");
}

TEST_F(Export, CloudsAsText) {
    CloudWithWeight cloud;
    cloud.set_vCoords({{1, 2, 3}, {4, 5, 6}, {0.1f, -1e-20f, 3e20f}});
    cloud.enable_vWeight();
    cloud.set_vWeight(2, 0.5f);
    cloud.set_vDeleted(1, true);
    ASSERT_EQ(write_cloudWithWeight(path("weight.asc"), cloud), 0);
    EXPECT_EQ(lines("weight.asc"), (std::vector<std::string>{"1 2 3 0", "0.1 -1e-20 3e+20 0.5"}));
    cloud.enable_vNormal();
    cloud.enable_vColor();
    cloud.set_vColor(0, {0.0f, 0.5f, 2.0f});
    ASSERT_EQ(write_asc(path("cloud.asc"), cloud), 0);
    EXPECT_EQ(lines("cloud.asc").front(), "1 2 3 0 0 0 0 128 255");

    PointImage frame;
    frame.ini(2, 2);
    frame.set_point(1, 1, {7, 8, 9});
    ASSERT_EQ(write_asc(path("frame.asc"), frame, false), 0);
    EXPECT_EQ(lines("frame.asc"), std::vector<std::string>{"7 8 9"});
    ASSERT_EQ(write_asc(path("frame.asc"), frame, true), 0) << "replaces the older file";
    EXPECT_EQ(lines("frame.asc").size(), 4u);
}

TEST_F(Export, HalfEdgeMeshLeavesOutWhatItCannotHold) {
    const BaseTriMesh base = tetrahedron();
    TriMesh mesh;
    testing::internal::CaptureStderr();
    std::vector<int> indices{0, 1, 2, 0, 3, 1, 0, 2, 3, 1, 3, 2};
    EXPECT_EQ(mesh.build_mesh(base.get_vCoords(), indices), 0u);
    EXPECT_EQ(mesh.normal(TriMesh::FaceHandle(0)), TriMesh::Normal(0, 0, 1));
    // Wound against its neighbour, a third one on an edge, missing vertices, twice the same, incomplete.
    indices = {0, 1, 2, 0, 1, 3, 1, 0, 3, 0, 1, 3, 0, 4, 1, -1, 0, 1, 2, 2, 3, 1};
    EXPECT_EQ(mesh.build_mesh(base.get_vCoords(), indices), 6u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(mesh.n_faces(), 2u);
    EXPECT_EQ(mesh.n_vertices(), 4u);

    mesh.request_vertex_status();
    mesh.request_edge_status();
    mesh.request_face_status();
    mesh.delete_face(TriMesh::FaceHandle(0), true);
    ASSERT_EQ(write_mesh(path("a.off"), mesh, MESH_WRITE_DEFAULT, 6), 0);
    EXPECT_EQ(lines("a.off").at(1), "3 1 0") << "deleted faces and vertices are left out";
    mesh.clear();
    ASSERT_EQ(write_mesh(path("empty.ply"), mesh, MESH_WRITE_BINARY, 6), 0) << "an empty mesh is a mesh";
}

}  // namespace
