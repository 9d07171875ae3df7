#include "trials/exposureSweeps.h"

#include <cmath>

#include "SpeckleRebCPU/speckleRebuild.h"
#include "simulation/cameraPaths.h"
#include "simulation/primitives.h"
#include "simulation/scenes.h"
#include "trials/virtualRig.h"

namespace VexelTrial {

std::vector<SweepObject> sweep_objects() {
    using namespace Simulation;
    const ShapePtr owl = make_scene("owl"), table = make_scene("owl_on_table"), blocks = make_scene("blocks");
    const ShapePtr leftBall = sphere({-45, 0, 60}, 38), rightBall = sphere({45, 0, 60}, 38);
    // albedo, its variation, wavelength of that (mm), shine, exponent
    return {
        {"dark owl", {{owl, {0.06, 0.15, 25, 0.02, 40}}}},
        {"dark owl on dark table", {{table, {0.06, 0.15, 25, 0.02, 40}}}},
        {"bright owl", {{owl, {0.9, 0.15, 25, 0.02, 40}}}},
        {"bright owl on bright table", {{table, {0.9, 0.1, 25, 0.02, 40}}}},
        {"shiny owl", {{owl, {0.15, 0.15, 25, 0.5, 60}}}},
        {"shiny dark ball", {{make_scene("sphere"), {0.1, 0.1, 25, 0.8, 30}}}},
        {"shiny blocks on shiny table", {{blocks, {0.1, 0.2, 25, 0.6, 80}}}},
        {"owl of dark and bright places", {{owl, {0.45, 0.97, 60, 0.05, 40}}}},
        {"the same on such a table", {{table, {0.45, 0.97, 70, 0.05, 40}}}},
        {"bright ball and dark ball", {{leftBall, {0.9, 0.1, 25, 0.03, 40}}, {rightBall, {0.05, 0.1, 25, 0.03, 40}}}},
        {"shiny dark box and bright ball",
         {{box({-42, 0, 60}, {35, 30, 40}, 4), {0.08, 0.1, 25, 0.3, 60}}, {rightBall, {0.85, 0.1, 25, 0.03, 40}}}},
        {"dark, by gain", {{table, {0.1, 0.15, 25, 0.02, 40}}}, 0.1},
        {"dark and bright places, by gain", {{table, {0.45, 0.97, 70, 0.05, 40}}}, 0.05},
    };
}

SweepBench::SweepBench(int width) : _rig(Simulation::make_stereo_rig(width, width * 4 / 5)), _camera(_rig) {
    RebParam param = rig_settings(_rig, 2);
    param.findRange += Vector2i(-10, 10);
    _reconstruction.reset(speckle_rebuild_cpu_ini(param), [](void* handle) {
        if (handle != nullptr) speckle_rebuild_cpu_release(handle);
    });
}

Simulation::StereoSignals SweepBench::gather(const SweepObject& object) const {
    const RigidMatrix view = Simulation::look_at({-40, -380, 190}, {0, 0, 60});
    Simulation::StereoSignals sum;
    for (const auto& [shape, finish] : object.parts) {
        Simulation::StereoRig rig = _rig;
        rig.finish = finish;
        Simulation::StereoSignals part = Simulation::StereoCamera(rig).gather(*shape, view);
        if (sum.left.empty()) {
            sum = std::move(part);
            continue;
        }
        for (std::size_t i = 0; i < sum.left.size(); ++i) {
            sum.left[i] += part.left[i];
            sum.right[i] += part.right[i];
        }
    }
    return sum;
}

Simulation::StereoPair SweepBench::develop(const SweepObject& object, const Simulation::StereoSignals& signals,
                                           int k) const {
    Simulation::Sensor sensor = _rig.sensor;
    const bool isGainSweep = object.exposureOfGainSweep > 0.0;
    (isGainSweep ? sensor.gain : sensor.exposure) = std::pow(2.0, 0.5 * k);
    if (isGainSweep) sensor.exposure = object.exposureOfGainSweep;
    return _camera.develop(signals, sensor, static_cast<std::uint64_t>(k) + 100);
}

int SweepBench::coverage(const Simulation::StereoPair& pair) const {
    PointImage points;
    points.ini(size().x() / 2, size().y() / 2);
    int milliseconds = 0;
    run_speckle_rebuild_cpu(_reconstruction.get(), pair.left.pixels.data(), pair.right.pixels.data(), points,
                            milliseconds);
    return static_cast<int>(points.count_vaildNum());
}

}  // namespace VexelTrial
