#include "simulation/render.h"

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "simulation/combinations.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr int kLargestSide = 16384;
constexpr std::size_t kRowsPerTask = 4;

const char* fault_of_image(const CameraInParam& camera, int width, int height, const RenderSettings& settings) {
    if (width < 1 || height < 1 || width > kLargestSide || height > kLargestSide)
        return "render: the frame must have 1 to 16384 columns and rows";
    const bool finite = std::isfinite(camera.get_fx()) && std::isfinite(camera.get_fy()) &&
                        std::isfinite(camera.get_cx()) && std::isfinite(camera.get_cy());
    if (!finite || camera.get_fx() <= 0.0 || camera.get_fy() <= 0.0)
        return "render: the camera needs finite intrinsics and focal lengths above 0";
    if (!settings.viewRadial.allFinite()) return "render: the view radial is not finite";
    return nullptr;
}

const char* fault_of_view(const RigidMatrix& cameraToWorld, const RenderSettings& settings) {
    if (!is_rigid(cameraToWorld)) return "render: the pose is not a finite rotation and translation";
    if (!(settings.farLimit > 0.0)) return "render: the far limit must be above 0";
    return nullptr;
}

void see_slot(const Shape& scene, const RigidMatrix& cameraToWorld, double farLimit, std::size_t slot,
              PointImage& frame) {
    const Vector3d view = frame.get_ray_direct(slot).cast<double>().normalized();
    const Ray ray{cameraToWorld.get_translation(), (cameraToWorld.get_rotation() * view).normalized()};
    const std::optional<Hit> hit = scene.hit(ray, farLimit / view.z());
    if (!hit) return;

    const double facing = -hit->normal.dot(ray.direction);
    const Vector3d normal =
        cameraToWorld.get_rotation().transpose() * (facing < 0.0 ? Vector3d(-hit->normal) : hit->normal);
    const Vector3f point = (hit->range * view).cast<float>();
    frame.set_vCoord(slot, point);
    frame.set_vNrv(slot, normal.cast<float>().normalized());
    frame.set_vWeight(slot, static_cast<float>(std::abs(facing)));
}

}  // namespace

PointImage render(const Shape& scene, const CameraInParam& camera, int width, int height,
                  const RigidMatrix& cameraToWorld, const RenderSettings& settings) {
    PointImage frame;
    frame.enable_vNormal();
    frame.enable_vWeight();
    frame.enable_vFlag();
    if (const char* fault = fault_of_image(camera, width, height, settings)) {
        print_line(fault);
        return frame;
    }
    frame.ini(width, height, camera, settings.sample, settings.viewRadial);
    if (const char* fault = fault_of_view(cameraToWorld, settings)) {
        print_line(fault);
        return frame;
    }
    const auto rowLength = static_cast<std::size_t>(width);
    parallel_ranges(settings.threads, static_cast<std::size_t>(height), kRowsPerTask,
                    [&](std::size_t rowBegin, std::size_t rowEnd) {
                        for (std::size_t slot = rowBegin * rowLength; slot < rowEnd * rowLength; ++slot)
                            see_slot(scene, cameraToWorld, settings.farLimit, slot, frame);
                    });
    return frame;
}

}  // namespace VexelAlgorithm::Simulation
