#include "fusion/rayCast.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "fusion/rayCastKernels.h"

namespace VexelAlgorithm {
namespace Fusion {
namespace {

// Rays of one tile pass through the same octets.
constexpr int TileSize = 32;

template <class Body>
void for_each_tile(int threads, const PointImage& image, const Body& body) {
    const int width = image.get_image_width(), height = image.get_image_height();
    const int columns = (width + TileSize - 1) / TileSize, rows = (height + TileSize - 1) / TileSize;
    parallel_ranges(threads, static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), 1,
                    [&](std::size_t begin, std::size_t end) {
                        OctetCache cache;
                        for (std::size_t tile = begin; tile < end; ++tile) {
                            const int x0 = static_cast<int>(tile % static_cast<std::size_t>(columns)) * TileSize;
                            const int y0 = static_cast<int>(tile / static_cast<std::size_t>(columns)) * TileSize;
                            for (int y = y0; y < std::min(y0 + TileSize, height); ++y) {
                                for (int x = x0; x < std::min(x0 + TileSize, width); ++x) {
                                    body(cache, image.index_of(x, y));
                                }
                            }
                        }
                    });
}

bool is_result_usable(const PointImage& result, const RigidMatrix& pose) {
    const CameraInParam& camera = result.get_camPar();
    const bool usable = pose.is_finite() && result.is_legal() && std::isfinite(camera.get_fx()) &&
                        std::isfinite(camera.get_fy()) && camera.get_fx() != 0.0 && camera.get_fy() != 0.0;
    if (!usable) print_line("can not run function rayCast because the pose or the camera of resultFrame is not usable");
    return usable;
}

}  // namespace

template <class Leaf>
int rayCast(const FusionTsdf<Leaf>& volume, const PointImage& guide, const RigidMatrix& pose, PointImage& result,
            bool guided, const Vector2f& nearFar, const RayCastNormals& normals, float intervalFactor) {
    return guarded<int>("rayCast", RET_RUN_FAIL, [&]() -> int {
        if (guided && guide.get_vn() != result.get_vn()) {
            print_line("resultFrame.get_vn() != guildFrame.get_vn()");
            print_line(format_text("resultFrame.get_vn() = %zu", result.get_vn()));
            print_line(format_text("guildFrame.get_vn() = %zu", guide.get_vn()));
            return RET_INPUT_ERROR;
        }
        if (!is_result_usable(result, pose)) return RET_INPUT_ERROR;

        result.enable_vNormal();
        const rayCastPoint<Leaf> castPoint(volume, guide, pose, result, guided, nearFar, intervalFactor);
        for_each_tile(volume.get_code_Num(), result, castPoint);
        result.set_rt(pose);
        if (normals.fromImage) {
            result.update_VNrv(normals.step, normals.step + 1, normals.distance);
        } else {
            const rayCastNormal<Leaf> castNormal(volume, pose, result, normals.distance);
            for_each_tile(volume.get_code_Num(), result, castNormal);
        }
        return RET_SUCCESS;
    });
}

#define VEXEL_INSTANTIATE(Leaf)                                                                             \
    template int rayCast(const FusionTsdf<Leaf>&, const PointImage&, const RigidMatrix&, PointImage&, bool, \
                         const Vector2f&, const RayCastNormals&, float);
VEXEL_INSTANTIATE(LeafTSDFSpeckle)
VEXEL_INSTANTIATE(LeafTSDFTeeth)
VEXEL_INSTANTIATE(LeafTSDFCloudGenerator)
VEXEL_INSTANTIATE(LeafTSDFLaser)
#undef VEXEL_INSTANTIATE

}  // namespace Fusion
}  // namespace VexelAlgorithm
