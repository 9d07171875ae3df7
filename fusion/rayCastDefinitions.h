// The raycast's definition. Included only by the sources that instantiate it.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "fusion/ImageTiles.h"
#include "fusion/rayCast.h"
#include "fusion/rayCastKernels.h"

namespace VexelAlgorithm {
namespace Fusion {
namespace detail {

// A worker starts with an empty cache; larger tasks left workers idle at the end.
constexpr std::size_t TilesPerTask = 4;

/// Runs a kernel over the tiles of an image. `Source` is what the kernel's worker state is made from.
template <class Kernel, class Source>
void for_each_tile(int threads, const PointImage& image, const Kernel& kernel, const Source& source) {
    const ImageTiles tiles(image.get_image_width(), image.get_image_height());
    parallel_ranges(threads, tiles.count(), TilesPerTask, [&](std::size_t begin, std::size_t end) {
        typename Kernel::Worker worker(source);
        for (std::size_t i = begin; i < end; ++i) kernel(worker, tiles[i]);
    });
}

inline bool is_result_usable(const PointImage& result, const RigidMatrix& pose) {
    const CameraInParam& camera = result.get_camPar();
    const bool usable = pose.is_finite() && result.is_legal() && std::isfinite(camera.get_fx()) &&
                        std::isfinite(camera.get_fy()) && camera.get_fx() != 0.0 && camera.get_fy() != 0.0;
    if (!usable) print_line("can not run function rayCast because the pose or the camera of resultFrame is not usable");
    return usable;
}

}  // namespace detail

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
        if (!detail::is_result_usable(result, pose)) return RET_INPUT_ERROR;

        result.enable_vNormal();
        const rayCastPoint<Leaf> castPoint(volume, guide, pose, result, guided, nearFar, intervalFactor);
        detail::for_each_tile(volume.get_code_Num(), result, castPoint, volume.get_fusion_tree());
        result.set_rt(pose);
        if (normals.fromImage) {
            result.update_VNrv(normals.step, normals.step + 1, normals.distance);
        } else {
            const rayCastNormal<Leaf> castNormal(volume, pose, result, normals.distance);
            detail::for_each_tile(volume.get_code_Num(), result, castNormal, volume.get_fusion_tree());
        }
        return RET_SUCCESS;
    });
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
