// A virtual scanner's pair of a known surface, and how well a reconstruction of it agrees with the truth.
#pragma once

#include <string>
#include <vector>

#include "SpeckleRebCPU/Raster.h"
#include "SpeckleRebCPU/RebParam.h"
#include "foundation/PointImage.h"
#include "simulation/Shape.h"
#include "simulation/StereoRig.h"

namespace VexelTrial {

struct RigScene {
    std::string name;
    VexelAlgorithm::Simulation::ShapePtr shape;
    VexelAlgorithm::RigidMatrix leftToWorld;
    bool isSmooth;  ///< no edges nor fine sculpture
};
/// The demo object on its table from several sides, balls, cylinders and tilted planes, some 400 mm away.
std::vector<RigScene> rig_scenes();

/// Settings for the rig: its calibration, and its working range as search range.
VexelAlgorithm::RebParam rig_settings(const VexelAlgorithm::Simulation::StereoRig& rig, int sample);

struct RigView {
    VexelAlgorithm::RebParam param;
    std::vector<unsigned char> left, right;  ///< raw
    double depthFactor = 0.0;                ///< parallax = depthFactor / z + a constant, pixels mm
    VexelAlgorithm::PointImage truth;        ///< slots as in the result
    /// Slots that shall be matched: the left camera, the right one and the projector see the surface, and no edge of
    /// depth, light or image is within half a sub-pixel window.
    VexelAlgorithm::Mask judged;
};
RigView view_of(const RigScene& scene, const VexelAlgorithm::Simulation::StereoRig& rig,
                const VexelAlgorithm::RebParam& param);

struct Agreement {
    double matched = 0.0;         ///< share of the judged slots that have a point
    double wrong = 0.0;           ///< share of all points that are off by more than a millimetre of depth
    double parallaxRms = 0.0;     ///< pixels, of all points but the wrong ones
    double parallaxInside = 0.0;  ///< the same over the judged slots
    double parallaxBias = 0.0;    ///< pixels, mean of the signed errors
    double normalRms = 0.0;       ///< degrees, of all points but the wrong ones
    double normalInside = 0.0;
    std::size_t points = 0;
};
Agreement agreement(const RigView& view, const VexelAlgorithm::PointImage& result);

}  // namespace VexelTrial
