#include "track/particleDebug.h"

#include <cstddef>
#include <filesystem>

#include "foundation/Cloud.h"
#include "foundation/diagnostics.h"
#include "foundation/meshExport.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

std::string file_in(const std::string& folder, const std::string& name) {
    return (std::filesystem::path(folder) / name).string();
}

}  // namespace

void dump_cloud(const std::string& path, const char* name, int frameId, const PointImage& image,
                const RigidMatrix& pose) {
    PointImage moved = image;
    moved.rigid_transformation(pose);
    write_asc(file_in(path, format_text("%s_%d.txt", name, frameId)), moved, false);
}

void dump_correspondences(const std::string& path, const char* label, int frameId, int particleId,
                          const ParticleWorkspace& workspace, const Alignment& alignment) {
    Cloud pairs;
    pairs.enable_vColor();
    pairs.resize_vn(2 * workspace.count);
    for (std::size_t i = 0; i < workspace.count; ++i) {
        const MovingPoint& moving = alignment.moving[workspace.movingEntry[i]];
        const ProjectedPoint p = project(moving, alignment.movingToFixed, alignment.fixed.camera());
        const FixedImage::Point& q = alignment.fixed.points()[workspace.pixel[i]];
        pairs.set_vCoord(2 * i, {p.x, p.y, p.z});
        pairs.set_vColor(2 * i, {1, 0, 0});
        pairs.set_vCoord(2 * i + 1, {q.x, q.y, q.z});
        pairs.set_vColor(2 * i + 1, {0, 1, 0});
    }
    write_asc(file_in(path, format_text("%s_%d_%d.txt", label, frameId, particleId)), pairs);
}

}  // namespace Track
}  // namespace VexelAlgorithm
