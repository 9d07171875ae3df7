// What an optical measuring system is tested with: spheres, ball bars and planes about its working volume.
#pragma once

#include <string>
#include <vector>

#include "simulation/Shape.h"

namespace VexelAlgorithm::Apps {

/// A part of an artefact from whose points one surface is fitted.
struct ArtefactSurface {
    Simulation::ShapePtr region;         ///< points count where the ray of their pixel meets this nominal body ...
    Vector3d facing = Vector3d::Zero();  ///< ... on a side with this unit normal; zero for any side
};

enum class ArtefactKind { Sphere, BallBar, Plane };

/// One artefact in one position, rig coordinates (mm).
struct Artefact {
    ArtefactKind kind = ArtefactKind::Sphere;
    Vector3d place = Vector3d::Zero();      ///< of its middle
    Vector3d direction = Vector3d::Zero();  ///< of the bar, or the normal of the plane; unit length
    Simulation::ShapePtr body;
    std::vector<ArtefactSurface> surfaces;  ///< two for a bar
};

constexpr double sphereRadius = 25.0;       ///< mm
constexpr double ballSpacing = 120.0;       ///< mm, from centre to centre
constexpr double planeWidth = 150.0;        ///< mm
constexpr double planeHeight = 100.0;       ///< mm
constexpr double planeMargin = 3.0;         ///< mm, of the plane's rim that is not evaluated
constexpr double steepestIncidence = 60.0;  ///< degrees between ray and normal; steeper surfaces are not evaluated

/// At each distance from the rig (mm along its z axis): a sphere in the middle and in four corners of the field; a bar
/// across, along the diagonal and inclined in depth by 30 degrees; a plane from the front and tilted by 25 degrees
/// about either axis. Spheres measure a sixth, bars and planes two fifths and half of the diagonal of a working volume
/// of 200 x 160 x 150 mm, as VDI/VDE 2634 part 2 wants them.
std::vector<Artefact> artefacts_at(const std::vector<double>& distances);

/// "sphere", "ball bar" or "plane".
const char* name_of(ArtefactKind kind);

}  // namespace VexelAlgorithm::Apps
