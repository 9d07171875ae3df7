// Virtual objects under many exposures, and what the stereo reconstruction makes of each.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "simulation/Shape.h"
#include "simulation/StereoRig.h"
#include "simulation/stereoImages.h"

namespace VexelTrial {

using namespace VexelAlgorithm;

/// Things of different material; they hide nothing of each other.
struct SweepObject {
    std::string name;
    std::vector<std::pair<Simulation::ShapePtr, Simulation::SurfaceFinish>> parts;
    double exposureOfGainSweep = 0.0;  ///< above 0: the gain is varied at this exposure
};

std::vector<SweepObject> sweep_objects();

/// The rig of the sweeps and its reconstruction.
class SweepBench {
public:
    explicit SweepBench(int width);

    Vector2i size() const { return {_rig.left.width, _rig.left.height}; }
    bool is_ready() const { return _reconstruction != nullptr; }

    Simulation::StereoSignals gather(const SweepObject& object) const;

    /// Brightness number k is 2^(k / 2).
    Simulation::StereoPair develop(const SweepObject& object, const Simulation::StereoSignals& signals, int k) const;

    /// Points of the reconstruction, with one point for 2 x 2 pixels.
    int coverage(const Simulation::StereoPair& pair) const;

private:
    Simulation::StereoRig _rig;
    Simulation::StereoCamera _camera;
    std::shared_ptr<void> _reconstruction;
};

}  // namespace VexelTrial
