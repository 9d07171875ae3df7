#include <algorithm>

#include "foundation/PointImage.h"
#include "foundation/facetNormals.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t SlotsPerTask = 1 << 15;

int steps_within(int window, int step) {
    return std::clamp(window / step, 1, MaxFacetSteps);
}

Vector3f camera_position(const RigidMatrix& pose) {
    return pose.is_finite() ? Vector3f(pose.get_translation().cast<float>()) : Vector3f(Vector3f::Zero());
}

}  // namespace

void PointImage::count_point_normal(int stepX, int stepY, int windowX, int windowY, float distanceLimit) {
    if (!is_legal()) return;
    enable_vNormal();
    if (get_vn() == 0) return;  // but maybe with 2^31 - 1 rows
    FacetWindow window;
    window.stepX = std::max(stepX, 1);
    window.stepY = std::max(stepY, 1);
    window.countX = steps_within(windowX, window.stepX);
    window.countY = steps_within(windowY, window.stepY);
    window.distanceLimit = distanceLimit;
    compute_facet_normals(_coords.data(), _width, _height, window, camera_position(_rt), default_thread_number(),
                          _normals.data());
}

void PointImage::update_VNrv(int step, int window, float distanceLimit) {
    count_point_normal(step, step, window, window, distanceLimit);
}

void PointImage::delete_point_without_normal() {
    if (!is_enable_vNormal() || !is_legal()) return;
    parallel_ranges(default_thread_number(), get_vn(), SlotsPerTask, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Vector3f& normal = _normals[i];
            if (!normal.allFinite() || normal == Vector3f::Zero()) set_slot_empty(i);
        }
    });
}

void PointImage::delete_point_flaged(const Vector3f& emptyPoint) {
    if (!is_enable_vFlag() || !is_legal()) return;
    const Vector3f written = emptyPoint;  // it may refer to a slot of this image
    constexpr std::uint8_t doomed = VertexFlag::Edge | VertexFlag::Deleted | VertexFlag::Selected;
    parallel_ranges(default_thread_number(), get_vn(), SlotsPerTask, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            if (!_flags[i].test(doomed)) continue;
            set_slot_empty(i);
            _coords[i] = written;
        }
    });
}

}  // namespace VexelAlgorithm
