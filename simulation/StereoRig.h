// A virtual speckle scanner: two cameras with real lenses, a projector between them, light, surface and sensor.
#pragma once

#include <cstdint>

#include "simulation/DistortedCamera.h"
#include "simulation/SpeckleTexture.h"

namespace VexelAlgorithm::Simulation {

/// A pinhole that throws a speckle pattern.
struct Projector {
    double fx = 1600.0;
    double fy = 1600.0;
    double cx = 639.5;
    double cy = 511.5;
    RigidMatrix rigToProjector;  ///< mm
    SpecklePattern pattern;
};

/// What the surface does with light: Lambert's law for the body of the material, with brighter and darker places, and
/// the normalised highlight of J. F. Blinn, "Models of light reflection for computer synthesized pictures", 1977.
struct SurfaceFinish {
    double albedo = 0.7;             ///< mean
    double albedoVariation = 0.15;   ///< largest deviation from the mean, relative; 0 for an even colour
    double albedoWavelength = 25.0;  ///< mm, of the finest variation
    double shine = 0.05;             ///< share of the light that is mirrored into the highlight
    double shineExponent = 40.0;     ///< larger for narrower highlights
};

/// Signals are relative to what a white surface sends back that faces the projector at the working distance.
struct Illumination {
    double workingDistance = 400.0;  ///< mm; the projector's light falls with the square of the distance
    double ambient = 0.05;           ///< even light from everywhere
};

/// Lens and sensor of both cameras. Signal chain, shot noise and quantisation after the linear camera model of the
/// EMVA standard 1288; the lens dims with the fourth power of the cosine off its axis. Ambient light and projector are
/// exposed alike, so that a sweep over exposure times varies `exposure` and one over amplifications `gain`.
struct Sensor {
    double exposure = 1.1;         ///< proportional to the time: signal of white at the working distance, relative to
                                   ///< saturation
    double gain = 1.0;             ///< grey levels for the same electrons, noise included; above 1 the grey levels are
                                   ///< clipped before the electrons, below 1 the electrons are
    double fullWell = 10000.0;     ///< electrons, no pixel holds more: grey level 255 with a gain of 1 and no offset;
                                   ///< shot noise is the square root of the electrons
    double readNoise = 8.0;        ///< electrons
    double darkOffset = 2.0;       ///< grey levels
    double sharpness = 0.5;        ///< pixels, standard deviation of the image of a point in focus
    double focusDistance = 400.0;  ///< mm
    double defocus = 6.0;          ///< pixels, standard deviation per unit of |1 - focusDistance / z|: the thin lens
    bool hasNoise = true;
    std::uint64_t seed = 1;
};

struct StereoRig {
    DistortedCamera left;
    DistortedCamera right;
    Projector projector;
    SurfaceFinish finish;
    Illumination light;
    Sensor sensor;
    double nearLimit = 300.0;  ///< mm of depth in the left camera; what the rig is made for
    double farLimit = 520.0;   ///< mm; surfaces beyond it are not seen
};

/// A hand-held scanner for about 400 mm: baseline 110 mm, axes that meet there, both cameras rolled and pitched
/// against each other by a degree or less as mounting leaves it, lenses with some 2 % of barrel distortion at the
/// corners. `width` and `height` scale everything from 1280 x 1024.
StereoRig make_stereo_rig(int width = 1280, int height = 1024);

/// From the left camera's coordinates to the right one's: R_R R_L^T and T_R - R T_L.
RigidMatrix left_to_right(const StereoRig& rig);

}  // namespace VexelAlgorithm::Simulation
