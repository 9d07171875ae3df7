// Views of the virtual world and a registration handle that releases itself.
#pragma once

#include <Eigen/Geometry>
#include <string>

#include "platform/featureRegistration.h"
#include "simulation/NoiseModel.h"
#include "simulation/cameraPaths.h"
#include "simulation/render.h"
#include "simulation/scenes.h"

namespace VexelAlgorithm {

constexpr double kRadian = 3.14159265358979323846 / 180.0;

/// A noisy frame in camera coordinates, 1.6 mm between pixels, from 400 mm away; the pose is the camera's.
struct View {
    PointImage frame;
    RigidMatrix cameraToWorld;
};

inline View view_of(const Simulation::Shape& scene, const Vector3d& target, double azimuth, double elevation) {
    const Vector3d direction(std::cos(azimuth * kRadian) * std::cos(elevation * kRadian),
                             std::sin(azimuth * kRadian) * std::cos(elevation * kRadian),
                             std::sin(elevation * kRadian));
    View view;
    view.cameraToWorld = Simulation::look_at(target + 400.0 * direction, target);
    view.frame = Simulation::render(scene, {250, 250, 79.5, 63.5}, 160, 128, view.cameraToWorld);
    Simulation::apply_noise(view.frame, {}, static_cast<std::uint64_t>(360.0 + azimuth));
    return view;
}

constexpr float kSpacing = 3.0f;

class Registration {
public:
    explicit Registration(float spacing = kSpacing)
        : handle(pair_lrf_cue_create_implementaion(5.0f, 10.0f, 20.0f, spacing, 3)) {}
    ~Registration() { pair_lrf_cue_release_implementation(handle); }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    RetVal align(const Cloud& ref, const Cloud& obj) {
        if (const RetVal result = pair_lrf_cue_set_ref_cloud(handle, ref)) return result;
        if (const RetVal result = pair_lrf_cue_set_obj_cloud(handle, obj)) return result;
        return pair_lrf_cue_compute_registration(handle, objToRef, alignment);
    }

    void* handle;
    RigidMatrix objToRef;
    FeatureAlignment alignment;
};

}  // namespace VexelAlgorithm
