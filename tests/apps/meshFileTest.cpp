// Mesh files in every format, and the reasons of damaged ones; that readers survive anything is tried by fuzzing.
#include "recording/meshFile.h"
#include "tests/common.h"
#include "trials/TemporaryFolder.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTrial;

template <class... Values>
std::string packed(Values... values) {
    std::string bytes;
    const auto append = [&](const auto& value) { bytes.append(reinterpret_cast<const char*>(&value), sizeof(value)); };
    (append(values), ...);
    return bytes;
}

/// A square of 2 x 3 in the plane z = 1, as one polygon of four corners where the format has them.
const std::string plyHead = "element vertex 4\nproperty float x\nproperty float y\nproperty float z\n";
const std::string plyFaces = "element face 1\nproperty list uchar int vertex_indices\nend_header\n";
const std::string plyText = "ply\nformat ascii 1.0\n" + plyHead + plyFaces;
const std::string plyCorners = "0 0 1\n2 0 1\n2 3 1\n0 3 1\n";

std::string binary_ply(const std::string& faces) {
    return "ply\nformat binary_little_endian 1.0\n" + plyHead + plyFaces +
           packed(0.F, 0.F, 1.F, 2.F, 0.F, 1.F, 2.F, 3.F, 1.F, 0.F, 3.F, 1.F) + faces;
}
std::string binary_stl(std::uint32_t count, const std::string& title = "square") {
    const std::string normal = packed(0.F, 0.F, 1.F);
    return title + std::string(80 - title.size(), ' ') + packed(count) + normal +
           packed(0.F, 0.F, 1.F, 2.F, 0.F, 1.F, 2.F, 3.F, 1.F, std::uint16_t{0}) + normal +
           packed(0.F, 0.F, 1.F, 2.F, 3.F, 1.F, 0.F, 3.F, 1.F, std::uint16_t{0});
}
std::string stl_facet(const std::string& corners) {
    return "facet normal 0 0 1\nouter loop\n" + corners + "endloop\nendfacet\n";
}
const std::string stlText = "solid square\n" + stl_facet("vertex 0 0 1\nvertex 2 0 1\nvertex 2 3 1\n") +
                            stl_facet("vertex 0 0 1\nvertex 2 3 1\nvertex 0 3 1\n") + "endsolid square\n";
const std::string objText = "# square\nv 0 0 1\nv 2 0 1\nv 2 3 1\nv 0 3 1\nvt 0 0\nvn 0 0 1\n";

class MeshFile : public ::testing::Test {
protected:
    Outcome<MeshData> read(const std::string& ending, const std::string& bytes) {
        const std::filesystem::path path = _folder.path() / ("mesh" + ending);
        put_bytes(path, bytes);
        return read_mesh_file(path);
    }
    TemporaryFolder _folder;
};

TEST_F(MeshFile, EveryFormatHoldsTheSameSquare) {
    const std::pair<std::string, std::string> files[] = {
        {".ply", plyText + plyCorners + "4 0 1 2 3\n"},
        {".PLY", plyText + plyCorners + "4 0 1 2 3"},
        {".ply", binary_ply(packed(std::uint8_t{4}, 0, 1, 2, 3))},
        {".ply",
         "ply\nformat ascii 1.0\ncomment made by hand\nelement vertex 4\nproperty double x\nproperty double "
         "y\nproperty "
         "double z\nproperty float confidence\n" +
             plyFaces + "0 0 1 .5\n2 0 1 .5\n2 3 1 .5\n0 3 1 .5\n4 0 1 2 3\n"},
        {".obj", objText + "f 1/1/1 2/1/1 3/1/1 4/1/1\n"},
        {".obj", objText + "usemtl none\nf -4 -3 -2\nf -4 -2 -1"},
        {".stl", binary_stl(2)},
        {".stl", binary_stl(2, "solid as many say")},
        {".stl", stlText},
    };
    for (const auto& [ending, bytes] : files) {
        const Outcome<MeshData> mesh = read(ending, bytes);
        ASSERT_TRUE(mesh) << ending << ": " << mesh.failure().reason;
        double area = 0;
        for (const Vector3i& triangle : mesh->triangles) {
            Vector3f corner[3];
            for (int i = 0; i < 3; ++i) corner[i] = mesh->points.at(static_cast<std::size_t>(triangle[i]));
            const Vector3f normal = (corner[1] - corner[0]).cross(corner[2] - corner[0]);
            EXPECT_EQ(corner[0].z(), 1) << ending;
            area += 0.5 * static_cast<double>(normal.z());
        }
        EXPECT_EQ(mesh->triangles.size(), 2U) << ending;
        EXPECT_EQ(area, 6) << ending;
    }
}

TEST_F(MeshFile, DamagedFilesGiveOneSentence) {
    const std::string hugeHead = "element vertex 4294967295\nproperty float x\nproperty float y\nproperty float z\n";
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {".ply", "", "empty"},
        {".txt", "v 0 0 0\n", "is no mesh file"},
        {".ply", "hello", "broken"},
        {".ply", plyText + "0 0 1\n2 x 1\n2 3 1\n0 3 1\n4 0 1 2 3\n", "broken"},
        {".ply", plyText + "0 0 1\n2 0 1\n2 3 1\n0 3 nan\n4 0 1 2 3\n", "not a finite"},
        {".ply", plyText + plyCorners + "4 0 1 2 4\n", "corner that does not exist"},
        {".ply", plyText + plyCorners + "4 0 1 2 -1\n", "corner that does not exist"},
        {".ply", plyText + plyCorners + "2 0 1\n", "no faces"},
        {".ply", "ply\nformat binary_little_endian 1.0\n" + hugeHead + plyFaces + "0123", "broken"},
        {".ply", binary_ply(packed(std::uint8_t{4}, 0, 1)), "broken"},
        {".ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nend_header\n1\n", "broken"},
        {".obj", objText + "f 1 2 -9\n", "corner that does not exist"},
        {".obj", "v 1e999 0 0\n" + objText + "f 1 2 3\n", "broken"},
        {".stl", "solid nothing\nendsolid nothing\n", "no faces"},
        {".stl", binary_stl(4000000000U), "broken"},
        {".stl", binary_stl(2).replace(100, 4, packed(std::nanf(""))), "not a finite"},
    };
    for (const auto& [ending, bytes, reason] : cases) {
        const Outcome<MeshData> mesh = read(ending, bytes);
        ASSERT_FALSE(mesh) << bytes;
        EXPECT_NE(mesh.failure().reason.find(reason), std::string::npos) << bytes << "\n" << mesh.failure().reason;
        EXPECT_EQ(mesh.failure().reason.find('\n'), std::string::npos);
    }
    EXPECT_FALSE(read_mesh_file(_folder.path() / "missing.ply"));
    std::filesystem::create_directory(_folder.path() / "folder.obj");
    EXPECT_FALSE(read_mesh_file(_folder.path() / "folder.obj"));
}

}  // namespace
