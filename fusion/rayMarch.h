// Where rays meet the surface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "fusion/BrickCache.h"

namespace VexelAlgorithm {
namespace Fusion {

/// A ray from the origin of its bundle, model coordinates.
struct MarchRay {
    float direction[3];              ///< unit
    float start = 0.0f, end = 0.0f;  ///< interval of ray lengths, mm; start <= end
    std::int32_t firstSample = 0;    ///< samples before this one are known to read 0
};

/// What the rays of a bundle share.
struct RayBundle {
    float origin[3];  ///< mm, model coordinates
    float shift[3];   ///< mm, of the volume
    float pointDis;   ///< mm
    float step;       ///< mm
    float sampleEnd;  ///< voxels; positions q with 1 <= q < sampleEnd on all axes are valid
    bool isGuided;    ///< short rays: no search for empty space that may be passed over
};

/// The length (mm) at which sample n of a ray lies.
inline float length_at(const RayBundle& bundle, const MarchRay& ray, std::int32_t n) {
    return ray.start + static_cast<float>(n) * bundle.step;
}

/// In voxels; more than a position below `largest` can be off by rounding.
inline float rounding_margin(float largest) {
    return 0.01f + largest * 4.0f * std::numeric_limits<float>::epsilon();
}

/// Finds for each ray the length at which it passes from in front of the surface to behind it, NaN when there is no
/// such place. Sample n lies at start + n step. March: nearest voxels' values until a positive one is followed by a
/// negative one; samples that are sure to read 0, because they lie in an empty node of the octree, are passed over.
/// Then trilinear samples around that place.
using CastRays = void (*)(const RayBundle& bundle, BrickCache& bricks, const MarchRay* rays, std::size_t count,
                          float* lengths);

/// The implementation for the widest vectors of this processor. All give the same bits.
CastRays best_cast_rays();

}  // namespace Fusion
}  // namespace VexelAlgorithm
