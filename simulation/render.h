// Depth frames of a virtual scene: what an ideal scanner would measure.
#pragma once

#include "foundation/PointImage.h"
#include "simulation/Shape.h"

namespace VexelAlgorithm::Simulation {

struct RenderSettings {
    double farLimit = 2000.0;                ///< mm of depth (z); surfaces beyond it are not seen
    int threads = 2;                         ///< workers, at least 1; the frame does not depend on it
    int sample = 1;                          ///< stored in the frame
    Vector2f viewRadial = Vector2f::Zero();  ///< pixel position of slot (0, 0)
};

/// A frame of width x height slots in camera coordinates (stored pose: identity) with normals, weights and flags.
/// Slot (x, y) holds the first surface point on the viewing ray of its pixel, exact to the rounding of its
/// floats, and the exact surface normal, turned to face the camera. The weight is the cosine between normal
/// and viewing ray: 1 where the surface is seen from the front, near 0 where it is grazed. Slots that see
/// nothing up to the far limit are empty. A camera inside a solid sees its surface from within.
///
/// `cameraToWorld` is the pose of the camera (x right, y down, z forward) in the coordinates of the scene.
/// `camera` belongs to the frame as it is, sub-sampled or not.
///
/// A pose that is not finite or not a rotation, or a far limit that is not above 0, gives one line and a frame
/// of empty slots; a camera without finite positive focal lengths, or a size below 1 or above 16384, one line
/// and a frame without slots.
PointImage render(const Shape& scene, const CameraInParam& camera, int width, int height,
                  const RigidMatrix& cameraToWorld, const RenderSettings& settings = {});

}  // namespace VexelAlgorithm::Simulation
