#include "fusiontrackoperation/modelSamples.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "foundation/parallel.h"
#include "fusiontrackoperation/OctetSurfaces.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t OCTETS_PER_TASK = std::size_t{1} << 13;

using SurfacePoints = std::vector<SurfacePoint>;

SurfacePoints surface_of(const OctetSurfaces::Tree& tree, std::size_t begin, std::size_t end, std::size_t stride) {
    SurfacePoints points;
    OctetSurfaces surfaces(tree);
    const auto number_at = [&](std::size_t i) { return static_cast<std::int32_t>((begin + i) * stride); };
    surfaces.for_each(end - begin, number_at, [&](const OctetSurface& octet) {
        for (int code = 0; code < OctetCells::Count; ++code) {
            if ((octet.found() >> code & 1) != 0) points.push_back(octet.point(code));
        }
    });
    return points;
}

}  // namespace

Cloud sample_model(const Fusion::FusionTsdf<Fusion::LeafTSDFSpeckle>& volume, std::size_t mostOctets) {
    const auto all = static_cast<std::size_t>(volume.get_vaild_leaf_num() / OctetCells::Count);
    // Odd, so that the octets of a brick take turns.
    const std::size_t stride = std::max<std::size_t>((all + mostOctets - 1) / mostOctets, 1) | 1;
    const std::size_t count = (all + stride - 1) / stride;
    std::vector<SurfacePoints> pieces((count + OCTETS_PER_TASK - 1) / OCTETS_PER_TASK);
    parallel_ranges(volume.get_code_Num(), pieces.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t piece = begin; piece < end; ++piece) {
            const std::size_t first = piece * OCTETS_PER_TASK;
            pieces[piece] =
                surface_of(volume.get_fusion_tree(), first, std::min(count, first + OCTETS_PER_TASK), stride);
        }
    });
    Cloud cloud;
    cloud.enable_vNormal();
    for (const SurfacePoints& points : pieces) {
        for (const SurfacePoint& surface : points) {
            const std::size_t point = cloud.add_vCoord(surface.point);
            cloud.set_vNrv(point, surface.normal);
        }
    }
    return cloud;
}

}  // namespace VexelAlgorithm
