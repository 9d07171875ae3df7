#include "apps/resultFiles.h"

#include <opencv2/imgcodecs.hpp>

#include "apps/preview.h"
#include "foundation/meshExport.h"
#include "recording/files.h"

namespace VexelAlgorithm::Apps {

Outcome<Done> write_mesh_file(const std::filesystem::path& path, const BaseTriMesh& mesh) {
    std::uint32_t content = MESH_WRITE_BINARY | MESH_WRITE_VERTEX_NORMAL;
    if (mesh.is_enable_vColor()) content |= MESH_WRITE_VERTEX_COLOR;
    const int digits = 7;
    const int result = write_mesh(path.string(), mesh, content, digits);
    if (result != 0) return Failure{path.string() + " cannot be written; check the space on the disk"};
    return Done{};
}

Outcome<Done> write_picture(const std::filesystem::path& path, const cv::Mat& picture, const char* what) {
    std::vector<unsigned char> encoded;
    if (picture.empty() || !cv::imencode(".png", picture, encoded)) {
        return Failure{std::string("the ") + what + " could not be drawn"};
    }
    return write_whole_file(path, {reinterpret_cast<const char*>(encoded.data()), encoded.size()});
}

Outcome<Done> write_preview(const std::filesystem::path& path, const BaseTriMesh& mesh, const CameraInParam& camera,
                            ImageSize size, const std::vector<RigidMatrix>& poses, int threads) {
    const std::vector<View> views = preview_views(mesh, poses, camera, size);
    return write_picture(path, draw_preview(mesh, views, threads), "preview");
}

}  // namespace VexelAlgorithm::Apps
