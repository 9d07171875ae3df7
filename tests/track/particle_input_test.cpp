// Images, parameters and poses that the particle tracker cannot use.
#include <algorithm>
#include <vector>

#include "tests/track/particleScenes.h"

namespace VexelAlgorithm::Track {
namespace {

using namespace VexelTest;

constexpr int kMost = std::numeric_limits<int>::max();
constexpr int kLeast = std::numeric_limits<int>::min();

PointImage view(const std::function<void(PointImage&)>& damage = nullptr) {
    static const PointImage intact = desk_view(RigidMatrix(), 64);
    PointImage image = intact;
    if (damage) damage(image);
    return image;
}

TEST(ParticleInput, UnusableImagesGiveOneLineAndLeaveTheResult) {
    struct Case {
        const char* name;
        PointImage fixed, moving;
    };
    const auto with_camera = [](double fx, double fy, double cx) {
        return view([&](PointImage& image) { image.set_camPar({fx, fy, cx, 24.0}); });
    };
    const Case cases[] = {
        {"no images", {}, {}},
        {"no fixed image", {}, view()},
        {"fixed without normals", view([](PointImage& i) { i.disable_vNormal(); }), view()},
        {"moving without normals", view(), view([](PointImage& i) { i.disable_vNormal(); })},
        {"moving without weights", view(), view([](PointImage& i) { i.disable_vWeight(); })},
        {"few normals", view([](PointImage& i) {
             i.set_vNrvs({{0, 0, 1}});
         }),
         view()},
        {"few weights", view(), view([](PointImage& i) {
             i.set_vWeights({1, 2, 3});
         })},
        {"more points than slots", view([](PointImage& i) { i.resize_vn(i.get_vn() + 1); }), view()},
        {"no focal length", with_camera(0, 90, 32), view()},
        {"NaN focal length", with_camera(90, kNaN, 32), view()},
        {"infinite centre", with_camera(90, 90, kInfinity), view()},
    };
    ParticleTrack tracker(18.0F, 5, "", 2, {5, 5, 1}, {10, 10, 10}, 0.5F, 0.8F, 2);
    for (const Case& c : cases) {
        RigidMatrix result(Matrix3d::Identity(), {1, 2, 3});
        const std::string lines = printed([&] {
            EXPECT_EQ(tracker.partical_track(c.fixed, c.moving, result, 0, nullptr), RET_INPUT_ERROR) << c.name;
        });
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1) << c.name << ": " << lines;
        EXPECT_EQ(result.get_translation(), Vector3d(1, 2, 3)) << c.name;
        EXPECT_EQ(tracker.get_the_min_residual(), kFailed) << c.name;
    }
    RigidMatrix result;
    EXPECT_EQ(tracker.partical_track(view(), view(), result, 0, nullptr), RET_SUCCESS);
}

TEST(ParticleInput, ImagesWithoutUsablePointsFailAsASearchDoes) {
    const PointImage other = view();
    std::vector<PointImage> images = {view([](PointImage& i) { i.setZero(); }), view([](PointImage& i) {
                                          i.set_vNrvs(std::vector<Vector3f>(i.get_vn(), Vector3f::Zero()));
                                      })};
    for (const Vector3f& point :
         {Vector3f(kNaN, 0, 1), Vector3f(0, kInfinity, 1), Vector3f(0, 0, -50), Vector3f(3e38F, 3e38F, 3e38F)}) {
        images.push_back(view([&](PointImage& i) { i.set_vCoords(std::vector<Vector3f>(i.get_vn(), point)); }));
    }
    ParticleTrack tracker(18.0F, 5, "", 2, {3, 3, 1}, {10, 10, 10}, 0.5F, 0.8F, 1);
    for (const PointImage& image : images) {
        for (const auto& [fixed, moving] : {std::pair(&image, &other), std::pair(&other, &image)}) {
            RigidMatrix result(Matrix3d::Identity(), {1, 2, 3});
            RetVal ended = RET_SUCCESS;
            EXPECT_EQ(
                printed([&, f = fixed, m = moving] { ended = tracker.partical_track(*f, *m, result, 0, nullptr); }),
                "partical filter fail\n");
            EXPECT_EQ(ended, RET_RUN_FAIL);
            EXPECT_EQ(result.get_translation(), Vector3d(0, 0, 0));
        }
    }
}

TEST(ParticleInput, AbsurdParametersEndInAFinitePose) {
    struct Parameters {
        float threshold = 18.0F;
        int iterNum = 3, codeNum = 2;
        Vector3i counts{3, 3, 1};
        Vector3f sizes{10, 10, 10};
        float minValidRatio = 0.5F, keepRatio = 0.8F;
        int threads = 1;
    };
    std::vector<Parameters> all;
    const auto add = [&](const std::function<void(Parameters&)>& change) { change(all.emplace_back()); };
    for (const float x : {kNaN, kInfinity, -kInfinity, -1.0F, 0.0F, 1e-30F, 3e38F}) {
        add([&](Parameters& p) { p.threshold = x; });
        add([&](Parameters& p) { p.minValidRatio = x; });
        add([&](Parameters& p) { p.keepRatio = x; });
        add([&](Parameters& p) { p.sizes = Vector3f(x, 10, x); });
    }
    for (const int n : {kLeast, -1, 0, 1, 100000, kMost}) {
        add([&](Parameters& p) { p.iterNum = n; });
        add([&](Parameters& p) { p.codeNum = n; });
        add([&](Parameters& p) { p.threads = n; });
        add([&](Parameters& p) {
            p.counts = Vector3i(n, 1, 1);
            p.codeNum = 50;
        });
    }
    const PointImage fixed = view();
    const PointImage moving = desk_view(motion({0.01, 0.02, 0}, {8, -3, 0}), 64);
    for (const Parameters& p : all) {
        ParticleTrack tracker(p.threshold, p.iterNum, "", p.codeNum, p.counts, p.sizes, p.minValidRatio, p.keepRatio,
                              p.threads);
        RigidMatrix result;
        const RetVal ended = tracker.partical_track(fixed, moving, result, kMost, nullptr);
        EXPECT_TRUE(ended == RET_SUCCESS || ended == RET_RUN_FAIL);
        EXPECT_TRUE(result.is_finite());
        EXPECT_LE(tracker.get_the_min_residual(), kFailed);
    }
}

TEST(ParticleInput, SettingsAndExtraPosesOfAnyKind) {
    ParticleTrack tracker(18.0F, 3, "", 40, {1, 1, 1}, {10, 20, 30}, 0.5F, 0.8F, 2);
    EXPECT_FALSE(printed([&] { tracker.reset_particleSize(kNaN); }).empty());
    EXPECT_EQ(tracker.get_particleSize(), Vector3f(10, 20, 30));
    tracker.reset_particleSize(4.0F);
    EXPECT_EQ(tracker.get_particleSize(), Vector3f(4, 4, 4));
    tracker.reset_code_Num(kLeast);

    // Nothing prepared yet: no particle has anything to count.
    int count = 7;
    float sum = 7.0F, residual = 0.0F;
    RigidMatrix refined;
    tracker.count_residual(RigidMatrix(), count, sum);
    tracker.count_one_particle(0, RigidMatrix(), refined, residual, 3, 1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(sum, 0.0F);
    EXPECT_EQ(residual, kFailed);

    tracker.reset_code_Num(40);
    std::vector<RigidMatrix> extra(ParticleTrack::MaxParticles + 10, motion({0, 0, 0}, {1e300, 0, 0}));
    extra[0] = RigidMatrix(Matrix3d::Zero(), {0, 0, 0});
    extra[1] = RigidMatrix(1e200 * Matrix3d::Identity(), {0, 0, 0});
    extra[2] = RigidMatrix(-Matrix3d::Identity(), {0, 0, 800});
    RigidMatrix result;
    EXPECT_EQ(printed([&] { EXPECT_EQ(tracker.partical_track(view(), view(), result, 0, &extra), RET_SUCCESS); }),
              "10 extra start poses are not finite or too many, left out\n");
    EXPECT_LT(distance_between(result, RigidMatrix(), kDeskCentre), 1.0);
}

}  // namespace
}  // namespace VexelAlgorithm::Track
