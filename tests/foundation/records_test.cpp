// Parameter records: exact text, advice of the checks; the handle frame: null texts, nothing thrown.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/Cloud.h"
#include "foundation/handle.h"
#include "foundation/parameterCheck.h"
#include "foundation/parameterPrint.h"

namespace VexelAlgorithm {
namespace {

constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr float INFINITE = std::numeric_limits<float>::infinity();

std::string printed(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

TEST(RecordPrint, CommonParameter) {
    CommonParameter record;
    record.imageSize = {1280, 1024};
    record.colorImageSize = {2592, 1944};
    record.sample = 2;
    record.rawPointDis = 0.1F;
    record.outputPath = "C:/debug out/";
    record.deviceTag = 4711;
    record.scanType = -3;
    record.campar.set_param(2300.5, 2301.0, 640.1234567, 1e7);
    EXPECT_EQ(printed([&] { print_parameter(record); }),
              "\n\n\ncommon parameter output\n"
              "imageSize = 1280\t1024\n"
              "colorImageSize = 2592\t1944\n"
              "sample = 2\n"
              "rawPointDis = 0.1\n"
              "outputPath = C:/debug out/\n"
              "scanType = -3\n"
              "campar = 2300.5\t2301\t640.123\t1e+07\n");
}

TEST(RecordPrint, TrackParmeter) {
    TrackParmeter record;
    record.icpIterNum = 30;
    record.icpInterNumFixed = 5;
    record.icpDis = {0.5F, 3.0F};
    record.icpDisFeature = {0.25F, 12.0F};
    record.icpDisAvgThread = 0.3F;
    record.icpDisAvgFeatureThread = NOT_A_NUMBER;
    record.icpRataRay = {0.1F, 0.2F};
    record.icpRataRayFeature = {0.0F, 0.95F};
    record.icpParticleSize = 8.0F;
    record.disUniform = 1e-5F;
    EXPECT_EQ(printed([&] { print_parameter(record); }),
              "\n\n\nTrackParmeter output\n"
              "icpIterNum = 30\n"
              "icpInterNumFixed = 5\n"
              "icpDis = 0.5\t3\n"
              "icpDisFeature = 0.25\t12\n"
              "icpDisAvgThread = 0.3\n"
              "icpDisAvgFeatureThread = nan\n"
              "icpRataRay = 0.1\t0.2\n"
              "icpRataRayFeature = 0\t0.95\n"
              "icpParticleSize = 8\n"
              "disUniform = 1e-05\n");
}

TEST(RecordPrint, FusionParameter) {
    FusionParameter record;
    record.treeDepth = 11;
    record.pointDis = 0.4F;
    record.fusionDataSize = {5, 3};
    record.currPointOffsetShow = -0.2F;
    record.viewBox = {100.0F, 900.5F};
    record.fusionLimitNum = 2000;
    record.fusionLimitNumFeature = 2500;
    record.colorOnInvaildPoint = {0.5F, 0.25F, 1.0F};
    record.codeNumSet = 2;
    record.colorImageRange = {10, 20, 1270, 1000};
    record.colorImagePar << 2000.5, 0, 639.5, 0, 2001, 511.5, 0, 0, 1;
    record.tranLeftToColor.set_rotation((Matrix3d() << 0, -1, 0, 1, 0, 0, 0, 0, 1).finished());
    record.tranLeftToColor.set_translation({30.25, -1.5, 0});
    record.colorImageSize = {1280, 1024};
    EXPECT_EQ(
        printed([&] { print_parameter(record); }),
        "\n\n\nFusionParameter output\n"
        "treeDepth = 11\n"
        "pointDis = 0.4\n"
        "fusionDataSize = 5\t3\n"
        "currPointOffsetShow = -0.2\n"
        "viewBox = 100\t900.5\n"
        "fusionLimitNum = 2000\n"
        "fusionLimitNumFeature = 2500\n"
        "color on Invaild Point = 0.5\t0.25\t1\n"
        "codeNumSet = 2\n"
        "colorImageRange(0) = 10\tcolorImageRange(1) = 20\tcolorImageRange(2) = 1270\tcolorImageRange(3) = 1000\t\n"
        "colorImagePar\n2000.5\t0\t639.5\n0\t2001\t511.5\n0\t0\t1\n\n"
        "tranLeftToColor \n0\t-1\t0\n1\t0\t0\n0\t0\t1\n30.25\t-1.5\t0\n\n"
        "colorImageSize(0) =  1280\tcolorImageSize(1) =  1024\n");
}

std::string fields(const std::vector<ParameterFinding>& findings) {
    std::string list;
    for (const ParameterFinding& finding : findings) {
        EXPECT_FALSE(finding.reason.empty());
        list += (list.empty() ? "" : " ") + finding.field;
    }
    return list;
}

template <class Record>
struct Damage {
    std::function<void(Record&)> apply;
    std::string findings;  // names of the fields reported, blank between them
};

template <class Record, class Check>
void expect_findings(Check check, const std::vector<Damage<Record>>& damages) {
    EXPECT_EQ(fields(check(Record())), "") << "the defaults are valid";
    for (const Damage<Record>& damage : damages) {
        Record record;
        damage.apply(record);
        EXPECT_EQ(fields(check(record)), damage.findings);
    }
}

TEST(RecordCheck, NamesTheWrongFieldOfCommonParameter) {
    using R = CommonParameter;
    expect_findings<R>(check_common_parameter, {{[](R& r) {
                                                     r.imageSize = {0, 1 << 30};
                                                 },
                                                 "imageSize(0) imageSize(1) sample"},
                                                {[](R& r) {
                                                     r.colorImageSize = {0, 0};
                                                 },
                                                 ""},
                                                {[](R& r) {
                                                     r.colorImageSize = {640, 0};
                                                 },
                                                 "colorImageSize(1)"},
                                                {[](R& r) { r.sample = 0; }, "sample"},
                                                {[](R& r) { r.sample = std::numeric_limits<int>::max(); }, "sample"},
                                                {[](R& r) { r.rawPointDis = INFINITE; }, "rawPointDis"},
                                                {[](R& r) { r.campar.set_param(0, -1, NOT_A_NUMBER, INFINITE); },
                                                 "campar(fx) campar(fy) campar(cx) campar(cy)"}});
}

TEST(RecordCheck, NamesTheWrongFieldOfTrackParmeter) {
    using R = TrackParmeter;
    expect_findings<R>(check_track_parmeter,
                       {{[](R& r) { r.icpIterNum = 0; }, "icpIterNum icpInterNumFixed"},
                        {[](R& r) {
                             r.icpIterNum = std::numeric_limits<int>::max(),
                             r.icpInterNumFixed = std::numeric_limits<int>::min();
                         },
                         "icpIterNum icpInterNumFixed"},
                        {[](R& r) { r.icpIterNum = 9, r.icpInterNumFixed = 6; }, "icpInterNumFixed"},
                        {[](R& r) { r.icpIterNum = 10, r.icpInterNumFixed = 6; }, ""},
                        {[](R& r) {
                             r.icpDis = {2.0F, 1.0F};
                         },
                         "icpDis(1)"},
                        {[](R& r) {
                             r.icpDis = {2.0F, 2.0F};
                         },
                         ""},
                        {[](R& r) {
                             r.icpDisFeature = {NOT_A_NUMBER, 1.0F};
                         },
                         "icpDisFeature(0)"},
                        {[](R& r) { r.icpDisAvgThread = 0.0F; }, "icpDisAvgThread"},
                        {[](R& r) { r.icpDisAvgFeatureThread = NOT_A_NUMBER; }, "icpDisAvgFeatureThread"},
                        {[](R& r) {
                             r.icpRataRay = {-0.1F, 1.0F};
                         },
                         "icpRataRay(0) icpRataRay(1)"},
                        {[](R& r) {
                             r.icpRataRayFeature = {0.5F, 0.4F};
                         },
                         "icpRataRayFeature(1)"},
                        {[](R& r) { r.icpParticleSize = -1.0F, r.disUniform = 0.0F; }, "icpParticleSize disUniform"}});
}

TEST(RecordCheck, NamesTheWrongFieldOfFusionParameter) {
    using R = FusionParameter;
    const auto withoutColor = [](R& r) {
        r.colorImageSize.setZero(), r.colorImageRange.setZero(), r.colorImagePar.setZero();
    };
    expect_findings<R>(
        check_fusion_parameter,
        {{[](R& r) { r.treeDepth = 9; }, "treeDepth"},
         {[](R& r) { r.treeDepth = 32; }, "treeDepth"},
         {[](R& r) { r.pointDis = NOT_A_NUMBER; }, "pointDis"},
         {[](R& r) {
              r.fusionDataSize = {100000, 0};
          },
          "fusionDataSize(0) fusionDataSize(1)"},
         {[](R& r) { r.currPointOffsetShow = INFINITE; }, "currPointOffsetShow"},
         {[](R& r) {
              r.viewBox = {500.0F, 400.0F};
          },
          "viewBox(1)"},
         {[](R& r) { r.fusionLimitNum = -1, r.fusionLimitNumFeature = -1; }, "fusionLimitNum fusionLimitNumFeature"},
         {[](R& r) {
              r.colorOnInvaildPoint = {0.0F, 1.0F, 255.0F};
          },
          "colorOnInvaildPoint(2)"},
         {[](R& r) { r.codeNumSet = 0; }, "codeNumSet"},
         {[](R& r) { r.codeNumSet = 257; }, "codeNumSet"},  // loops would clamp it
         {[](R& r) {
              r.colorImageRange = {-1, 5, 1281, 5};
          },
          "colorImageRange(0) colorImageRange(2) colorImageRange(3)"},
         {[](R& r) { r.colorImagePar(0, 0) = NOT_A_NUMBER; }, "colorImagePar colorImagePar"},
         {[](R& r) { r.colorImagePar(2, 1) = 1.0; }, "colorImagePar"},
         {[](R& r) { r.tranLeftToColor.set_rotation(-Matrix3d::Identity()); }, "tranLeftToColor"},
         {[](R& r) {
              r.tranLeftToColor.set_translation({0, 0, INFINITE});
          },
          "tranLeftToColor"},
         {[](R& r) {
              r.colorImageSize = {-5, 1024};
          },
          "colorImageRange(2) colorImageSize(0)"},
         {withoutColor, ""}});
}

TEST(RecordCheck, NamesTheWrongFieldOfTextureParam) {
    using R = TextureParam;
    expect_findings<R>(check_texture_param,
                       {{[](R& r) {
                             r.camera = {0.0F, NOT_A_NUMBER, INFINITE, 1.0F};
                         },
                         "camera(0) camera(1) camera(2)"},
                        {[](R& r) { r.featureCount = 0; }, "featureCount"},
                        {[](R& r) { r.trackerFlags[3] = 2, r.matchFlags[2] = 255; }, "trackerFlags(3) matchFlags(2)"},
                        {[](R& r) { r.trackerSettings.fill(-1), r.trackerToken = ~std::uint64_t{0}; }, ""}});
}

TEST(RecordCheck, SaysWhyWithTheValueFound) {
    TrackParmeter record;
    record.icpIterNum = 9;
    const std::vector<ParameterFinding> findings = check_track_parmeter(record);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].reason, "6 leaves fewer than 4 of icpIterNum = 9 iterations");
}

struct Counter {
    int value = 0;
    int* destroyed = nullptr;
    ~Counter() {
        if (destroyed) ++*destroyed;
    }
};

TEST(HandleFrame, NullTextsStandAsTheyAre) {
    const auto text = [](const NullText& nullText) {
        return printed([&] { on_handle<Counter>(nullptr, {"f", nullText}, [](Counter&) { FAIL(); }); });
    };
    EXPECT_EQ(text(null_text::FRAME_STEP), "fail because pFusionTrack == NULL\n");
    EXPECT_EQ(text(null_text::SESSION), "fail because pFusionTrack = NULL\n");
    EXPECT_EQ(text(null_text::CALL_BACK_SETTER), "can not run this function because pFusionTrack = NULL\n");
    EXPECT_EQ(text(null_text::ALGORITHM), "fail because pAlgorithmTemp == NULL \n");
    EXPECT_EQ(text(null_text::UTILITY), "fail because pTemp == NULL \n");
    EXPECT_EQ(text(null_text::FUSION_DEBUG),
              "cant not run function named shoule_we_debug_fusion because pTemp == NULL ");
    EXPECT_EQ(text(null_text::DEBUG_SEQ), "can not run function should_we_debug_seq, because pRebuild == NULL\n");
    EXPECT_EQ(text(null_text::SHOW_DEBUG_FILE), "can not run function show_debug_file, because hSpecReb == NULL \n");
    EXPECT_EQ(text(null_text::can_not_run("reset_Point_dis")),
              "can not run function reset_Point_dis because pFusionTrack = NULL\n");
    EXPECT_EQ(text(null_text::RELEASE), "can not run function fail fusiontrack_release because pFusionTrack = NULL\n");
    EXPECT_EQ(text(null_text::RELEASE_TEETH),
              "can not run function fusion_without_track_teeth because pFusionTrack = NULL\n");
}

TEST(HandleFrame, EveryResultTypeHasItsNullAndItsExceptionValue) {
    Counter counter{7};
    const Cloud empty;
    const RigidMatrix identity;
    const auto run = [&](void* handle, bool fails) {
        const ExportedFunction function{"step", null_text::SESSION};
        const auto body = [&](auto result) {
            return [=](Counter& object) -> decltype(result) {
                if (fails) throw std::runtime_error("disk full");
                ++object.value;
                return result;
            };
        };
        EXPECT_EQ((on_handle<Counter, RetVal>(handle, function, {RET_INI_ERROR, RET_RUN_FAIL}, body(RET_SUCCESS))),
                  !handle ? RET_INI_ERROR
                  : fails ? RET_RUN_FAIL
                          : RET_SUCCESS);
        EXPECT_EQ((on_handle<Counter, bool>(handle, function, {false, false}, body(true))), handle && !fails);
        const RigidMatrix pose = on_handle<Counter, RigidMatrix>(
            handle, function, {identity, identity}, body(RigidMatrix(Matrix3d::Identity(), Vector3d(1, 2, 3))));
        EXPECT_EQ(pose.get_translation(), handle && !fails ? Vector3d(1, 2, 3) : Vector3d(0, 0, 0));
        const Cloud shown;
        const Cloud& cloud =
            on_handle<Counter, const Cloud&>(handle, function, {empty, empty}, [&](Counter& object) -> const Cloud& {
                if (fails) throw std::runtime_error("disk full");
                ++object.value;
                return shown;
            });
        EXPECT_EQ(&cloud, handle && !fails ? &shown : &empty);
        on_handle<Counter>(handle, function, [&](Counter& object) {
            if (fails) throw std::runtime_error("disk full");
            ++object.value;
        });
    };
    const auto fiveTimes = [](const std::string& line) { return line + line + line + line + line; };

    EXPECT_EQ(printed([&] { run(nullptr, false); }), fiveTimes("fail because pFusionTrack = NULL\n"));
    EXPECT_EQ(printed([&] { run(&counter, true); }), fiveTimes("step failed: disk full\n"));
    EXPECT_EQ(counter.value, 7);
    EXPECT_EQ(printed([&] { run(&counter, false); }), "");
    EXPECT_EQ(counter.value, 12);
}

TEST(HandleFrame, WhateverIsThrownEndsInOneLine) {
    EXPECT_EQ(printed([] { EXPECT_EQ(guarded<int>("count", -1, []() -> int { throw 5; }), -1); }),
              "count failed: unknown exception\n");
    EXPECT_EQ(
        printed([] { EXPECT_EQ(guarded<void*>("make", nullptr, []() -> void* { throw std::bad_alloc(); }), nullptr); }),
        std::string("make failed: ") + std::bad_alloc().what() + "\n");
    EXPECT_EQ(printed([] { guarded("nothing", [] { throw "text"; }); }), "nothing failed: unknown exception\n");
}

TEST(HandleFrame, SecondReleaseSeesNull) {
    int destroyed = 0;
    void* handle = new Counter{0, &destroyed};
    const ExportedFunction release{"fusiontrack_release", null_text::RELEASE};
    EXPECT_EQ(printed([&] { EXPECT_EQ(release_handle<Counter>(handle, release, RET_INI_ERROR), RET_SUCCESS); }), "");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(printed([&] { EXPECT_EQ(release_handle<Counter>(handle, release, RET_INI_ERROR), RET_INI_ERROR); }),
              "can not run function fail fusiontrack_release because pFusionTrack = NULL\n");
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace VexelAlgorithm
