// What the cameras of a virtual speckle scanner record, and the truth about it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/PointImage.h"
#include "simulation/Shape.h"
#include "simulation/StereoRig.h"
#include "simulation/SurfaceView.h"

namespace VexelAlgorithm::Simulation {

/// 8-bit grey, row by row.
struct GreyImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;
};

/// Bits of `StereoPair::visibility`.
enum Visibility : std::uint8_t {
    SeenByLeft = 1,
    LitByProjector = 2,  ///< nothing in the way and inside the projector's image
    SeenByRight = 4,     ///< nothing in the way and inside the right image
};

struct StereoPair {
    GreyImage left;
    GreyImage right;
    std::vector<float> trueDepth;  ///< z in raw left camera coordinates for every raw left pixel, mm; 0 for none
    std::vector<std::uint8_t> visibility;  ///< of what each raw left pixel sees
};

/// What falls on the sensors before an exposure is chosen: relative to saturation at exposure 1, blurred by the lenses.
struct StereoSignals {
    int width = 0;
    int height = 0;
    std::vector<float> left;
    std::vector<float> right;
    std::vector<float> trueDepth;  ///< as in `StereoPair`
    std::vector<std::uint8_t> visibility;
};

/// Keeps what does not change from pair to pair: the rays of the pixels and the projector's pattern.
class StereoCamera {
public:
    explicit StereoCamera(const StereoRig& rig, int threads = 2);

    /// The pair taken from this pose of the raw left camera (camera to world, rigid). The number chooses the noise. The
    /// same for any number of threads.
    ///
    /// The grey level of a pixel: albedo (ambient + pattern * facing * fall-off) + highlight of the projector's light,
    /// where the lamp reaches; dimmed by the lens; blurred by it; to electrons, shot and read noise, saturated; to grey
    /// levels, rounded and clipped. Speckles are averaged over the pixel's footprint on the projector, widened by the
    /// camera's defocus; the lens in focus blurs the image as a whole, so that edges of things are soft as well. Edges
    /// are not widened by defocus.
    StereoPair take(const Shape& scene, const RigidMatrix& leftToWorld, std::uint64_t number) const;
    /// The two halves of `take`: many exposures of the same view need the light but once.
    StereoSignals gather(const Shape& scene, const RigidMatrix& leftToWorld) const;
    StereoPair develop(const StereoSignals& signals, const Sensor& sensor, std::uint64_t number) const;

    const StereoRig& rig() const { return _rig; }

private:
    StereoRig _rig;
    int _threads;
    PixelRays _leftRays;
    PixelRays _rightRays;
    SpeckleTexture _pattern;
};

/// The true frame in rectified-left coordinates, exact and without noise: `rectifiedToLeft` is the rotation from
/// rectified-left to raw left camera coordinates, `camera` the rectified intrinsics for an image of that size.
PointImage rectified_truth(const Shape& scene, const RigidMatrix& leftToWorld, const Matrix3d& rectifiedToLeft,
                           const CameraInParam& camera, int width, int height, double farLimit, int threads = 2);

}  // namespace VexelAlgorithm::Simulation
