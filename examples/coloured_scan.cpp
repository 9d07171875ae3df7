// Coloured scan: each frame comes with the image of a colour camera beside the scanner, and the mesh has the colours of
// the surface. The cameras here are virtual ones, so that the true colours are known.
#include <cstdio>
#include <filesystem>

#include "examples/virtualScanner.h"
#include "simulation/colorImages.h"

using namespace VexelAlgorithm;

namespace {

constexpr int FrameCount = 8;

/// A real scanner's colour camera comes from its calibration: colorImagePar from `CaliParReadIn::get_color_K`,
/// tranLeftToColor from `get_rectified_to_color`; its images must be freed of lens distortion before.
FusionParameter coloured_fusion(const Simulation::Sequence& camera) {
    FusionParameter fusion = fusion_parameter();
    fusion.colorOnInvaildPoint = {0.5F, 0.5F, 0.5F};
    Simulation::add_color_camera(camera, fusion);
    return fusion;
}

bool scan(void* session, const Simulation::Sequence& camera, const FusionParameter& fusion) {
    for (int i = 0; i < FrameCount; ++i) {
        const ColorAndPoint frame = Simulation::colored_frame_of(camera, i, fusion, Simulation::soft_stripes);
        int microseconds = 0;
        if (!fusion_and_track(session, frame, microseconds, true, 0)) return false;
    }
    return true;
}

/// The mean error of the channels of those vertices that have a colour.
float mean_error(const BaseTriMesh& mesh, const Simulation::Sequence& camera, const FusionParameter& fusion) {
    float sum = 0.0F;
    std::size_t coloured = 0;
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        if (mesh.get_vColor(i) == fusion.colorOnInvaildPoint) continue;
        const Vector3d world = camera.poses.front() * Vector3d(mesh.get_vCoord(i).cast<double>());
        sum += (mesh.get_vColor(i) - Simulation::soft_stripes(world)).cwiseAbs().mean();
        ++coloured;
    }
    std::printf("%zu of %zu vertices have a colour\n", coloured, mesh.get_vn());
    return coloured > mesh.get_vn() / 2 ? sum / static_cast<float>(coloured) : 1.0F;
}

bool write(const BaseTriMesh& mesh) {
    const std::filesystem::path path = std::filesystem::temp_directory_path() / "vexel_coloured_scan_example.ply";
    const std::uint32_t content = MESH_WRITE_BINARY | MESH_WRITE_VERTEX_NORMAL | MESH_WRITE_VERTEX_COLOR;
    const bool isWritten = write_mesh(path.string(), mesh, content, 6) == 0;
    std::filesystem::remove(path);
    return isWritten;
}

}  // namespace

int main() {
    const auto camera = virtual_scanner();
    if (!camera) return 1;
    const FusionParameter fusion = coloured_fusion(*camera);
    CommonParameter common = common_parameter(*camera);
    common.colorImageSize = fusion.colorImageSize;
    void* session = fusion_and_track_ini(common, TrackParmeter(), fusion);
    if (session == nullptr) return 1;
    BaseTriMesh mesh;
    const bool isDone = scan(session, *camera, fusion) && get_fusion_result_tbb(session, 0.0F, mesh) == RET_SUCCESS;
    fusiontrack_release(session);
    if (!isDone || !mesh.is_enable_vColor() || !write(mesh)) return 1;
    const float error = mean_error(mesh, *camera, fusion);
    std::printf("their channels are %.4f off the truth in the mean\n", static_cast<double>(error));
    return error < 0.02F ? 0 : 1;
}
