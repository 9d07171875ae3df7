// What every pixel of a camera sees of a scene, and whether a lamp reaches it; made for large images.
#pragma once

#include <cstdint>
#include <vector>

#include "simulation/DistortedCamera.h"
#include "simulation/Shape.h"

namespace VexelAlgorithm::Simulation {

struct SurfaceView {
    int width = 0;
    int height = 0;
    std::vector<float> depth;         ///< z in camera coordinates, mm; 0 where nothing is seen
    std::vector<Vector3f> normals;    ///< unit length, in camera coordinates, towards the camera
    std::vector<std::uint8_t> isLit;  ///< 1 where nothing stands between surface and lamp and the lamp faces it

    std::size_t index_of(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
    }
};

/// Depths are within 1e-3 mm of the surface. Rays are cast through the corners of blocks of 4 x 4 pixels only, as far
/// as the corners see one surface; in between, the depth is interpolated and moved onto the surface by its distance,
/// which is checked. Blocks in which something ends or begins, and those into which something from a neighbour may
/// reach, get a ray for each pixel, so that only things narrower than a block in all directions can be missed. Shadows
/// likewise. The same for any number of threads. `cameraToWorld` must be rigid; `lamp` (mm, world) is a point.
SurfaceView view_surface(const Shape& scene, const PixelRays& rays, const RigidMatrix& cameraToWorld, double farLimit,
                         const Vector3d& lamp, int threads = 2);

}  // namespace VexelAlgorithm::Simulation
