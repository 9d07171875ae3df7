// Meshes, calibrations, texts and archives.
#include <sstream>

#include "foundation/PointImage.h"
#include "foundation/meshExport.h"
#include "fuzz/seeds.h"
#include "recording/calibrationText.h"
#include "recording/frameNames.h"
#include "recording/poseText.h"
#include "recording/trajectoryText.h"
#include "trials/TemporaryFolder.h"

namespace VexelFuzz {
namespace {

using namespace VexelAlgorithm;

/// Which of a target's readers is meant.
std::string for_reader(int choice, const std::string& bytes) {
    return static_cast<char>(choice) + bytes;
}

RigidMatrix some_motion() {
    Matrix3d rotation;
    rodrigures(Vector3d(0.1, -0.2, 0.3), rotation);
    return {rotation, Vector3d(-120.5, 3.25, 40.0)};
}

template <class Points>
void give_attributes(Points& points) {
    points.enable_vNormal();
    points.enable_vColor();
    points.enable_vFlag();
    for (std::size_t i = 0; i < points.get_vn(); ++i) {
        points.set_vNrv(i, Vector3f(0.0F, 0.0F, 1.0F));
        points.set_vColor(i, Vector3f(0.25F, 0.5F, 1.0F));
    }
}

BaseTriMesh tetrahedron() {
    BaseTriMesh mesh;
    mesh.set_vCoords({{0.0F, 0.0F, 0.0F}, {10.0F, 0.0F, 0.0F}, {0.0F, 10.0F, 0.0F}, {0.0F, 0.0F, 10.0F}});
    mesh.set_faces({{{0, 2, 1}}, {{0, 1, 3}}, {{0, 3, 2}}, {{1, 2, 3}}});
    return mesh;
}

PointImage small_frame() {
    PointImage frame;
    frame.ini(6, 5, CameraInParam(5.0, 5.0, 2.5, 2.0), 1, Vector2f::Zero());
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x)
            if (x + y > 1) frame.set_point(x, y, Vector3f(x - 2.5F, y - 2.0F, 5.0F + 0.1F * static_cast<float>(x)));
    return frame;
}

template <class Value>
std::string archive_of(const Value& value) {
    std::ostringstream out;
    value.write_archive(out);
    return out.str();
}

std::string mesh_file(const std::string& ending, std::uint32_t options) {
    const VexelTrial::TemporaryFolder folder;
    const std::filesystem::path path = folder.path() / ("mesh" + ending);
    BaseTriMesh mesh = tetrahedron();
    give_attributes(mesh);
    write_mesh(path.string(), mesh, options, 6);
    return VexelTrial::bytes_of(path);
}

/// What other programs write: lists before scalars, every type, polygons, the highest byte first.
std::string foreign_ply() {
    const std::string head =
        "ply\r\nformat binary_big_endian 1.0\ncomment by hand\nobj_info none\nelement vertex 3\nproperty short x\n"
        "property double y\nproperty float z\nproperty uchar red\nelement face 1\nproperty list uint ushort "
        "vertex_index\nproperty list char uint32 others\nelement nothing 0\nproperty int8 a\nend_header\n";
    std::string body;
    for (const char corner : {'\0', '\1', '\2'})
        body +=
            std::string("\0", 1) + corner + std::string("\x3f\xf0\0\0\0\0\0\0", 8) + std::string("\x40\0\0\0\x80", 5);
    return head + body + std::string("\0\0\0\3\0\0\0\1\0\2", 10) + std::string("\1\0\0\0\7", 5);
}

}  // namespace

std::vector<Seed> mesh_seeds() {
    const std::uint32_t full = MESH_WRITE_VERTEX_NORMAL | MESH_WRITE_VERTEX_COLOR;
    return {
        {"text.ply", for_reader(0, mesh_file(".ply", full))},
        {"binary.ply", for_reader(0, mesh_file(".ply", full | MESH_WRITE_BINARY))},
        {"foreign.ply", for_reader(0, foreign_ply())},
        {"polygon.ply", for_reader(0,
                                   "ply\nformat ascii 1.0\nelement vertex 4\nproperty float x\nproperty float y\n"
                                   "property float z\nelement face 1\nproperty list uchar int vertex_indices\n"
                                   "end_header\n0 0 1\n2 0 1\n2 3 1e-3\n+0 -3 1\n4 0 1 2 3\n")},
        {"written.obj", for_reader(1, mesh_file(".obj", MESH_WRITE_VERTEX_NORMAL))},
        {"foreign.obj", for_reader(1,
                                   "# hand\r\nv 0 0 1\nv 2 0 1\nv 2 3 1\nvt 0 0\nvn 0 0 1\nusemtl none\n"
                                   "f 1/1/1 2//1 3\nf -1 -2 -3\n")},
        {"text.stl", for_reader(2, mesh_file(".stl", 0))},
        {"binary.stl", for_reader(2, mesh_file(".stl", MESH_WRITE_BINARY))},
    };
}

std::vector<Seed> calibration_seeds() {
    CalibratedCamera plain{60.0, 60.0, 23.5, 15.5, {}, {}};
    CalibratedCamera real{1201.25, 1199.5, 640.5, 511.0, {-0.1, 0.02, 1e-4, -2e-4, 0.005}, some_motion()};
    std::string mirrored = calibration_text(plain);
    mirrored.replace(mirrored.find("R = [1 "), 7, "R = [-1 ");
    return {{"plain", calibration_text(plain)}, {"real", calibration_text(real)}, {"mirrored", mirrored}};
}

std::vector<Seed> text_seeds() {
    const RigidMatrix motion = some_motion();
    return {
        {"pose", for_reader(0, pose_text(motion))},
        {"intrinsics", for_reader(1, intrinsics_text(CameraInParam(585.0, 585.0, 320.0, 240.0)))},
        {"depth_step", for_reader(2, depth_step_text(0.05))},
        {"trajectory", for_reader(3, trajectory_text({{0.0, RigidMatrix()}, {0.033, motion}, {1.5, motion * motion}}))},
        {"name", for_reader(4, frame_name(17, ".depth.png"))},
    };
}

std::vector<Seed> archive_seeds() {
    Cloud cloud;
    cloud.set_vCoords({{1.0F, 2.0F, 3.0F}, {4.0F, 5.0F, 6.0F}});
    CloudWithWeight weighted;
    weighted.set_vCoords(cloud.get_vCoords());
    weighted.enable_vWeight();
    BaseTriMesh mesh = tetrahedron(), bare = tetrahedron();
    mesh.enable_fNormal();
    mesh.enable_fFlag();
    mesh.enable_texture();
    mesh.set_texture_name("texture.png");
    PointImage frame = small_frame(), bareFrame = small_frame();
    frame.enable_vWeight();
    frame.set_rt(some_motion());
    give_attributes(cloud);
    give_attributes(weighted);
    give_attributes(mesh);
    give_attributes(frame);
    return {
        {"cloud", for_reader(0, archive_of(cloud))},
        {"no_points", for_reader(0, archive_of(Cloud()))},
        {"cloud_with_weight", for_reader(1, archive_of(weighted))},
        {"frame", for_reader(2, archive_of(frame))},
        {"bare_frame", for_reader(2, archive_of(bareFrame))},
        {"mesh", for_reader(3, archive_of(mesh))},
        {"bare_mesh", for_reader(3, archive_of(bare))},
        {"motion", for_reader(4, archive_of(some_motion()))},
        {"camera", for_reader(5, archive_of(CameraInParam(585.0, 585.0, 320.0, 240.0)))},
    };
}

}  // namespace VexelFuzz
