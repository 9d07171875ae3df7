#include "apps/meshPlacement.h"

#include <Eigen/Geometry>
#include <map>

#include "foundation/diagnostics.h"
#include "recording/meshFile.h"
#include "simulation/combinations.h"
#include "simulation/meshShape.h"
#include "simulation/primitives.h"

namespace VexelAlgorithm::Apps {

namespace {

constexpr double smallestPlausible = 40.0;  ///< mm
constexpr double largestPlausible = 220.0;
constexpr double usualSize = 150.0;
constexpr double smallestUsable = 1.0;
constexpr double largestUsable = 2000.0;

double millimetres_per(const std::string& unit) {
    static const std::map<std::string, double> known{{"mm", 1.0}, {"cm", 10.0}, {"m", 1000.0}, {"inch", 25.4}};
    return known.at(unit);
}

Matrix3d turned_up(const std::string& axis) {
    Vector3d up = Vector3d::Zero();
    up[axis.back() - 'x'] = axis.front() == '-' ? -1.0 : 1.0;
    return Eigen::Quaterniond::FromTwoVectors(up, Vector3d::UnitZ()).toRotationMatrix();
}

Simulation::Bounds bounds_of(const MeshData& mesh, const Matrix3d& rotation) {
    Simulation::Bounds bounds;
    for (const Vector3i& triangle : mesh.triangles)
        for (const int corner : triangle) {
            const Vector3d point = rotation * mesh.points[static_cast<std::size_t>(corner)].cast<double>();
            bounds = bounds.united({point, point});
        }
    return bounds;
}

double scale_for(const MeshPlacement& placement, double largestSide) {
    if (placement.size > 0.0) return placement.size / largestSide;
    if (!placement.unit.empty()) return millimetres_per(placement.unit);
    const bool isPlausible = largestSide >= smallestPlausible && largestSide <= largestPlausible;
    return isPlausible ? 1.0 : usualSize / largestSide;
}

}  // namespace

Outcome<PlacedMesh> place_mesh(const std::string& file, const MeshPlacement& placement) {
    Outcome<MeshData> mesh = read_mesh_file(file);
    if (!mesh) return mesh.failure();
    const Matrix3d rotation = turned_up(placement.up);
    const Simulation::Bounds bounds = bounds_of(*mesh, rotation);
    const double largestSide = (bounds.high - bounds.low).maxCoeff();
    if (!(largestSide > 0.0)) return Failure{file + ": all faces of the mesh lie in one point"};
    const double scale = scale_for(placement, largestSide);
    if (!(scale * largestSide >= smallestUsable && scale * largestSide <= largestUsable))
        return Failure{file + format_text(": the mesh would be %g mm large; give another unit or --mesh-size",
                                          scale * largestSide)};

    const Vector3d foot(0.5 * (bounds.low.x() + bounds.high.x()), 0.5 * (bounds.low.y() + bounds.high.y()),
                        bounds.low.z());
    for (Vector3f& point : mesh->points) point = (scale * (rotation * point.cast<double>() - foot)).cast<float>();
    Simulation::ShapePtr object = Simulation::triangle_mesh(mesh->points, mesh->triangles);
    const Vector3d size = scale * (bounds.high - bounds.low);
    if (object->bounds().empty()) return Failure{file + ": no face of the mesh has an area"};
    PlacedMesh placed;
    placed.description = format_text("%zu triangles, %.1f x %.1f x %.1f mm, %g mm for 1 of the file",
                                     mesh->triangles.size(), size.x(), size.y(), size.z(), scale);
    placed.centre = {0.0, 0.0, 0.5 * size.z()};
    const Simulation::ShapePtr table = Simulation::half_space(Vector3d::Zero(), Vector3d::UnitZ());
    placed.scene = placement.isOnTable ? Simulation::smooth_union({table, object}, 0.0) : object;
    return placed;
}

}  // namespace VexelAlgorithm::Apps
