#include "simulation/colorImages.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"
#include "simulation/SurfaceView.h"

namespace VexelAlgorithm::Simulation {
namespace {

constexpr double kWave = 50.0;  // mm
constexpr int kFiner = 2;
constexpr double kWider = 1.1;
constexpr double kPi = 3.14159265358979323846;
constexpr std::size_t kRowsPerTask = 16;

DistortedCamera pinhole_of(const FusionParameter& fusion) {
    DistortedCamera camera;
    camera.width = fusion.colorImageSize.x();
    camera.height = fusion.colorImageSize.y();
    camera.fx = fusion.colorImagePar(0, 0);
    camera.fy = fusion.colorImagePar(1, 1);
    camera.cx = fusion.colorImagePar(0, 2);
    camera.cy = fusion.colorImagePar(1, 2);
    return camera;
}

std::uint8_t level(float value) {
    return static_cast<std::uint8_t>(std::lround(255.0F * std::clamp(value, 0.0F, 1.0F)));
}

}  // namespace

Vector3f soft_stripes(const Vector3d& point) {
    return (0.5 + 0.35 * (2.0 * kPi / kWave * point.array()).sin()).matrix().cast<float>();
}

void add_color_camera(const Sequence& sequence, FusionParameter& fusion) {
    const CameraInParam& camera = sequence.camera;
    const int width = kFiner * sequence.width, height = kFiner * sequence.height;
    fusion.colorImageSize = {width, height};
    fusion.colorImageRange = {0, 0, width, height};
    fusion.colorImagePar << kFiner / kWider * camera.get_fx(), 0.0, 0.5 * (width - 1), 0.0,
        kFiner / kWider * camera.get_fy(), 0.5 * (height - 1), 0.0, 0.0, 1.0;
    const Matrix3d turn = Eigen::AngleAxisd(0.1, Vector3d::UnitY()).toRotationMatrix();
    fusion.tranLeftToColor = RigidMatrix(turn, turn * Vector3d(-45.0, 0.0, 0.0));
}

ColorImage color_image_of(const Sequence& sequence, int frame, const FusionParameter& fusion,
                          const SurfaceColor& surface, int threads) {
    const RigidMatrix cameraToWorld =
        sequence.poses[static_cast<std::size_t>(frame)] * fusion.tranLeftToColor.inverse();
    const PixelRays rays = rays_of(pinhole_of(fusion), threads);
    const SurfaceView view =
        view_surface(*sequence.scene, rays, cameraToWorld, sequence.farLimit, cameraToWorld.get_translation(), threads);
    ColorImage image;
    image.width = rays.width;
    image.height = rays.height;
    image.bytes.resize(image.row_bytes() * static_cast<std::size_t>(image.height));
    const auto paint_row = [&](int y) {
        std::uint8_t* pixel = image.bytes.data() + static_cast<std::size_t>(y) * image.row_bytes();
        for (int x = 0; x < image.width; ++x, pixel += 3) {
            const auto depth = static_cast<double>(view.depth[view.index_of(x, y)]);
            if (depth <= 0.0) continue;
            const Vector3f color = surface(cameraToWorld * Vector3d(depth * rays.at(x, y)));
            for (int channel = 0; channel < 3; ++channel) pixel[channel] = level(color[channel]);
        }
    };
    parallel_ranges(threads, static_cast<std::size_t>(image.height), kRowsPerTask,
                    [&](std::size_t begin, std::size_t end) {
                        for (std::size_t y = begin; y < end; ++y) paint_row(static_cast<int>(y));
                    });
    return image;
}

ColorAndPoint colored_frame_of(const Sequence& sequence, int frame, const FusionParameter& fusion,
                               const SurfaceColor& surface, int threads) {
    return {frame_of(sequence, frame, threads), color_image_of(sequence, frame, fusion, surface, threads)};
}

}  // namespace VexelAlgorithm::Simulation
