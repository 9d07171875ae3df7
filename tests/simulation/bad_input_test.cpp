// What the virtual world cannot use: one line each, and nothing to be seen.
#include "simulation/NoiseModel.h"
#include "simulation/Sequence.h"
#include "simulation/cameraPaths.h"
#include "simulation/meshShape.h"
#include "simulation/render.h"
#include "simulation/scenes.h"
#include "tools.h"

namespace VexelAlgorithm::Simulation {
namespace {

const CameraInParam kCamera(300, 310, 159.5, 117.25);

TEST(BadInput, UselessSolidsAreReportedAndInvisible) {
    const Matrix3d mirror = Vector3d(1, 1, -1).asDiagonal();
    std::vector<ShapePtr> useless;
    const std::string lines = VexelTest::printed([&] {
        useless = {sphere({0, 0, 0}, 0),
                   sphere({0, kNaN, 0}, 1),
                   half_space({0, 0, 0}, {0, 0, 0}),
                   box({0, 0, 0}, {1, 0, 1}),
                   box({0, 0, 0}, {1, 1, 1}, 1),
                   torus({0, 0, 0}, 10, 10),
                   ellipsoid({0, 0, 0}, {1, -1, 1}),
                   round_cone({0, 0, 0}, 1, {kNaN, 0, 0}, 1),
                   moved(sphere({0, 0, 0}, 1), {mirror, Vector3d::Zero()})};
        EXPECT_EQ(make_scene("no such scene"), nullptr);
    });
    EXPECT_EQ(VexelTest::line_count(lines), 10) << lines;
    for (const ShapePtr& shape : useless) {
        EXPECT_EQ(shape->distance({1, 2, 3}), kNoLimit);
        EXPECT_FALSE(shape->hit({{-5, 0, 0}, {1, 0, 0}}));
        EXPECT_EQ(smooth_union({shape, nullptr}, 2)->distance({0, 0, 0}), kNoLimit);
        EXPECT_EQ(smooth_union({shape, sphere({0, 0, 0}, 3)}, 2)->distance({0, 0, 7}), 4);
        EXPECT_TRUE(std::isnan(distance_by_descent(*shape, {0, 0, 0})));
    }
    const Ray broken[] = {
        {{kNaN, 0, 0}, {1, 0, 0}}, {{0, 0, 0}, {kNaN, 0, 0}}, {{kNoLimit, 0, 0}, {-1, 0, 0}}, {{0, 0, 99}, {0, 0, 0}}};
    for (const NamedShape& kind : all_kinds()) {
        for (const Ray& ray : broken) EXPECT_FALSE(kind.shape->hit(ray)) << kind.name;
        EXPECT_FALSE(kind.shape->hit({{0, 0, 500}, {0, 0, -1}}, kNaN)) << kind.name;
        EXPECT_TRUE(std::isfinite(kind.shape->distance({0, 0, 0}))) << kind.name;
        EXPECT_TRUE(kind.shape->gradient({0, 0, 0}).allFinite()) << kind.name;
    }
    const auto blended = [] { return smooth_union({sphere({0, 0, 0}, 3), sphere({1, 0, 0}, 3)}, kNaN); };
    expect_one_line([&] { EXPECT_EQ(blended()->distance({0, 0, 7}), 4); });
}

TEST(BadInput, MeshesThatAreNoSurfaceGiveNothing) {
    const std::vector<Vector3f> corners{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 0, 0}};
    const std::tuple<std::vector<Vector3f>, std::vector<Vector3i>, std::string> cases[] = {
        {corners, {{0, 1, 3}, {2, 2, 1}}, "mesh: no triangle has an area\n"},
        {corners, {{0, 1, 4}}, "mesh: a triangle has a corner that does not exist\n"},
        {corners, {{0, -1, 2}}, "mesh: a triangle has a corner that does not exist\n"},
        {{{0, 0, 0}, {1, 0, VexelTest::kNaN}, {0, 1, 0}}, {{0, 1, 2}}, "mesh: a point is not finite\n"}};
    for (const auto& [points, triangles, line] : cases) {
        const auto is_empty = [&p = points, &t = triangles] { return triangle_mesh(p, t)->bounds().empty(); };
        EXPECT_EQ(VexelTest::outcome(is_empty), std::pair(true, line));
    }
    const ShapePtr sheet = triangle_mesh(corners, {{0, 1, 2}, {0, 1, 3}, {1, 1, 1}});
    EXPECT_NEAR(sheet->distance({0.2, 0.2, -1}), -1, 1e-12) << "open surfaces: as the triangle faces";
    EXPECT_TRUE(sheet->hit({{0.2, 0.2, -1}, {0, 0, 1}}).has_value()) << "from both sides";
}

TEST(BadInput, ViewsGiveOneLineAndAnEmptyFrame) {
    const ShapePtr ball = sphere({0, 0, 100}, 50);
    const Matrix3d turned = Matrix3d::Identity();
    RenderSettings noDepth, nanRadial;
    noDepth.farLimit = kNaN;
    nanRadial.viewRadial.x() = VexelTest::kNaN;
    const struct {
        const char* what;
        CameraInParam camera;
        int width, height;
        RigidMatrix pose;
        RenderSettings settings;
        std::size_t slots;
    } cases[] = {
        {"scaled rotation", kCamera, 8, 6, {2 * turned, Vector3d::Zero()}, {}, 48},
        {"looking at where it stands", kCamera, 8, 6, look_at({1, 2, 3}, {1, 2, 3}), {}, 48},
        {"far limit", kCamera, 8, 6, {}, noDepth, 48},
        {"view radial", kCamera, 8, 6, {}, nanRadial, 0},
        {"no focal length", CameraInParam(0, 300, 4, 3), 8, 6, {}, {}, 0},
        {"absurd size", kCamera, 2000000000, 2000000000, {}, {}, 0},
    };
    for (const auto& c : cases) {
        PointImage frame;
        expect_one_line([&] { frame = render(*ball, c.camera, c.width, c.height, c.pose, c.settings); }, c.what);
        EXPECT_EQ(frame.get_vn(), c.slots) << c.what;
        EXPECT_EQ(frame.count_vaildNum(), 0) << c.what;
        EXPECT_TRUE(frame.is_enable_vNormal() && frame.is_enable_vWeight() && frame.is_enable_vFlag()) << c.what;
    }
    EXPECT_EQ(render(*nothing(), kCamera, 8, 6, {}).count_vaildNum(), 0);
}

TEST(BadInput, NoiseModelsLeaveTheFrameAsItIs) {
    const PointImage truth = render(*half_space({0, 0, 400}, {0, 0, -1}), kCamera, 8, 8, {});
    for (const auto field :
         {&NoiseModel::referenceDepth, &NoiseModel::depthSigma, &NoiseModel::depthStep, &NoiseModel::tiltGain,
          &NoiseModel::depthExponent, &NoiseModel::largestIncidence, &NoiseModel::dropFraction})
        for (const double value : {-1.0, kNaN}) {
            NoiseModel noise;
            noise.*field = value;
            PointImage frame = truth;
            expect_one_line([&] { EXPECT_FALSE(apply_noise(frame, noise, 0)); });
            EXPECT_EQ(frame.get_vCoords(), truth.get_vCoords());
        }
}

TEST(BadInput, SequencesThatCannotBeGiveOneLine) {
    const std::pair<const char*, void (*)(SequenceSettings&)> cases[] = {
        {"none such", [](SequenceSettings&) {}},
        {"smooth", [](SequenceSettings& s) { s.frames = -1; }},
        {"smooth", [](SequenceSettings& s) { s.width = 0; }},
        {"smooth", [](SequenceSettings& s) { s.height = 1 << 20; }},
        {"smooth", [](SequenceSettings& s) { s.noiseSigma = -1; }},
        {"smooth", [](SequenceSettings& s) { s.tremor = -0.5; }},
    };
    for (const auto& [name, spoil] : cases) {
        SequenceSettings settings;
        spoil(settings);
        expect_one_line([&, &name = name] { EXPECT_FALSE(make_sequence(name, settings).has_value()); });
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Simulation
