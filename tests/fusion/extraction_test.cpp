// Surface extraction: vertices and faces from voxels set by hand, both forms, optional work.
#include <Eigen/Geometry>

#include "tests/fusion/fusionScenes.h"

namespace VexelAlgorithm::Fusion {
namespace {

using Edge = std::pair<int, int>;

// ---- vertices ----------------------------------------------------------------------------------------

TEST(Vertices, ObeyTheLimitsOfValueCountAndPosition) {
    struct Case {
        const char* name;
        float values[2];
        int counts[2];
        int x;  // of the first voxel
        float minWeight;
        std::size_t vertices;
    };
    const Case cases[] = {
        {"owner exactly 0", {0.0f, -1.0f}, {1, 1}, 100, 0.0f, 0},
        {"neighbour exactly 0", {1.0f, 0.0f}, {1, 1}, 100, 0.0f, 0},
        {"owner below 1e-6", {9e-7f, -1.0f}, {1, 1}, 100, 0.0f, 0},
        {"owner at the limit", {1.0f, -1.0f}, {2, 3}, 100, 2.0f, 1},
        {"neighbour at the limit", {1.0f, -1.0f}, {3, 2}, 100, 2.0f, 0},
        {"owner below the limit", {1.0f, -1.0f}, {1, 3}, 100, 2.0f, 0},
        {"infinite limit", {1.0f, -1.0f}, {3, 3}, 100, kInfinity, 0},
        {"neighbour unused", {1.0f, -1.0f}, {3, -1}, 100, 0.0f, 0},
        {"lowest voxel", {1.0f, -1.0f}, {1, 1}, 0, 0.0f, 0},
        {"lowest owner", {1.0f, -1.0f}, {1, 1}, 1, 0.0f, 1},
        {"highest owner", {1.0f, -1.0f}, {1, 1}, 1021, 0.0f, 1},
        {"beyond the highest owner", {1.0f, -1.0f}, {1, 1}, 1022, 0.0f, 0},
    };
    for (const Case& c : cases)
        for (int axis = 0; axis < 3; ++axis) {
            FusionTsdf<LeafTSDFTeeth> volume(10, 0.5f, 0.5f, 5, 1, "");
            for (int i = 0; i < 2; ++i) {
                Vector3i at(500, 500, 500);
                at[axis] = c.x + i;
                if (c.counts[i] >= 0) set_voxel(volume, at, c.values[i], c.counts[i]);
            }
            EXPECT_EQ(extract(volume, c.minWeight).get_vn(), c.vertices) << c.name;
        }
}

// ---- whole surfaces ----------------------------------------------------------------------------------

/// Sets the voxels within 2.5 voxels of a sphere's surface; centre and radius in voxels.
template <class Leaf>
void set_sphere(FusionTsdf<Leaf>& volume, const Vector3f& centre, float radius, float noise = 0.0f) {
    const int reach = static_cast<int>(radius) + 3;
    const Vector3i middle = centre.cast<int>();
    std::minstd_rand random;
    for (int z = -reach; z <= reach; ++z) {
        for (int y = -reach; y <= reach; ++y)
            for (int x = -reach; x <= reach; ++x) {
                const Vector3i voxel = middle + Vector3i(x, y, z);
                const float distance = (voxel.cast<float>() + Vector3f::Constant(0.5f) - centre).norm() - radius;
                if (std::abs(distance) > 2.5f) continue;
                const float wave = 2.0f * noise * (static_cast<float>(random() % 1000) / 1000.0f - 0.5f);
                set_voxel(volume, voxel, (distance + wave) * volume.get_pointDis(), 3);
            }
    }
}

/// Number of directed edges that are not met by exactly one the other way.
std::size_t open_edges(const BaseTriMesh& mesh) {
    std::map<Edge, int> directed;
    for (const BaseTriFace& face : mesh.get_faces())
        for (int k = 0; k < 3; ++k) ++directed[{face[k], face[(k + 1) % 3]}];
    std::size_t open = 0;
    for (const auto& [edge, times] : directed) {
        const auto back = directed.find({edge.second, edge.first});
        open += times == 1 && back != directed.end() && back->second == 1 ? 0 : 1;
    }
    return open;
}

bool same_mesh(const BaseTriMesh& a, const BaseTriMesh& b) {
    const auto same = [](const BaseTriFace& f, const BaseTriFace& g) { return std::equal(f.v, f.v + 3, g.v); };
    return a.get_vCoords() == b.get_vCoords() &&
           std::equal(a.get_faces().begin(), a.get_faces().end(), b.get_faces().begin(), b.get_faces().end(), same);
}

// Among random values every case of the triangle table meets every case of its neighbours.
TYPED_TEST(EveryLeaf, RandomValuesGiveTheSameClosedSurfaceInBothForms) {
    FusionTsdf<TypeParam> volume(10, 0.5f, 0.5f, 5, 1, "");
    BaseTriMesh reference, mesh;
    std::vector<int> referenceAxes, axes;
    EXPECT_EQ(volume.get_result(0.0f, mesh, axes, true), RET_SUCCESS);
    EXPECT_EQ(mesh.get_vn() + mesh.get_fn() + axes.size(), 0u);

    volume.set_shift({-50, -60, -70});
    std::minstd_rand random;
    const int n = 32;
    for (int i = 0; i < n * n * n; ++i) {
        const Vector3i at(i % n, i / n % n, i / (n * n));
        const bool isShell = at.minCoeff() == 0 || at.maxCoeff() == n - 1;
        const float size = 0.1f + static_cast<float>(random() % 1000) / 1000.0f;
        set_voxel(volume, at + Vector3i::Constant(100), isShell || random() % 2 == 0 ? size : -size);
    }
    EXPECT_EQ(volume.get_result(0.0f, reference, referenceAxes, false), RET_SUCCESS);
    EXPECT_GT(reference.get_fn(), 50000u);
    EXPECT_EQ(open_edges(reference), 0u);
    float enclosed = 0.0f;  // six times the volume: positive when faces look away from what is behind the surface
    for (const BaseTriFace& face : reference.get_faces()) {
        const auto corner = [&](int k) { return reference.get_vCoord(static_cast<std::size_t>(face[k])); };
        enclosed += corner(0).dot(corner(1).cross(corner(2)));
    }
    EXPECT_GT(enclosed / 6.0f, 0.3f * std::pow(0.5f * n, 3.0f));
    for (std::size_t i = 0; i < reference.get_vn(); ++i) {  // off its edge's axis a vertex lies at voxel centres
        const Vector3f q = (reference.get_vCoord(i) - volume.get_treeShift()) / 0.5f;
        for (int axis = 0; axis < 3; ++axis) {
            const bool isCentred = std::abs(q[axis] - std::floor(q[axis]) - 0.5f) < 1e-3f;
            ASSERT_TRUE(axis == referenceAxes[i] || isCentred) << i;
        }
    }

    for (const int threads : {1, 3}) {
        volume.reset_code_Num(threads);
        for (const bool tbb : {false, true}) {
            mesh.resize_fn(7);  // whatever the caller had is replaced
            EXPECT_EQ(tbb ? volume.get_result_tbb(0.0f, mesh, axes, false) : volume.get_result(0.0f, mesh, axes, false),
                      RET_SUCCESS);
            EXPECT_TRUE(same_mesh(mesh, reference)) << threads << tbb;
            EXPECT_EQ(axes, referenceAxes);
        }
    }
}

TEST(Extraction, TrianglesWithAMissingVertexAreDropped) {
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.5f, 0.5f, 5, 1, "");
    set_sphere(volume, {300, 300, 300}, 10.0f);
    const std::size_t whole = extract(volume).get_fn();
    set_voxel(volume, {300, 300, 309}, -kInfinity, 1);  // the interpolated positions are not numbers
    const BaseTriMesh mesh = extract(volume);
    EXPECT_LT(mesh.get_fn(), whole);
    EXPECT_GT(mesh.get_fn() + 16, whole);
    for (const Vector3f& vertex : mesh.get_vCoords()) EXPECT_TRUE(vertex.allFinite());
}

TEST(Extraction, InconsistentOctreeGivesItsLineAndNoMesh) {
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.5f, 0.5f, 5, 1, "");
    set_sphere(volume, {300, 300, 300}, 5.0f);
    volume.get_fusion_tree().pool().clear();
    for (const bool tbb : {false, true}) {
        BaseTriMesh mesh;
        std::vector<int> axes(3);
        EXPECT_EQ(
            outcome([&] {
                return tbb ? volume.get_result_tbb(0.0f, mesh, axes, true) : volume.get_result(0.0f, mesh, axes, true);
            }),
            std::pair(RET_SUCCESS, std::string("can not get result because vaildNum > leafSize in marching cube\n")));
        EXPECT_EQ(mesh.get_vn() + mesh.get_fn(), 0u);
    }
}

TEST(Optimisation, DropsPiecesSmoothsAndMakesNormals) {
    FusionTsdf<LeafTSDFSpeckle> volume(10, 0.5f, 0.5f, 5, 1, "");
    const Vector3f centre(300, 300, 300);
    set_sphere(volume, centre, 20.0f, 0.4f);
    const std::size_t big = extract(volume).get_vn();
    set_sphere(volume, {400, 300, 300}, 1.4f);
    set_voxel(volume, {500, 300, 300}, 1.0f);
    set_voxel(volume, {501, 300, 300}, -1.0f);  // a vertex without a face
    const BaseTriMesh raw = extract(volume);
    EXPECT_GT(raw.get_vn(), big + 1);
    const auto roughness = [&](const BaseTriMesh& mesh) {
        double sum = 0.0;
        for (std::size_t i = 0; i < big; ++i) sum += std::pow((mesh.get_vCoord(i) / 0.5f - centre).norm() - 20.0, 2);
        return std::sqrt(sum / static_cast<double>(big));
    };

    const auto with = [&](bool dropPieces, bool smooth, bool normals) {
        volume.set_opt_mc(dropPieces, smooth, normals);
        std::vector<int> axes;
        BaseTriMesh mesh = extract(volume, 0.0f, &axes, true);
        EXPECT_EQ(axes.size(), mesh.get_vn());
        EXPECT_EQ(mesh.get_vn(), dropPieces ? big : raw.get_vn());
        EXPECT_EQ(open_edges(mesh), 0u);
        EXPECT_EQ(mesh.is_enable_vNormal(), normals);
        return mesh;
    };
    EXPECT_TRUE(same_mesh(with(false, false, false), raw));
    with(true, false, false);
    const BaseTriMesh all = with(true, true, true);
    EXPECT_GT(roughness(raw), 0.15);
    EXPECT_LT(roughness(all), 0.8 * roughness(raw));
    double radius = 0.0;
    std::size_t astray = 0;
    for (std::size_t i = 0; i < all.get_vn(); ++i) {
        const Vector3f out = all.get_vCoord(i) / 0.5f - centre;
        radius += out.norm();
        astray += all.get_vNrv(i).dot(out.normalized()) > 0.7f ? 0 : 1;
    }
    EXPECT_NEAR(radius / static_cast<double>(all.get_vn()), 20.0, 0.1);  // smoothing does not shrink
    EXPECT_LT(astray, all.get_vn() / 100);

    // A border stays where it is.
    FusionTsdf<LeafTSDFSpeckle> half(10, 0.5f, 0.5f, 5, 1, "");
    for (int i = 0; i < 800; ++i) {
        const Vector3i at(100 + i % 20, 100 + i / 20 % 20, 100 + i / 400);
        const float wave = std::sin(static_cast<float>(17 * at.x() + 5 * at.y()));
        set_voxel(half, at, (static_cast<float>(at.z()) - 100.5f) + 0.3f * wave);
    }
    half.set_opt_mc(false, true, false);
    const BaseTriMesh before = extract(half), after = extract(half, 0.0f, nullptr, true);
    for (std::size_t i = 0; i < before.get_vn(); ++i) {
        const Vector3f q = before.get_vCoord(i) / 0.5f - Vector3f::Constant(100.5f);
        const bool border = std::min(q.x(), q.y()) < 0.01f || std::max(q.x(), q.y()) > 18.99f;
        EXPECT_EQ(border, before.get_vCoord(i) == after.get_vCoord(i)) << q.transpose();
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Fusion
