// What an application does with the installed package: one header, one target. Fuses views of a sphere into a mesh.
// Built by tests/consumer, outside of this project.
#include <algorithmQorInclude.h>

#include <cmath>
#include <iostream>
#include <vector>

using namespace VexelAlgorithm;

namespace {

constexpr float RADIUS = 20.0F;     // mm
constexpr float DISTANCE = 100.0F;  // of the sphere's centre from the camera, mm

/// The view of a camera that looks at the centre of the sphere, in camera coordinates.
PointImage measure_sphere() {
    PointImage frame;
    frame.ini(320, 240, CameraInParam(400.0, 400.0, 159.5, 119.5), 1, Vector2f::Zero());
    frame.enable_vNormal();
    frame.enable_vWeight();
    const Vector3f centre(0.0F, 0.0F, DISTANCE);
    for (std::size_t slot = 0; slot < frame.get_vn(); ++slot) {
        const Vector3f ray = frame.get_ray_direct(slot);
        const float along = ray.dot(centre);
        const float squared = along * along - centre.squaredNorm() + RADIUS * RADIUS;
        if (squared <= 0.0F) continue;
        const Vector3f point = ray * (along - std::sqrt(squared));
        frame.set_vCoord(slot, point);
        frame.set_vNrv(slot, (point - centre) / RADIUS);
        frame.set_vWeight(slot, 1.0F);
    }
    return frame;
}

/// Camera to model: a camera turned by `angle` around the vertical axis through the sphere, the model's origin.
RigidMatrix camera_pose(double angle) {
    Matrix3d rotation;
    rodrigures(Vector3d(0.0, angle, 0.0), rotation);
    return {rotation, rotation * Vector3d(0.0, 0.0, -DISTANCE)};
}

}  // namespace

int main() {
    Fusion::FusionTsdf<Fusion::LeafTSDFSpeckle> volume(/*treeDepth*/ 10, /*pointDis*/ 0.5F, /*smoothThreshold*/ 0.5F,
                                                       /*fusionRange*/ 5, /*threadNum*/ 2, /*path*/ "");
    Fusion::ChangedLeaves changedLeaves;
    const PointImage frame = measure_sphere();
    for (int view = 0; view < 12; ++view) {
        const RigidMatrix pose = camera_pose(view * std::acos(-1.0) / 6.0);
        if (!volume.fusion_one_frame_speckle_parallel(frame, pose, changedLeaves, true, false, nullptr)) return 1;
    }

    BaseTriMesh mesh;
    std::vector<int> vertexAxis;
    if (volume.get_result_tbb(0.0F, mesh, vertexAxis, true) != RET_SUCCESS) return 1;
    if (write_mesh("sphere.ply", mesh, MESH_WRITE_BINARY | MESH_WRITE_VERTEX_NORMAL, 6) != 0) return 1;

    float largestError = 0.0F;
    for (const Vector3f& vertex : mesh.get_vCoords())
        largestError = std::max(largestError, std::abs(vertex.norm() - RADIUS));
    std::cout << mesh.get_fn() << " triangles, largest error " << largestError << " mm\n";
    return mesh.get_fn() > 20000 && largestError < 0.25F ? 0 : 1;
}
