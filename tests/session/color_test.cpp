// Coloured frames against the true colours of the virtual surface.
#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;
using Simulation::SurfaceColor;

/// A scan with a colour camera, and judges of colours.
struct JudgedScan : ColoredScan {
    explicit JudgedScan(int width = 160) : ColoredScan(width) {}
    bool has_color(const Cloud& cloud, std::size_t i) const {
        return cloud.get_vColor(i) != records.fusion.colorOnInvaildPoint;
    }
    double colored_share(const Cloud& cloud) const {
        std::size_t count = 0;
        for (std::size_t i = 0; i < cloud.get_vn(); ++i) count += has_color(cloud, i) ? 1 : 0;
        return static_cast<double>(count) / static_cast<double>(cloud.get_vn());
    }
    /// Largest error of a channel of each coloured point, ascending.
    std::vector<float> errors(const Cloud& cloud, const SurfaceColor& surface = Simulation::soft_stripes) const {
        std::vector<float> errors;
        for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
            const Vector3d world = sequence.poses.front() * Vector3d(cloud.get_vCoord(i).cast<double>());
            if (has_color(cloud, i)) errors.push_back((cloud.get_vColor(i) - surface(world)).cwiseAbs().maxCoeff());
        }
        std::sort(errors.begin(), errors.end());
        return errors;
    }
};

SurfaceColor even(const Vector3f& color) {
    return [color](const Vector3d&) { return color; };
}

/// Fuses the first frame where it was taken, all in one colour.
bool fuse(Session& session, const JudgedScan& scan, const Vector3f& color) {
    PointImage frame = scan.frame(0);
    frame.enable_vColor();
    for (std::size_t i = 0; i < frame.get_vn(); ++i) frame.set_vColor(i, color);
    return session.fuse(frame);
}

// The last percents lie at silhouettes, where a pixel of the colour image holds both sides. Without regard to what
// hides what a tenth would be wrong.
void expect_true_colors(const JudgedScan& scan, const Cloud& cloud) {
    EXPECT_GT(scan.colored_share(cloud), 0.9);
    const std::vector<float> errors = scan.errors(cloud);
    const auto quantile = [&](std::size_t percent) { return errors[errors.size() * percent / 100]; };
    EXPECT_LT(quantile(50), 0.006F);
    EXPECT_LT(quantile(90), 0.03F) << "0.7 mm of stripe, a third of a voxel";
    EXPECT_LT(quantile(97), 0.12F);
}

TEST(Color, MeshAndDisplayHaveTheColoursOfTheSurface) {
    JudgedScan scan;
    for (const int threads : {1, 2}) {
        scan.records.fusion.codeNumSet = threads;
        Session session(scan.records);
        for (int i = 0; i < 6; ++i) ASSERT_TRUE(session.step(scan.colored(i))) << i;
        expect_true_colors(scan, session.mesh());
        expect_true_colors(scan, session.mesh(5.0F));
        expect_true_colors(scan, get_show_data(session));
        expect_true_colors(scan, get_show_data_filter_noise(session));
        ASSERT_TRUE(session.step(scan.colored(6)));
        expect_true_colors(scan, get_show_data(session));
        expect_true_colors(scan, get_show_data_filter_noise(session));
    }
}

TEST(Color, TheShapeIsThatOfTheScanWithoutColour) {
    const JudgedScan scan;
    Session plain(scan.records), colored(scan.records), tracked(scan.records);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(plain.step(scan.frame(i)) && colored.step(scan.colored(i)));
        get_show_data(plain), get_show_data(colored);
    }
    ASSERT_EQ(plain.mesh().is_enable_vColor(), false);
    const auto bytes_without_colors = [](auto cloud) {
        cloud.disable_vColor();
        return archive(cloud);
    };
    EXPECT_TRUE(bytes_without_colors(colored.mesh()) == plain.mesh_bytes());
    EXPECT_TRUE(bytes_without_colors(get_show_data(colored)) == bytes_without_colors(get_show_data(plain)));
    EXPECT_EQ(scan.colored_share(get_show_data(plain)), 0.0);

    // A frame that is tracked and not fused leaves no colour, and one without an image takes none away.
    ASSERT_TRUE(tracked.step(scan.frame(0)));
    int microseconds = 0;
    ASSERT_TRUE(fusion_and_track(tracked, scan.colored(1), microseconds, false, 1 << 30));
    EXPECT_FALSE(tracked.mesh().is_enable_vColor());
    ASSERT_TRUE(tracked.step(scan.colored(2)));
    ASSERT_TRUE(tracked.step(scan.frame(3)));
    EXPECT_GT(scan.colored_share(tracked.mesh()), 0.8);
}

TEST(Color, IsAWeightedMeanOverFrames) {
    const JudgedScan scan;
    Session session(scan.records);
    const Vector3f red(0.8F, 0.2F, 0.4F), blue(0.2F, 0.4F, 0.8F), black(0.0F, 0.0F, 0.0F), beyond(0.5F, kNaN, 0.5F);
    // From one place, so that all have the same weights; black, and what is no number, count as none.
    for (const Vector3f& color : {red, blue, black, beyond, red, blue}) ASSERT_TRUE(fuse(session, scan, color));
    EXPECT_LT(scan.errors(session.mesh(), even({0.5F, 0.3F, 0.6F})).back(), 1e-4F);
}

TEST(Color, FormsOfTheImageAndOfTheCallGiveTheSameColours) {
    const JudgedScan scan;
    std::vector<std::string> results;
    for (const bool isPadded : {false, true}) {
        Session session(scan.records);
        for (int i = 0; i < 3; ++i) {
            ColorAndPoint frame = scan.colored(i);
            ColorImage& image = frame.color;
            if (isPadded) {
                ColorImage padded = image;
                padded.stride = 3 * image.width + 5;
                padded.order = ColorOrder::Bgr;
                padded.bytes.assign(padded.row_stride() * static_cast<std::size_t>(image.height), 255);
                for (std::size_t y = 0; y < static_cast<std::size_t>(image.height); ++y)
                    for (std::size_t k = 0; k < image.row_bytes(); ++k)
                        padded.bytes[y * padded.row_stride() + k] =
                            image.bytes[y * image.row_bytes() + k / 3 * 3 + 2 - k % 3];
                image = padded;
                // Moved by a pose, which is taken back.
                frame.point.rigid_transformation(scan.sequence.pose_in_model(4));
                frame.point.to_ori_coor();
                frame.point.enable_vColor();
            }
            ASSERT_TRUE(session.step(frame));
        }
        if (!isPadded) results.push_back(session.mesh_bytes());
        if (isPadded) expect_true_colors(scan, session.mesh());
    }
    Session threaded(scan.records);
    for (int i = 0; i < 3; ++i) {
        FusionparallelInputData data;
        data.frameId = i;
        ASSERT_EQ(fusion_and_track_parallel_load_color(threaded, scan.colored(i).color, i), RET_SUCCESS);
        ASSERT_EQ(fusion_and_track_parallel_load_cloud(threaded, scan.frame(i), data), RET_SUCCESS);
    }
    while (threaded.state().acceptedFrames < 3) std::this_thread::yield();
    EXPECT_TRUE(threaded.mesh_bytes() == results.front());
}

TEST(Color, OnlyTheUsableRegionGivesColour) {
    JudgedScan scan;
    const int half = scan.records.fusion.colorImageSize.x() / 2;
    const ColorAndPoint frame = scan.colored(0);
    scan.records.fusion.colorImageRange(0) = half;
    Session session(scan.records);
    ASSERT_TRUE(session.step(frame));
    const Cloud& shown = get_show_data(session);
    int coloredCount = 0;
    for (std::size_t i = 0; i < shown.get_vn(); ++i) {
        const Vector3d uvw = scan.records.fusion.colorImagePar *
                             (scan.records.fusion.tranLeftToColor * Vector3d(shown.get_vCoord(i).cast<double>()));
        if (!scan.has_color(shown, i)) continue;
        ++coloredCount;
        EXPECT_GT(uvw.x() / uvw.z(), half - 8.0) << "a voxel has some 5 pixels";
    }
    EXPECT_GT(coloredCount, 1000);

    // Turned away from the scene.
    scan.records.fusion.tranLeftToColor.set_rotation(Vector3d(-1.0, 1.0, -1.0).asDiagonal());
    Session blind(scan.records);
    ASSERT_TRUE(blind.step(frame));
    EXPECT_FALSE(blind.mesh().is_enable_vColor());
}

TEST(Color, DeletedSurfaceTakesItsColourAlong) {
    const JudgedScan scan;
    const Vector3f red(0.9F, 0.1F, 0.1F), green(0.1F, 0.9F, 0.1F);
    const std::function<RetVal(void*)> edits[] = {
        [](void* s) { return delete_point_when_scan(s, get_show_data(s), 1.0F); },
        [](void* s) { return delete_frame_point(s, 0); },
        [](void* s) { return fusion_reset(s); },
        [](void* s) { return fusion_tree_reset(s); },
    };
    for (const auto& edit : edits) {
        Session session(scan.records);
        ASSERT_TRUE(fuse(session, scan, red));
        EXPECT_LT(scan.errors(session.mesh(), even(red)).back(), 1e-4F);
        ASSERT_EQ(edit(session), RET_SUCCESS);
        ASSERT_TRUE(session.step(scan.frame(0)));
        EXPECT_FALSE(session.mesh().is_enable_vColor()) << "an emptied model begins anew";
        ASSERT_TRUE(fuse(session, scan, green));
        EXPECT_LT(scan.errors(session.mesh(), even(green)).back(), 1e-4F);
    }

    // Half of the surface goes: there the new colour is alone, on the other half it is mixed with the old one.
    Session session(scan.records);
    ASSERT_TRUE(fuse(session, scan, red));
    Cloud left;
    for (const Vector3f& point : get_show_data(session).get_vCoords())
        if (point.x() < 0.0F) left.add_vCoord(point);
    ASSERT_EQ(delete_point_when_scan(session, left, 1.0F), RET_SUCCESS);
    ASSERT_TRUE(fuse(session, scan, green));
    const BaseTriMesh mesh = session.mesh();
    std::size_t halves[2] = {}, asExpected[2] = {};
    for (std::size_t i = 0; i < mesh.get_vn(); ++i) {
        const float x = mesh.get_vCoord(i).x();
        if (std::abs(x) < 6.0F || !scan.has_color(mesh, i)) continue;
        const Vector3f expected = x < 0.0F ? Vector3f(0.1F, 0.9F, 0.1F) : Vector3f(0.5F, 0.5F, 0.1F);
        ++halves[x < 0.0F ? 0 : 1];
        asExpected[x < 0.0F ? 0 : 1] += (mesh.get_vColor(i) - expected).norm() < 0.05F ? 1 : 0;
    }
    for (const int half : {0, 1}) {
        EXPECT_GT(halves[half], 2000U);
        EXPECT_GT(asExpected[half], halves[half] * 9 / 10);
    }
}

TEST(Color, BadImagesChangeNothing) {
    const JudgedScan scan(80);
    const ColorAndPoint good = scan.colored(1);
    const std::string doesNotFit = "width, height and bytes of the colour image do not fit";
    const std::string otherSize = "the colour image has 2 x 1 pixels and the session's colour camera 160 x 128";
    const std::vector<std::uint8_t>& bytes = good.color.bytes;
    const int most = std::numeric_limits<int>::max();
    const ColorImage images[] = {{},
                                 {160, 128, {}},
                                 {160, 128, std::vector<std::uint8_t>(bytes.size() - 1)},
                                 {160, 128, std::vector<std::uint8_t>(bytes.size() + 1)},
                                 {160, 128, bytes, 479},  // rows too short
                                 {160, 128, bytes, -480},
                                 {-160, -128, bytes},
                                 {most, most, bytes, most},
                                 {160, 128, bytes, 0, static_cast<ColorOrder>(7)},
                                 {2, 1, std::vector<std::uint8_t>(6)}};
    Session session(scan.records);
    ASSERT_TRUE(session.step(scan.colored(0)));
    const std::string before = session.bytes();
    for (const ColorImage& image : images) {
        SCOPED_TRACE(&image - images);
        const std::string reason = image.width == 2 ? otherSize : doesNotFit;
        session.microseconds = -7;
        EXPECT_EQ(printed([&] {
                      EXPECT_FALSE(session.step(ColorAndPoint{good.point, image}));
                  }),
                  can_not("fusion_and_track", reason));
        EXPECT_EQ(printed([&] { EXPECT_EQ(fusion_and_track_parallel_load_color(session, image, 1), RET_INPUT_ERROR); }),
                  can_not("fusion_and_track_parallel_load_color", reason));
        EXPECT_EQ(session.microseconds, -7);
        EXPECT_TRUE(session.state().outcome == FrameOutcome::BadFrame && session.state().acceptedFrames == 1);
    }
    // A bad frame with a good image is told from the frame.
    PointImage small;
    small.ini(4, 4, scan.sequence.camera, 1, Vector2f::Zero());
    small.enable_vNormal(), small.enable_vWeight(), small.enable_vFlag();
    EXPECT_EQ(printed([&] {
                  EXPECT_FALSE(session.step(ColorAndPoint{small, good.color}));
              }),
              can_not("fusion_and_track", "the frame has 4 x 4 pixels and the session 80 x 64"));
    EXPECT_TRUE(session.bytes() == before);
    EXPECT_TRUE(session.step(good));

    EXPECT_EQ(
        printed([&] { EXPECT_FALSE(fusion_and_track(nullptr, good, session.microseconds, session.isToBeFused, 0)); }),
        "fail because pFusionTrack == NULL\n");
    Records records = scan.records;
    records.fusion.colorImageSize.setZero();
    Session colorless(records);
    EXPECT_EQ(printed([&] { EXPECT_FALSE(colorless.step(good)); }),
              can_not("fusion_and_track", "the session has no colour camera"));
    records = scan.records;
    records.fusion.colorImagePar(0, 2) = static_cast<double>(kNaN);
    Session broken(records);
    EXPECT_EQ(printed([&] { EXPECT_FALSE(broken.step(good)); }),
              can_not("fusion_and_track", "the session's colour camera is not usable"));
    // Any numbers as usable region.
    for (const int extreme : {-2147483647, 2147483647}) {
        records = scan.records;
        records.fusion.colorImageRange.setConstant(extreme);
        Session blind(records);
        EXPECT_TRUE(blind.step(good));
        EXPECT_FALSE(blind.mesh().is_enable_vColor());
    }
    // Colours that no image gives: of slots, far out of range.
    PointImage frame = good.point;
    frame.enable_vColor();
    for (std::size_t i = 0; i < frame.get_vn(); ++i)
        frame.set_vColor(i, i % 2 == 0 ? Vector3f::Constant(kNaN) : Vector3f(1e30F, -1e30F, 0.5F));
    Session extreme(scan.records);
    ASSERT_TRUE(extreme.step(frame));
    const std::vector<float> errors = scan.errors(extreme.mesh(), even({1.0F, 0.0F, 0.5F}));
    EXPECT_LT(errors.back(), 1e-4F);
}

}  // namespace
