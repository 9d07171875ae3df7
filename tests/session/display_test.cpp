// What an application draws: on the surface, once each, growing with the scan.
#include "fusion/leafCommon.h"
#include "fusiontrackoperation/cellSurface.h"
#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;

std::vector<std::tuple<float, float, float>> sorted_points(const Cloud& cloud) {
    std::vector<std::tuple<float, float, float>> points;
    for (const Vector3f& p : cloud.get_vCoords()) points.emplace_back(p.x(), p.y(), p.z());
    std::sort(points.begin(), points.end());
    return points;
}

class Display : public testing::Test {
protected:
    Scan scan{"smooth"};
    Session session{scan.records};
    const float voxel = scan.records.fusion.pointDis;

    /// RMS distance to the surface, and of normals from the truth, over all points.
    void expect_on_surface(const Cloud& cloud) {
        EXPECT_LT(rms_of(scan.off_surface(cloud.get_vCoords())), 0.1 * voxel);
        EXPECT_LT(scan.turn_of_normals(cloud), 0.03);
        for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
            EXPECT_NEAR(cloud.get_vNrv(i).norm(), 1.0, 1e-5);
            ASSERT_EQ(cloud.get_vColor(i), scan.records.fusion.colorOnInvaildPoint);
        }
    }
    /// No two points in one place, and no voxel with a crowd.
    void expect_no_duplicates(const Cloud& cloud) {
        std::map<std::tuple<int, int, int>, int> crowds;
        for (const Vector3f& p : cloud.get_vCoords()) {
            const Vector3f cube = (p / voxel).array().floor();
            EXPECT_LE(++crowds[std::make_tuple(int(cube.x()), int(cube.y()), int(cube.z()))], 8);
        }
        auto points = sorted_points(cloud);
        EXPECT_EQ(std::unique(points.begin(), points.end()), points.end());
    }
};

/// The plain twin of the kernel: one cell, edge by edge. False when it has no surface.
bool find_surface(const float (&value)[8], Vector3f& position, Vector3f& normal) {
    const auto is_known = [](float v) { return std::abs(v) >= 1e-6F; };
    int crossed = 0;
    position = normal = Vector3f::Zero();
    for (int axis = 0; axis < 3; ++axis) {
        int known = 0;
        for (int start = 0; start < 8; ++start) {
            const float low = value[start], high = value[start | 1 << axis];
            if ((start >> axis & 1) != 0 || !is_known(low) || !is_known(high)) continue;
            normal[axis] += high - low;
            ++known;
            if ((low < 0.0F) == (high < 0.0F)) continue;
            const Vector3f corner(float(start & 1), float(start >> 1 & 1), float(start >> 2));
            position += corner + low / (low - high) * Vector3f::Unit(axis);
            ++crossed;
        }
        if (known > 0) normal[axis] /= static_cast<float>(known);
    }
    if (crossed < 3 || !is_known(value[0]) || normal.norm() == 0.0F) return false;
    position /= static_cast<float>(crossed);
    normal /= normal.norm();
    return true;
}

TEST(CellSurface, VectorsGiveTheBitsOfThePlainTwin) {
    std::mt19937 random(5);
    std::uniform_real_distribution<float> weight(-1.0F, 3.0F), sum(-2.0F, 2.0F);
    std::vector<OctetCells> octets(500);
    int found = 0;
    for (OctetCells& octet : octets)
        for (std::size_t i = 0; i < OctetCells::LatticeSize; ++i) {
            octet.weight[i] = std::max(weight(random), 0.0F);
            octet.tsdfSum[i] = sum(random);
        }
    const std::vector<OctetCells> before = octets;
    best_cell_surface_kernel()(octets.data(), octets.size());
    for (std::size_t n = 0; n < octets.size(); ++n)
        for (int cell = 0; cell < OctetCells::Count; ++cell) {
            float value[8];
            for (int corner = 0; corner < 8; ++corner) {
                const int x = (cell & 1) + (corner & 1), y = (cell >> 1 & 1) + (corner >> 1 & 1);
                const int at = x + 3 * y + 9 * ((cell >> 2) + (corner >> 2));
                value[corner] = Fusion::mean_distance(before[n].tsdfSum[at], before[n].weight[at]);
            }
            Vector3f position, normal;
            const bool isFound = find_surface(value, position, normal);
            ASSERT_EQ((octets[n].found >> cell & 1) != 0, isFound);
            for (int axis = 0; isFound && axis < 3; ++axis) {
                ASSERT_EQ(octets[n].position[axis][cell], position[axis]);
                ASSERT_EQ(octets[n].normal[axis][cell], normal[axis]);
            }
            found += isFound ? 1 : 0;
        }
    EXPECT_GT(found, 1000);
}

TEST_F(Display, ShowsTheSurfaceOnceAndGrows) {
    EXPECT_EQ(get_show_data(session).get_vn(), 0U);
    Session patient(scan.records);  // is asked once, at the end
    std::size_t shown = 0;
    for (int i = 0; i < 12; i += 2) {
        ASSERT_TRUE(session.step(scan.frame(i)) && patient.step(scan.frame(i)));
        const Cloud& cloud = get_show_data(session);
        EXPECT_TRUE(cloud.is_legal() && cloud.is_enable_vNormal() && cloud.is_enable_vColor());
        EXPECT_GT(cloud.get_vn(), shown) << i;
        shown = cloud.get_vn();
        EXPECT_EQ(&get_show_data(session), &cloud);
        EXPECT_EQ(cloud.get_vn(), shown) << "nothing has changed";
        expect_on_surface(cloud);
    }
    expect_no_duplicates(get_show_data(session));
    // About one point a voxel of surface: as many as the mesh has cells with a surface, which has half as many faces.
    const auto faces = static_cast<double>(session.mesh().get_fn());
    EXPECT_NEAR(static_cast<double>(shown) / faces, 0.5, 0.1);
    const auto often = sorted_points(get_show_data(session)), once = sorted_points(get_show_data(patient));
    std::vector<std::tuple<float, float, float>> common;
    std::set_intersection(often.begin(), often.end(), once.begin(), once.end(), std::back_inserter(common));
    // A leaf that is not marked again keeps the point of its last mark, although a neighbour's value may have moved.
    EXPECT_NEAR(static_cast<double>(often.size()), static_cast<double>(once.size()), 0.01 * once.size());
    EXPECT_GT(static_cast<double>(common.size()), 0.9 * once.size());
}

TEST_F(Display, SurfaceThatMovesTakesItsPointsAlong) {
    PointImage behind = scan.frame(0);  // half a voxel
    for (std::size_t i = 0; i < behind.get_vn(); ++i) {
        const Vector3f point = behind.get_vCoord(i);
        if (behind.has_point(i)) behind.set_vCoord(i, point * (1.0F + 0.5F * voxel / point.z()));
    }
    ASSERT_TRUE(session.step(scan.frame(0)));
    const std::size_t before = get_show_data(session).get_vn();
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(session.fuse(behind));  // they pull the mean there
    const Cloud& cloud = get_show_data(session);
    EXPECT_NEAR(static_cast<double>(cloud.get_vn()), static_cast<double>(before), 0.06 * before);
    expect_no_duplicates(cloud);
    EXPECT_LT(mean_of(scan.off_surface(cloud.get_vCoords())), -0.2 * voxel) << "the points have moved with the surface";
}

TEST_F(Display, TheFilterLeavesOutWhatWasSeenSeldom) {
    ASSERT_TRUE(session.step(scan.frame(0)));
    const std::size_t first = get_show_data(session).get_vn();
    EXPECT_GT(get_show_data_filter_noise(session).get_vn(), 0.95 * static_cast<double>(first));
    // A patch that one frame alone has seen, in front of everything.
    PointImage patch = scan.frame(0);
    for (std::size_t i = 0; i < patch.get_vn(); ++i)
        if (patch.has_point(i)) patch.set_vCoord(i, patch.get_vCoord(i) * 0.8F);
    const auto in_front = [&](const Cloud& cloud) {
        return std::count_if(cloud.get_vCoords().begin(), cloud.get_vCoords().end(),
                             [](const Vector3f& p) { return p.z() < 330.0F; });
    };
    for (int sight = 1; sight <= 3; ++sight) {
        ASSERT_TRUE(session.fuse(patch));
        const auto all = in_front(get_show_data(session)), confirmed = in_front(get_show_data_filter_noise(session));
        EXPECT_GT(all, 1000);
        EXPECT_EQ(confirmed > all / 2, sight == 3) << sight << " " << confirmed << " " << all;
    }
    expect_no_duplicates(get_show_data_filter_noise(session));
}

}  // namespace
