// How closely the extracted surface follows the rendered truth: noise-free frames of a sphere and a torus.
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

#include "tests/fusion/fusionScenes.h"

namespace VexelAlgorithm::Fusion {
namespace {

constexpr float kVoxel = 0.5f;  // mm
constexpr int kSide = 200;      // pixels
const CameraInParam kCamera(300.0, 300.0, 99.6, 99.3);

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
        kCamera.point_to_image(point_C, pixel);
        if (point_C.z() / kCamera.get_fx() >= kVoxel || pixel.minCoeff() < 0.0 || pixel.maxCoeff() > kSide - 1.0)
            continue;
        const Simulation::Ray ray{pose.get_translation(), -toCamera.normalized()};
        const auto hit = shape.hit(ray);
        if (hit && hit->range > toCamera.norm() - 1e-3) return true;
    }
    return false;
}

struct Figures {
    std::size_t vertices = 0, covered = 0, beyondQuarter = 0;
    double rms = 0.0, largest = 0.0, bias = 0.0;  // voxels
    std::size_t innerEdges = 0, badEdges = 0, inwards = 0;
};

Figures measure(const Truth& truth, const std::vector<RigidMatrix>& poses, const BaseTriMesh& mesh) {
    Figures figures;
    figures.vertices = mesh.get_vn();
    std::vector<char> covered(mesh.get_vn(), 0);
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        const Foot foot = foot_of(*truth.shape, mesh.get_vCoord(i));
        covered[i] = is_covered(*truth.shape, poses, foot) ? 1 : 0;
        if (!covered[i]) continue;
        const double off = foot.distance / kVoxel;
        ++figures.covered;
        figures.rms += off * off;
        figures.bias += off;
        figures.largest = std::max(figures.largest, std::abs(off));
        figures.beyondQuarter += std::abs(off) > 0.25 ? 1 : 0;
    }
    figures.rms = std::sqrt(figures.rms / static_cast<double>(figures.covered));
    figures.bias /= static_cast<double>(figures.covered);

    // Edges with the vertices opposite to them: the edge is inner when all adjoining vertices are covered.
    std::map<std::pair<int, int>, std::pair<int, bool>> edges;
    const auto is = [&](int vertex) { return covered[static_cast<std::size_t>(vertex)] != 0; };
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
        const bool inwards = cross.cast<double>().dot(truth.shape->gradient(middle.cast<double>())) < 0.0;
        figures.inwards += inwards ? 1 : 0;
    }
    for (const auto& [edge, seen] : edges) {
        if (!seen.second) continue;
        ++figures.innerEdges;
        figures.badEdges += seen.first == 2 ? 0 : 1;
    }
    return figures;
}

/// Points of the true surface, as seen from all poses, that are covered and farther than a voxel from any vertex.
std::size_t count_holes(const Truth& truth, const std::vector<RigidMatrix>& poses,
                        const std::vector<PointImage>& frames, const BaseTriMesh& mesh, std::size_t& samples) {
    const auto cell_of = [](const Vector3f& p) {
        const Vector3f q = p / kVoxel;
        return VoxelKey{static_cast<int>(std::floor(q.x())), static_cast<int>(std::floor(q.y())),
                        static_cast<int>(std::floor(q.z()))};
    };
    std::map<VoxelKey, std::vector<Vector3f>> cells;
    for (const Vector3f& vertex : mesh.get_vCoords()) cells[cell_of(vertex)].push_back(vertex);
    std::size_t holes = 0;
    for (std::size_t f = 0; f < frames.size(); ++f) {
        for (std::size_t i = f; i < frames[f].get_vn(); i += 7) {
            if (!frames[f].has_point(i)) continue;
            const Vector3f point = poses[f] * frames[f].get_vCoord(i);
            if (!is_covered(*truth.shape, poses, foot_of(*truth.shape, point))) continue;
            ++samples;
            float nearest = 10.0f;
            const VoxelKey cell = cell_of(point);
            for (int k = 0; k < 27; ++k) {
                const auto it = cells.find({cell[0] + k % 3 - 1, cell[1] + k / 3 % 3 - 1, cell[2] + k / 9 - 1});
                if (it == cells.end()) continue;
                for (const Vector3f& vertex : it->second) nearest = std::min(nearest, (vertex - point).norm());
            }
            holes += nearest > kVoxel ? 1 : 0;
        }
    }
    return holes;
}

class Accuracy : public testing::TestWithParam<Truth> {};

TEST_P(Accuracy, MeshFollowsTheTruth) {
    const Truth& truth = GetParam();
    const std::vector<RigidMatrix> poses = Simulation::sphere_poses({0.13, -0.21, 0.17}, truth.distance, truth.views);
    FusionTsdf<LeafTSDFSpeckle> volume(10, kVoxel, 0.5f, truth.range, 2, "");
    std::vector<PointImage> frames;
    for (const RigidMatrix& pose : poses) {
        frames.push_back(Simulation::render(*truth.shape, kCamera, kSide, kSide, pose));
        ASSERT_TRUE(fuse(volume, frames.back(), pose));
    }
    BaseTriMesh mesh;
    std::vector<int> axes;
    ASSERT_EQ(volume.get_result_tbb(0.0f, mesh, axes, false), RET_SUCCESS);

    const Figures figures = measure(truth, poses, mesh);
    std::size_t samples = 0;
    const std::size_t holes = count_holes(truth, poses, frames, mesh, samples);
    std::ostringstream text;
    text << truth.name << ": " << figures.covered << " of " << figures.vertices << " vertices covered, RMS "
         << figures.rms << " voxel, mean " << figures.bias << ", largest " << figures.largest
         << ", beyond 0.25: " << figures.beyondQuarter << "; " << figures.badEdges << " of " << figures.innerEdges
         << " inner edges bad, " << figures.inwards << " faces inwards, " << holes << " of " << samples
         << " samples without mesh";
    printf("%s\n", text.str().c_str());
    RecordProperty("figures", text.str());

    EXPECT_GT(figures.covered, truth.minCovered);
    EXPECT_LE(figures.rms, 0.05);
    EXPECT_LE(static_cast<double>(figures.beyondQuarter), 0.001 * static_cast<double>(figures.covered));
    EXPECT_EQ(figures.badEdges, 0u);
    EXPECT_EQ(figures.inwards, 0u);
    EXPECT_GT(samples, truth.minCovered / 10);
    EXPECT_EQ(holes, 0u);
}

const Vector3d kCentre(0.13, -0.21, 0.17);

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
