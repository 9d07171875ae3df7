// How closely the extracted surface follows the rendered truth: noise-free frames of a sphere and a torus.
#include <Eigen/Geometry>

#include "tests/fusion/fusionScenes.h"

namespace VexelAlgorithm::Fusion {
namespace {

constexpr float kVoxel = 0.5f;  // mm
constexpr int kSide = 200;      // pixels
const Vector3d kCentre(0.13, -0.21, 0.17);
const CameraInParam kScanner(300.0, 300.0, 99.6, 99.3);

struct Truth {
    const char* name;
    Simulation::ShapePtr shape;
    int views;
    double distance;  // mm of the cameras from the scene's centre
    int range;        // of the fusion
    std::size_t minCovered;
};

std::ostream& operator<<(std::ostream& out, const Truth& truth) {
    return out << truth.name;
}

/// Foot of a point on the surface, one step down the exact distance.
struct Foot {
    double distance;
    Vector3d point, normal;
};
Foot foot_of(const Simulation::Shape& shape, const Vector3f& vertex) {
    const Vector3d p = vertex.cast<double>();
    const double distance = shape.distance(p);
    const Vector3d normal = shape.gradient(p);
    return {distance, p - distance * normal, normal};
}

/// Seen under less than 60 degrees in at least one frame whose pixel footprint is below one voxel.
bool is_covered(const Simulation::Shape& shape, const std::vector<RigidMatrix>& poses, const Foot& foot) {
    for (const RigidMatrix& pose : poses) {
        const Vector3d toCamera = pose.get_translation() - foot.point;
        if (toCamera.normalized().dot(foot.normal) <= 0.5) continue;
        const Vector3d point_C = pose.inverse() * foot.point;
        Vector2d pixel;
        kScanner.point_to_image(point_C, pixel);
        if (point_C.z() / kScanner.get_fx() >= kVoxel || pixel.minCoeff() < 0.0 || pixel.maxCoeff() > kSide - 1.0)
            continue;
        const Simulation::Ray ray{pose.get_translation(), -toCamera.normalized()};
        const auto hit = shape.hit(ray);
        if (hit && hit->range > toCamera.norm() - 1e-3) return true;
    }
    return false;
}

class Accuracy : public testing::TestWithParam<Truth> {};

TEST_P(Accuracy, MeshFollowsTheTruth) {
    const Truth& truth = GetParam();
    const std::vector<RigidMatrix> poses = Simulation::sphere_poses(kCentre, truth.distance, truth.views);
    FusionTsdf<LeafTSDFSpeckle> volume(10, kVoxel, 0.5f, truth.range, 2, "");
    for (const RigidMatrix& pose : poses)
        ASSERT_TRUE(fuse(volume, Simulation::render(*truth.shape, kScanner, kSide, kSide, pose), pose));
    const BaseTriMesh mesh = extract(volume);

    std::vector<char> covered(mesh.get_vn(), 0);
    std::size_t coveredCount = 0, beyondQuarter = 0;
    double squares = 0.0;  // voxels^2
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        const Foot foot = foot_of(*truth.shape, mesh.get_vCoord(i));
        if (!is_covered(*truth.shape, poses, foot)) continue;
        covered[i] = 1;
        ++coveredCount;
        squares += std::pow(foot.distance / kVoxel, 2);
        beyondQuarter += std::abs(foot.distance / kVoxel) > 0.25 ? 1 : 0;
    }
    const double rms = std::sqrt(squares / static_cast<double>(coveredCount));
    RecordProperty("rms", std::to_string(rms) + " voxel of " + std::to_string(coveredCount) + " vertices");
    EXPECT_GT(coveredCount, truth.minCovered);
    EXPECT_LE(rms, 0.05);
    EXPECT_LE(static_cast<double>(beyondQuarter), 0.001 * static_cast<double>(coveredCount));

    // An edge whose faces have covered vertices only is met by two faces: the covered area has no holes.
    std::map<std::pair<int, int>, std::pair<int, bool>> edges;
    const auto is = [&](int vertex) { return covered[static_cast<std::size_t>(vertex)] != 0; };
    std::size_t inwards = 0, badEdges = 0;
    for (const BaseTriFace& face : mesh.get_faces()) {
        for (int k = 0; k < 3; ++k) {
            const int a = face[k], b = face[(k + 1) % 3];
            auto& [times, inner] = edges.emplace(std::minmax(a, b), std::make_pair(0, true)).first->second;
            ++times;
            inner = inner && is(face[0]) && is(face[1]) && is(face[2]);
        }
        const auto at = [&](int k) { return mesh.get_vCoord(static_cast<std::size_t>(face[k])); };
        const Vector3f cross = (at(1) - at(0)).cross(at(2) - at(0));
        const Vector3f middle = (at(0) + at(1) + at(2)) / 3.0f;
        inwards += cross.cast<double>().dot(truth.shape->gradient(middle.cast<double>())) < 0.0 ? 1 : 0;
    }
    for (const auto& [edge, seen] : edges) badEdges += seen.second && seen.first != 2 ? 1 : 0;
    EXPECT_EQ(badEdges, 0u);
    EXPECT_EQ(inwards, 0u);
}

// From all sides; from a few sides, so that the covered area has borders; from so far that pixels are nearly as wide
// as voxels. Where a single view must carry the surface up to 60 degrees, two voxels to either side are too few: the
// corners of a cube with surface lie up to 1.7 voxels off it, 3.5 along such a ray.
INSTANTIATE_TEST_SUITE_P(
    Rendered, Accuracy,
    testing::Values(Truth{"sphere", Simulation::sphere(kCentre, 20.5), 32, 120.0, 5, 20000},
                    Truth{"torus", Simulation::torus(kCentre, 22.0, 10.25), 32, 120.0, 5, 40000},
                    Truth{"sphere_one_view", Simulation::sphere(kCentre, 20.5), 1, 120.0, 7, 3000},
                    Truth{"sphere_one_far_view", Simulation::sphere(kCentre, 20.5), 1, 159.0, 7, 3000},
                    Truth{"torus_five_views", Simulation::torus(kCentre, 22.0, 10.25), 5, 130.0, 9, 30000},
                    Truth{"torus_far_views", Simulation::torus(kCentre, 22.0, 10.25), 12, 155.0, 5, 30000}),
    [](const auto& truth) { return std::string(truth.param.name); });

}  // namespace
}  // namespace VexelAlgorithm::Fusion
