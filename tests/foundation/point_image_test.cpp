#include "foundation/PointImage.h"
#include "tests/common.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTest;

PointImage sample_frame() {
    PointImage frame;
    frame.enable_vNormal();
    frame.ini(8, 6, CameraInParam(100.0, 120.0, 20.0, 15.0), 2, Vector2f(16.5f, 12.0f));
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x) {
            if ((x + y) % 3 == 0) continue;
            Vector3f point;
            frame.get_camPar().depth_to_point(
                300.0f, Vector2f(x + frame.get_viewRadialX(), y + frame.get_viewRadialY()), point);
            frame.set_point(x, y, point);
            frame.set_normal(x, y, {0.0f, 0.0f, -1.0f});
        }
    return frame;
}

TEST(PointImage, IniGivesEmptySlotsAndKeepsTheAttributes) {
    PointImage frame = sample_frame();
    frame.enable_vWeight();
    frame.set_vWeight(3, 5.0f);
    frame.set_rt({Matrix3d::Identity(), Vector3d(1, 2, 3)});
    frame.ini(5, 4);
    EXPECT_TRUE(frame.is_legal() && frame.is_enable_vNormal() && frame.is_enable_vWeight());
    EXPECT_EQ(frame.get_vn(), 20u);
    EXPECT_EQ(frame.count_vaildNum(), 0);
    EXPECT_EQ(frame.get_vWeight(3), 0.0f);
    EXPECT_EQ(frame.get_rt().get_translation(), Vector3d::Zero());
    EXPECT_EQ(frame.get_sample(), 2) << "only the longer form sets camera, sampling and view radial";

    frame.ini(-3, -3);
    EXPECT_EQ(frame.get_vn(), 0u);
    EXPECT_EQ(line_count(printed([&] { frame.ini(65536, 65536); })), 1);
    EXPECT_EQ(frame.get_image_width(), 0);
    EXPECT_TRUE(frame.is_legal());
}

TEST(PointImage, SlotsHoldAPointUnlessZeroOrNotFinite) {
    PointImage frame;
    frame.ini(3, 2);
    frame.set_point(0, 0, {0, 0, 1e-30f});
    frame.set_point(1, 0, {-0.0f, 0, 0});
    frame.set_point(2, 0, {kNaN, 1, 1});
    frame.set_point(0, 1, {1, std::numeric_limits<float>::infinity(), 1});
    frame.set_point(1, 1, {4, 5, 6});
    EXPECT_EQ(frame.count_vaildNum(), 2);
    Vector3f low, high;
    EXPECT_TRUE(frame.get_boundBox(low, high));
    EXPECT_EQ(high, Vector3f(4, 5, 6));
    EXPECT_EQ(low, Vector3f(0, 0, 1e-30f)) << "empty slots are not points at the origin";
    frame.set_vDeleted(4, true);
    frame.squeeze(true);
    EXPECT_EQ(frame.get_vn(), 6u) << "slots stay";
    EXPECT_EQ(frame.count_vaildNum(), 1);
    EXPECT_FALSE(frame.get_vDeleted(4));
}

TEST(PointImage, PoseFollowsTheMotionAndComesBack) {
    const PointImage original = sample_frame();
    PointImage frame = original;
    const Matrix3d rotation = turned({0.4, 0.2, -2.0});
    const RigidMatrix first(rotation, Vector3d(100.0, -50.0, 20.0)), second(rotation, Vector3d(3.0, 4.0, 5.0));
    frame.rigid_transformation(first);
    frame.rigid_transformation(second);
    const std::size_t somewhere = frame.index_of(1, 0);
    EXPECT_LT((frame.get_vCoord(somewhere) - (second * first) * original.get_vCoord(somewhere)).norm(), 1e-4f);
    frame.to_ori_coor();
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        EXPECT_LT((frame.get_vCoord(i) - original.get_vCoord(i)).norm(), 2e-4f) << "empty slots do not become points";
        EXPECT_LT((frame.get_vNrv(i) - original.get_vNrv(i)).norm(), 1e-6f);
    }
    EXPECT_LT((original.get_ray_direct(1) - original.get_vCoord(1).normalized()).norm(), 1e-6f);
    frame.set_rt(first);
    EXPECT_LT((frame.get_vCoord(1) - original.get_vCoord(1)).norm(), 2e-4f) << "set_rt moves nothing";

    PointImage onOrigin;
    onOrigin.ini(1, 1);
    onOrigin.set_point(0, 0, {1, 2, 3});
    onOrigin.rigid_transformation({Matrix3d::Identity(), Vector3d(-1, -2, -3)});
    EXPECT_EQ(onOrigin.count_vaildNum(), 1) << "a point moved onto the origin is still a point";
}

TEST(PointImage, ArchiveSizeMustFitTheSlots) {
    PointImage frame = sample_frame();
    std::ostringstream out;
    ASSERT_TRUE(frame.write_archive(out));
    const std::string bytes = out.str();
    const std::size_t sizeAt = bytes.size() - 96 - 32 - 8 - 12;
    for (const Vector2i& size : {Vector2i(8, 7), {-8, -6}, {65536 * 2, 32768 * 48}}) {
        std::string damaged = bytes;
        std::memcpy(&damaged[sizeAt], size.data(), 8);
        std::istringstream in(damaged);
        PointImage read;
        EXPECT_FALSE(read.read_archive(in)) << size.transpose();
    }
    std::istringstream in(bytes);
    PointImage read;
    ASSERT_TRUE(read.read_archive(in));
    EXPECT_EQ(read.get_viewRadialX(), 16.5f);
    EXPECT_EQ(read.get_camPar().get_fy(), 120.0);

    PointImage moved(std::move(read));
    EXPECT_TRUE(read.is_legal());
    EXPECT_EQ(read.get_image_width(), 0);
    moved.resize_vn(3);
    EXPECT_FALSE(moved.is_legal());
    moved.repair_illegal();
    EXPECT_EQ(moved.get_vn(), 48u);
}

}  // namespace
