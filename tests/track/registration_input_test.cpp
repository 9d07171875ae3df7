// Every way for the ICP to end, and what images, poses and settings that it and the particle tracker cannot use lead
// to: the code, its line, nothing changed, and the object goes on working.
#include <cstdio>

#include "foundation/diagnostics.h"
#include "tests/track/icpScenes.h"
#include "track/ParticleTrack.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Track;
using namespace VexelTest;

constexpr int kLowest = std::numeric_limits<int>::min(), kHighest = std::numeric_limits<int>::max();

struct Attempt {
    IcpSettings settings;
    PointImage fixed, moving;
    RigidMatrix initial;
};

Attempt usual_attempt() {
    static const auto scene = Simulation::make_scene("blocks");
    static const PointImage fixed = render_view(*scene, front_view(), 100);
    static const PointImage moving = render_view(*scene, front_view() * kSmallMotion, 100);
    return {{}, fixed, moving, {}};
}

using Change = std::function<void(Attempt&)>;
using ImageOf = PointImage Attempt::*;
constexpr ImageOf Fixed = &Attempt::fixed, Moving = &Attempt::moving;

Change with_focal_length(double f) {
    return [=](Attempt& a) { a.fixed.set_camPar(CameraInParam(f, f, 50, 50)); };
}
Change with_radial(float x, float y) {
    return [=](Attempt& a) {
        const PointImage old = a.fixed;
        a.fixed.ini(old.get_image_width(), old.get_image_height(), old.get_camPar(), 1, {x, y});
        a.fixed.set_vCoords(old.get_vCoords());
        a.fixed.set_vNrvs(old.get_vNrvs());
    };
}
Change without_slots(ImageOf image) {
    return [=](Attempt& a) { (a.*image).ini(0, 0, (a.*image).get_camPar(), 1, Vector2f::Zero()); };
}
Change every_point(ImageOf image, const Vector3f& point) {
    return [=](Attempt& a) { (a.*image).set_vCoords(std::vector<Vector3f>((a.*image).get_vn(), point)); };
}
Change normals(ImageOf image, std::size_t count, const Vector3f& normal) {
    return [=](Attempt& a) { (a.*image).set_vNrvs(std::vector<Vector3f>(count, normal)); };
}
Change weights(std::size_t count, float weight) {
    return [=](Attempt& a) { a.moving.set_vWeights(std::vector<float>(count, weight)); };
}
Change start(const Vector3d& axisAngle, const Vector3d& translation) {
    return [=](Attempt& a) { a.initial = motion(axisAngle, translation); };
}
Change least_shares(float ofFixed, float ofMoving) {
    return [=](Attempt& a) { a.settings.rata = Vector2f(ofFixed, ofMoving); };
}

struct Ending {
    const char* name;
    Change change;
    IcpEnd end;
    RetVal code;
    std::string lines;  // all of them, or the beginning where the end is one of the last two
};

std::vector<Ending> endings() {
    const auto refused = [](const char* name, const Change& change, const std::string& reason) {
        return Ending{name, change, IcpEnd::BadInput, RET_INPUT_ERROR, "realTimeIcp fail because " + reason + "\n"};
    };
    const auto none = [](const char* name, const Change& change, const std::string& before = "") {
        return Ending{name, change, IcpEnd::NoCorrespondences, RET_NOT_CONVERGED,
                      before + "icp False correspondNum = 0 \n"};
    };
    const auto ending = [](IcpEnd end, RetVal code, const std::string& lines) {
        return [=](const char* name, const Change& change) { return Ending{name, change, end, code, lines}; };
    };
    const auto attributes = ending(IcpEnd::BadInput, RET_INPUT_ERROR,
                                   "!cloudFixed.is_enable_vNormal() || !cloudMove.is_enable_vNormal()|| "
                                   "!cloudMove.is_enable_vWeight()\n");
    const auto few = ending(IcpEnd::TooFewValid, RET_NOT_CONVERGED, "icp False , vaildCorrNum too small \n");
    const Change onlyBorder = [](Attempt& a) {
        for (std::size_t i = 0; i < a.moving.get_vn(); ++i)
            if (i % 100 >= 4) a.moving.set_slot_empty(i);
    };
    const Change moreThanSlots = [](Attempt& a) { a.fixed.resize_vn(7501); };
    const Vector3f zero = Vector3f::Zero(), one(0, 0, 1), huge = Vector3f::Constant(3e38F);
    const std::string camera = "the fixed image's camera is not usable";
    const std::string arrays = " image's arrays do not agree with its size";
    const std::string outside =
        "wrong pixPointBelongTo < 0 || pixPointBelongTo >= _fixCloudVaildMap.size()\npixPointBelongTo = "
        "9000000000000000000\n";
    return {
        {"gates in the wrong order", [](Attempt& a) { a.settings.icpDis = Vector2f(2, 1); }, IcpEnd::BadConfiguration,
         RET_INI_ERROR,
         "ini fail because icpDis(1)<icpDis(0) || icpAng(1) < icpAng(0)|| iterNum <= 0 || "
         "(iterNum - iterNumFixed) <= 3\n"},
        attributes("no images", [](Attempt& a) { a.fixed = a.moving = PointImage(); }),
        attributes("no fixed normals", [](Attempt& a) { a.fixed.disable_vNormal(); }),
        attributes("no moving normals", [](Attempt& a) { a.moving.disable_vNormal(); }),
        attributes("no moving weights", [](Attempt& a) { a.moving.disable_vWeight(); }),
        refused("one fixed normal", normals(Fixed, 1, one), "the fixed" + arrays),
        refused("two weights", weights(2, 1), "the moving" + arrays),
        refused("more points than slots", moreThanSlots, "the fixed" + arrays),
        refused("no focal length", with_focal_length(0), camera),
        refused("absurd camera", with_focal_length(1e300), camera),
        refused("NaN radial", with_radial(kNaN, 0), "the fixed image's view radial is not finite"),
        refused("NaN initial pose", start({0, 0, 0}, {0, kNaN, 0}), "the initial pose is not finite"),
        none("absurd radial", with_radial(1e30F, -1e30F), outside),
        none("absurd initial pose", start({0, 0, 0}, {1e300, 1e300, 1e300})),
        none("behind the camera", start({0, 3.14159, 0}, {0, 0, 0})),
        none("no fixed slots", without_slots(Fixed)),
        none("no moving slots", without_slots(Moving)),
        none("all at the border", onlyBorder),
        none("NaN fixed points", every_point(Fixed, Vector3f::Constant(kNaN))),
        none("infinite moving points", every_point(Moving, kInfinity * one)),
        none("far points", every_point(Moving, huge)),
        none("NaN normals", normals(Fixed, 7500, Vector3f(kNaN, 0, 1))),
        none("no normals", normals(Moving, 7500, zero)),
        none("NaN weights", weights(7500, kNaN)),
        {"infinite weights", weights(7500, kInfinity), IcpEnd::SingularSystem, RET_INI_ERROR,
         "icp False covMat.determinant() is too small \n"},
        {"same image", [](Attempt& a) { a.moving = a.fixed; }, IcpEnd::ZeroDistance, RET_INPUT_ERROR,
         "Error!!!! icp failed because average distance = 0\n"},
        few("all moving points wanted", least_shares(0, 1)),
        few("all fixed pixels wanted", least_shares(1, 0)),
        {"no distance permitted", [](Attempt& a) { a.settings.disAvgThread = 1e-4F; }, IcpEnd::ResidualTooLarge,
         RET_NOT_CONVERGED, "icp False , because disAvg > disThread\ndisAvg = 0.0"},
    };
}

/// The particle tracker looks at the same images in the same way.
void expect_particles_fail(ParticleTrack& tracker, const Attempt& attempt, bool isInputBad) {
    RigidMatrix result(Matrix3d::Identity(), {1, 2, 3});
    const auto [code, lines] =
        outcome([&] { return tracker.partical_track(attempt.fixed, attempt.moving, result, 0, nullptr); });
    EXPECT_EQ(code, isInputBad ? RET_INPUT_ERROR : RET_RUN_FAIL);
    EXPECT_EQ(line_count(lines), 1) << lines;
    EXPECT_EQ(lines == "partical filter fail\n", !isInputBad) << lines;
    EXPECT_EQ(result.get_translation(), isInputBad ? Vector3d(1, 2, 3) : Vector3d(0, 0, 0));
    EXPECT_EQ(tracker.get_the_min_residual(), ParticleTrack::FailedResidual);
}

TEST(RegistrationInput, EveryEndHasItsCodeItsLineAndItsResult) {
    const RigidMatrix before = motion({1, 2, 3}, {4, 5, 6});
    const Attempt usual = usual_attempt();
    const Vector3d origin = Vector3d::Zero(), depth(0, 0, 400);
    ParticleTrack tracker(18.0F, 5, "", 2, {3, 3, 1}, {10, 10, 10}, 0.5F, 0.8F, 2);
    for (const Ending& expected : endings()) {
        SCOPED_TRACE(expected.name);
        Attempt attempt = usual_attempt();
        expected.change(attempt);
        const bool isUsable = expected.end != IcpEnd::BadConfiguration;
        const std::string made = printed([&] { EXPECT_EQ(attempt.settings.icp().get_inisucc(), isUsable); });
        EXPECT_EQ(made, isUsable ? ""
                                 : "ini fail because icpDis(1)<icpDis(0) || iterNum <= 0 || "
                                   "(iterNum - iterNumFixed) <= 3\n");
        IcpBaseOnCam icp = attempt.settings.icp();
        const IcpOutcome outcome = run(icp, attempt.fixed, attempt.moving, attempt.initial, false, before);
        EXPECT_EQ(outcome.code, expected.code);
        EXPECT_EQ(icp.get_end(), expected.end);
        const bool isWritten = expected.end == IcpEnd::ResidualTooLarge, isFew = expected.end == IcpEnd::TooFewValid;
        EXPECT_EQ(isWritten || isFew ? outcome.lines.substr(0, expected.lines.size()) : outcome.lines, expected.lines);
        EXPECT_LT(distance_between(outcome.pose, isWritten ? kSmallMotion : before, isWritten ? depth : origin), 0.1);
        EXPECT_EQ(isWritten || outcome.pose.get_rotation() == before.get_rotation(), true);
        if (!isWritten && !isFew) {
            const bool hasStarted = expected.end == IcpEnd::NoCorrespondences || expected.end == IcpEnd::SingularSystem;
            EXPECT_EQ(icp.get_residual(), hasStarted ? 1e6F : 0.0F);
        }
        if (isFew) {
            const Vector2f& shares = attempt.settings.rata;
            EXPECT_NE(outcome.lines.find(format_text("_IcpRataRay(0) = %f     _IcpRataRay(1) = %f  \nvaildCorrNum = ",
                                                     double{shares(0)}, double{shares(1)})),
                      std::string::npos);
            EXPECT_EQ(outcome.lines.substr(outcome.lines.size() - 2), " \n");
            const Vector3f record = icp.get_corr_par();
            EXPECT_GT(record(0), 0.5F * std::max(record(1), record(2)));
            EXPECT_EQ(record(2), shares(1) * static_cast<float>(attempt.moving.count_vaildNum()));
            EXPECT_EQ(record(1) > 0.0F, shares(0) > 0.0F);
        }
        const bool isInputBad = expected.end == IcpEnd::BadInput;
        if ((isInputBad || expected.end == IcpEnd::NoCorrespondences) && attempt.initial.get_translation().isZero() &&
            attempt.initial.get_rotation().isIdentity())
            expect_particles_fail(tracker, attempt, isInputBad);
        if (!isUsable) continue;
        icp.set_disAvgThread(0.5F);
        icp.set_rata({0.1F, 0.1F});
        const IcpOutcome again = run(icp, usual.fixed, usual.moving);
        EXPECT_EQ(again.code, RET_SUCCESS);
        EXPECT_LT(distance_between(again.pose, kSmallMotion, depth), 0.1);
    }
}

TEST(RegistrationInput, SettingsOfTheIcp) {
    const Vector2f nan = Vector2f::Constant(kNaN);
    const std::tuple<const char*, std::function<void(IcpSettings&)>, RetVal> cases[] = {
        {"negative iterations", [](auto& s) { s.iterNum = kLowest, s.iterNumFixed = kHighest; }, RET_INI_ERROR},
        {"no fine iteration", [](auto& s) { s.iterNumFixed = s.iterNum; }, RET_INI_ERROR},
        {"any number of iterations", [](auto& s) { s.iterNum = kHighest; }, RET_SUCCESS},
        {"negative coarse ones", [](auto& s) { s.iterNumFixed = kLowest, s.icpDis(0) = 6; }, RET_SUCCESS},
        {"NaN gates", [=](auto& s) { s.icpDis = nan; }, RET_INI_ERROR},
        {"negative gates", [](auto& s) { s.icpDis = Vector2f(-2, -1); }, RET_NOT_CONVERGED},
        {"NaN distance", [](auto& s) { s.disAvgThread = kNaN; }, RET_NOT_CONVERGED},
        {"NaN shares", [=](auto& s) { s.rata = nan; }, RET_NOT_CONVERGED},
        {"ratio of 1 and more", [](auto& s) { s.corrRatio = Vector2f(1, kInfinity); }, RET_SUCCESS},
        {"NaN ratio", [=](auto& s) { s.corrRatio = nan; }, RET_SUCCESS},
    };
    const Attempt usual = usual_attempt();
    for (const auto& [name, change, code] : cases) {
        IcpSettings settings;
        settings.threads = -7;
        change(settings);
        IcpBaseOnCam icp = settings.icp();
        EXPECT_EQ(icp.get_inisucc(), code != RET_INI_ERROR) << name;
        EXPECT_EQ(run(icp, usual.fixed, usual.moving).code, code) << name;
    }
}

TEST(RegistrationInput, SettersOfTheIcpKeepWhatIsUsable) {
    IcpBaseOnCam icp = IcpSettings().icp();
    for (const Vector2f& gates : {Vector2f(2, 1), Vector2f(kNaN, 1), Vector2f(1, kInfinity)}) {
        EXPECT_EQ(printed([&] { icp.set_icpDis(gates); }),
                  "set_icpDis fail because icpDis(1)<icpDis(0) or a value is not finite\n");
        EXPECT_EQ(icp.get_icpDis(), Vector2f(1, 6));
    }
    icp.set_icpDis({2, 3});
    EXPECT_EQ(icp.get_icpDis(), Vector2f(2, 3));
    EXPECT_EQ(printed([&] { icp.reset_code_Num(0); }), "reset_code_Num fail because the step is below 1\n");
    icp.debug_outpu_data(0);  // before any registration
    std::remove("icpFixed_0.txt");
    std::remove("icpMoving_0.txt");
    IcpSettings nowhere;
    nowhere.debugPath = "/nowhere/at all";
    EXPECT_EQ(printed([&] { nowhere.icp().output_corr_point(0); }).rfind("output_corr_point fail because ", 0), 0U);
}

TEST(RegistrationInput, AbsurdParametersOfParticlesEndInAFinitePose) {
    const Attempt usual = usual_attempt();
    const auto track = [&](const std::array<float, 4>& f, const std::array<int, 4>& n) {
        ParticleTrack tracker(f[0], n[0], "", n[1], {n[3], 3, 1}, {f[3], 10, f[3]}, f[1], f[2], n[2]);
        RigidMatrix result;
        const RetVal ended = tracker.partical_track(usual.fixed, usual.moving, result, kHighest, nullptr);
        EXPECT_TRUE(ended == RET_SUCCESS || ended == RET_RUN_FAIL);
        EXPECT_TRUE(result.is_finite());
        EXPECT_LE(tracker.get_the_min_residual(), ParticleTrack::FailedResidual);
    };
    // Threshold, least share of valid points, share kept and step of the grid; iterations, stride, threads and counts.
    constexpr std::array<float, 4> usualFloats{18.0F, 0.5F, 0.8F, 10.0F};
    constexpr std::array<int, 4> usualCounts{3, 50, 1, 3};
    for (std::size_t which = 0; which < 4; ++which) {
        for (const float x : {kNaN, kInfinity, -kInfinity, -1.0F, 0.0F, 1e-30F, 3e38F}) {
            std::array<float, 4> floats = usualFloats;
            floats[which] = x;
            track(floats, usualCounts);
        }
        for (const int n : {kLowest, -1, 0, 100000, kHighest}) {
            std::array<int, 4> counts = usualCounts;
            counts[which] = n;
            track(usualFloats, counts);
        }
    }
}

TEST(RegistrationInput, SettersAndExtraPosesOfTheParticles) {
    ParticleTrack tracker(18.0F, 3, "", 40, {1, 1, 1}, {10, 20, 30}, 0.5F, 0.8F, 2);
    EXPECT_FALSE(printed([&] { tracker.reset_particleSize(kNaN); }).empty());
    EXPECT_EQ(tracker.get_particleSize(), Vector3f(10, 20, 30));
    tracker.reset_particleSize(4.0F);
    EXPECT_EQ(tracker.get_particleSize(), Vector3f(4, 4, 4));
    tracker.reset_code_Num(kLowest);

    // Nothing prepared yet: no particle has anything to count.
    int count = 7;
    float sum = 7.0F, residual = 0.0F;
    RigidMatrix refined;
    tracker.count_residual(RigidMatrix(), count, sum);
    tracker.count_one_particle(0, RigidMatrix(), refined, residual, 3, 1);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(sum, 0.0F);
    EXPECT_EQ(residual, ParticleTrack::FailedResidual);

    tracker.reset_code_Num(40);
    std::vector<RigidMatrix> extra(ParticleTrack::MaxParticles + 10, motion({0, 0, 0}, {1e300, 0, 0}));
    extra[0] = RigidMatrix(Matrix3d::Zero(), {0, 0, 0});
    extra[1] = RigidMatrix(1e200 * Matrix3d::Identity(), {0, 0, 0});
    extra[2] = RigidMatrix(-Matrix3d::Identity(), {0, 0, 800});
    const PointImage view = usual_attempt().fixed;
    RigidMatrix result;
    EXPECT_EQ(printed([&] { EXPECT_EQ(tracker.partical_track(view, view, result, 0, &extra), RET_SUCCESS); }),
              "10 extra start poses are not finite or too many, left out\n");
    EXPECT_LT(distance_between(result, RigidMatrix(), {0, 0, 400}), 1.0);
}

}  // namespace
