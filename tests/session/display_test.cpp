// What an application draws: on the surface, once each, growing with the scan.
#include <algorithm>
#include <map>
#include <tuple>

#include "tests/session/sessionScenes.h"

namespace VexelAlgorithm {
namespace {

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
        double squares = 0.0, turns = 0.0;
        const RigidMatrix modelToWorld = scan.sequence.poses[0];
        for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
            const Vector3d point = modelToWorld * Vector3d(cloud.get_vCoord(i).cast<double>());
            const double distance = scan.sequence.scene->distance(point);
            squares += distance * distance;
            EXPECT_NEAR(cloud.get_vNrv(i).norm(), 1.0F, 1e-5F);
            turns += 1.0 - modelToWorld.transform_normal(cloud.get_vNrv(i))
                               .cast<double>()
                               .dot(scan.sequence.scene->gradient(point).normalized());
            ASSERT_EQ(cloud.get_vColor(i), scan.records.fusion.colorOnInvaildPoint);
        }
        EXPECT_LT(std::sqrt(squares / static_cast<double>(cloud.get_vn())), 0.1 * voxel);
        EXPECT_LT(turns / static_cast<double>(cloud.get_vn()), 0.03);
    }
    /// No two points nearer than a hundredth of a voxel, and no voxel with a crowd.
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

TEST_F(Display, ShowsTheSurfaceOnceAndGrows) {
    EXPECT_EQ(get_show_data(session).get_vn(), 0U);
    std::size_t shown = 0;
    for (int i = 0; i < 12; i += 2) {
        ASSERT_TRUE(session.step(scan.frame(i)));
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
}

TEST_F(Display, AskedEachFrameOrOnceAtTheEndItIsTheSame) {
    Session patient(scan.records);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(session.step(scan.frame(i)) && patient.step(scan.frame(i)));
        get_show_data(session);
    }
    const auto often = sorted_points(get_show_data(session)), once = sorted_points(get_show_data(patient));
    std::vector<std::tuple<float, float, float>> common;
    std::set_intersection(often.begin(), often.end(), once.begin(), once.end(), std::back_inserter(common));
    // A leaf that is not marked again keeps the point of its last mark, although a neighbour's value may have moved.
    EXPECT_NEAR(static_cast<double>(often.size()), static_cast<double>(once.size()), 0.01 * once.size());
    EXPECT_GT(static_cast<double>(common.size()), 0.95 * once.size());
}

TEST_F(Display, SurfaceThatMovesTakesItsPointsAlong) {
    const auto shifted = [&](float depth) {
        PointImage frame = scan.frame(0);
        for (std::size_t i = 0; i < frame.get_vn(); ++i) {
            if (frame.has_point(i)) frame.set_vCoord(i, frame.get_vCoord(i) * (1.0F + depth / frame.get_vCoord(i).z()));
        }
        return frame;
    };
    int microseconds = 0;
    ASSERT_TRUE(session.step(scan.frame(0)));
    const std::size_t before = get_show_data(session).get_vn();
    // Many frames half a voxel behind pull the mean there.
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(fusion(session, shifted(0.5F * voxel), {}, microseconds));
    const Cloud& cloud = get_show_data(session);
    EXPECT_NEAR(static_cast<double>(cloud.get_vn()), static_cast<double>(before), 0.06 * before);
    expect_no_duplicates(cloud);
    double mean = 0.0;
    for (const Vector3f& p : cloud.get_vCoords()) {
        mean += scan.sequence.scene->distance(scan.sequence.poses[0] * Vector3d(p.cast<double>()));
    }
    mean /= static_cast<double>(cloud.get_vn());
    EXPECT_LT(mean, -0.2 * voxel) << "the points have moved with the surface";
}

TEST_F(Display, TheFilterLeavesOutWhatWasSeenSeldom) {
    ASSERT_TRUE(session.step(scan.frame(0)));
    const std::size_t first = get_show_data(session).get_vn();
    EXPECT_GT(get_show_data_filter_noise(session).get_vn(), 0.95 * static_cast<double>(first));
    // A patch that one frame alone has seen, in front of everything.
    PointImage patch = scan.frame(0);
    int microseconds = 0;
    for (std::size_t i = 0; i < patch.get_vn(); ++i) {
        if (patch.has_point(i)) patch.set_vCoord(i, patch.get_vCoord(i) * 0.8F);
    }
    const auto in_front = [&](const Cloud& cloud) {
        return std::count_if(cloud.get_vCoords().begin(), cloud.get_vCoords().end(),
                             [](const Vector3f& p) { return p.z() < 330.0F; });
    };
    for (int sight = 1; sight <= 3; ++sight) {
        ASSERT_TRUE(fusion(session, patch, {}, microseconds));
        const auto all = in_front(get_show_data(session)), confirmed = in_front(get_show_data_filter_noise(session));
        EXPECT_GT(all, 1000);
        EXPECT_EQ(confirmed > all / 2, sight == 3) << sight << " " << confirmed << " " << all;
    }
    expect_no_duplicates(get_show_data_filter_noise(session));
}

}  // namespace
}  // namespace VexelAlgorithm
