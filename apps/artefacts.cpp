#include "apps/artefacts.h"

#include <Eigen/Geometry>

#include "simulation/combinations.h"
#include "simulation/primitives.h"

namespace VexelAlgorithm::Apps {

namespace {

using Simulation::ShapePtr;

constexpr double radians = 3.14159265358979323846 / 180.0;
constexpr double referenceDistance = 400.0;  ///< mm, to which the places of the spheres belong
constexpr double cornerX = 60.0;
constexpr double cornerY = 45.0;
constexpr double planeThickness = 10.0;

Artefact sphere_at(const Vector3d& place) {
    const ShapePtr ball = Simulation::sphere(place, sphereRadius);
    return {ArtefactKind::Sphere, place, Vector3d::Zero(), ball, {{ball, Vector3d::Zero()}}};
}

Artefact bar_at(const Vector3d& place, const Vector3d& along) {
    const Vector3d direction = along.normalized();
    const ShapePtr one = Simulation::sphere(place - 0.5 * ballSpacing * direction, sphereRadius);
    const ShapePtr other = Simulation::sphere(place + 0.5 * ballSpacing * direction, sphereRadius);
    return {ArtefactKind::BallBar,
            place,
            direction,
            Simulation::smooth_union({one, other}, 0.0),
            {{one, Vector3d::Zero()}, {other, Vector3d::Zero()}}};
}

/// `tilt` turns a plane whose front faces the rig.
Artefact plane_at(const Vector3d& place, const Matrix3d& tilt) {
    const auto plate = [&](double width, double height) {
        const Vector3d middle(0.0, 0.0, 0.5 * planeThickness);  // behind the front
        return Simulation::moved(Simulation::box(middle, {0.5 * width, 0.5 * height, 0.5 * planeThickness}),
                                 RigidMatrix(tilt, place));
    };
    const Vector3d normal = tilt * -Vector3d::UnitZ();
    const ShapePtr evaluated = plate(planeWidth - 2.0 * planeMargin, planeHeight - 2.0 * planeMargin);
    return {ArtefactKind::Plane, place, normal, plate(planeWidth, planeHeight), {{evaluated, normal}}};
}

Matrix3d turn(double degrees, const Vector3d& axis) {
    return Eigen::AngleAxisd(degrees * radians, axis).toRotationMatrix();
}

}  // namespace

std::vector<Artefact> artefacts_at(const std::vector<double>& distances) {
    std::vector<Artefact> artefacts;
    for (const double z : distances) {
        const double widening = z / referenceDistance;
        artefacts.push_back(sphere_at({0.0, 0.0, z}));
        for (const double y : {-cornerY, cornerY})
            for (const double x : {-cornerX, cornerX}) artefacts.push_back(sphere_at({widening * x, widening * y, z}));
    }
    for (const double z : distances) {
        artefacts.push_back(bar_at({0.0, 0.0, z}, Vector3d::UnitX()));
        artefacts.push_back(bar_at({0.0, 0.0, z}, {3.0, 2.0, 0.0}));
        artefacts.push_back(bar_at({0.0, 0.0, z}, turn(-30.0, Vector3d::UnitY()) * Vector3d::UnitX()));
    }
    for (const double z : distances) {
        artefacts.push_back(plane_at({0.0, 0.0, z}, Matrix3d::Identity()));
        artefacts.push_back(plane_at({0.0, 0.0, z}, turn(25.0, Vector3d::UnitY())));
        artefacts.push_back(plane_at({0.0, 0.0, z}, turn(25.0, Vector3d::UnitX())));
    }
    return artefacts;
}

const char* name_of(ArtefactKind kind) {
    switch (kind) {
        case ArtefactKind::Sphere:
            return "sphere";
        case ArtefactKind::BallBar:
            return "ball bar";
        default:
            return "plane";
    }
}

}  // namespace VexelAlgorithm::Apps
