#include "foundation/slotDepths.h"

#include <limits>

#include "foundation/parallel.h"

namespace VexelAlgorithm {

std::unique_ptr<float[]> slot_depths(const PointImage& image, int threads) {
    std::unique_ptr<float[]> depths(new float[image.get_vn()]);
    const float none = std::numeric_limits<float>::quiet_NaN();
    const RigidMatrix toCamera = image.get_rt().is_finite() ? image.get_rt().inverse() : RigidMatrix();
    const Vector3d axis = toCamera.get_rotation().row(2);
    const double offset = toCamera.get_translation().z();
    const bool isMoved = axis != Vector3d::UnitZ() || offset != 0.0;
    parallel_ranges(threads, image.get_vn(), 1 << 15, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Vector3f& point = image.get_vCoord(i);
            const float depth = isMoved ? static_cast<float>(axis.dot(point.cast<double>()) + offset) : point.z();
            depths[i] = image.has_point(i) ? depth : none;
        }
    });
    return depths;
}

}  // namespace VexelAlgorithm
