// Parameter records: exact text, advice of the checks; the handle frame: null texts, nothing thrown.
#include <stdexcept>

#include "foundation/Cloud.h"
#include "foundation/handle.h"
#include "foundation/parameterCheck.h"
#include "foundation/parameterPrint.h"
#include "tests/common.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelTest;

// The defaults, but for fields that equal others or that show how numbers are written.
TEST(RecordPrint, EveryFieldUnderItsLabel) {
    CommonParameter common;
    common.colorImageSize << 2592, 1944;
    common.outputPath = "C:/debug out/", common.deviceTag = 4711, common.scanType = -3;
    common.campar.set_param(2300.5, 2301.0, 640.1234567, 1e7);
    EXPECT_EQ(printed([&] { print_parameter(common); }),
              "\n\n\ncommon parameter output\nimageSize = 1280\t1024\ncolorImageSize = 2592\t1944\nsample = 2\n"
              "rawPointDis = 0.4\noutputPath = C:/debug out/\nscanType = -3\n"
              "campar = 2300.5\t2301\t640.123\t1e+07\n");

    TrackParmeter track;
    track.icpDisAvgFeatureThread = kNaN, track.disUniform = 1e-5F;
    track.icpRataRayFeature << 0.0F, 0.95F;
    EXPECT_EQ(printed([&] { print_parameter(track); }),
              "\n\n\nTrackParmeter output\nicpIterNum = 20\nicpInterNumFixed = 6\nicpDis = 1\t6\n"
              "icpDisFeature = 1\t10\nicpDisAvgThread = 0.5\nicpDisAvgFeatureThread = nan\nicpRataRay = 0.15\t0.3\n"
              "icpRataRayFeature = 0\t0.95\nicpParticleSize = 10\ndisUniform = 1e-05\n");

    FusionParameter fusion;
    fusion.codeNumSet = 2, fusion.currPointOffsetShow = -0.2F, fusion.fusionLimitNumFeature = 2500;
    fusion.colorOnInvaildPoint << 0.5F, 0.25F, 1.0F;
    fusion.colorImageRange << 10, 20, 1270, 1000;
    fusion.colorImagePar(1, 1) = 2000.5;
    fusion.tranLeftToColor = {(Matrix3d() << 0, -1, 0, 1, 0, 0, 0, 0, 1).finished(), {30.25, -1.5, 0}};
    EXPECT_EQ(
        printed([&] { print_parameter(fusion); }),
        "\n\n\nFusionParameter output\ntreeDepth = 12\npointDis = 0.5\nfusionDataSize = 5\t2\n"
        "currPointOffsetShow = -0.2\nviewBox = 200\t1500\nfusionLimitNum = 1500\nfusionLimitNumFeature = 2500\n"
        "color on Invaild Point = 0.5\t0.25\t1\ncodeNumSet = 2\n"
        "colorImageRange(0) = 10\tcolorImageRange(1) = 20\tcolorImageRange(2) = 1270\tcolorImageRange(3) = 1000\t\n"
        "colorImagePar\n2000\t0\t639.5\n0\t2000.5\t511.5\n0\t0\t1\n\n"
        "tranLeftToColor \n0\t-1\t0\n1\t0\t0\n0\t0\t1\n30.25\t-1.5\t0\n\n"
        "colorImageSize(0) =  1280\tcolorImageSize(1) =  1024\n");
}

/// The names of the fields, blank between them.
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
    std::string findings;
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

TEST(RecordCheck, NamesTheWrongFields) {
    constexpr int LARGEST = std::numeric_limits<int>::max();
    expect_findings<CommonParameter>(
        check_common_parameter,
        {{[](auto& r) { r.rawPointDis = kInfinity, r.imageSize << 0, 1 << 30; },
          "imageSize(0) imageSize(1) sample rawPointDis"},
         {[](auto& r) { r.colorImageSize << 0, 0; }, ""},
         {[](auto& r) { r.sample = 0, r.colorImageSize << 640, 0; }, "colorImageSize(1) sample"},
         {[](auto& r) { r.sample = LARGEST, r.campar.set_param(0, -1, kNaN, kInfinity); },
          "sample campar(fx) campar(fy) campar(cx) campar(cy)"}});
    expect_findings<TrackParmeter>(
        check_track_parmeter,
        {{[](auto& r) { r.icpIterNum = LARGEST, r.icpInterNumFixed = -LARGEST; }, "icpIterNum icpInterNumFixed"},
         {[](auto& r) { r.icpIterNum = 9, r.icpInterNumFixed = 6, r.icpDis << 2.0F, 1.0F; },
          "icpInterNumFixed icpDis(1)"},
         {[](auto& r) { r.icpIterNum = 10, r.icpInterNumFixed = 6, r.icpDis << 2.0F, 2.0F; }, ""},
         {[](auto& r) {
              r.icpDisFeature << kNaN, 1.0F;
              r.icpDisAvgThread = 0.0F, r.icpDisAvgFeatureThread = kNaN;
              r.icpRataRay << -0.1F, 1.0F;
              r.icpRataRayFeature << 0.5F, 0.4F;
              r.icpParticleSize = -1.0F, r.disUniform = 0.0F;
          },
          "icpDisFeature(0) icpDisAvgThread icpDisAvgFeatureThread icpRataRay(0) icpRataRay(1) icpRataRayFeature(1) "
          "icpParticleSize disUniform"}});
    expect_findings<FusionParameter>(
        check_fusion_parameter,
        {{[](auto& r) {
              r.treeDepth = 9, r.pointDis = kNaN, r.codeNumSet = 0, r.fusionDataSize << 100000, 0;
              r.currPointOffsetShow = kInfinity, r.fusionLimitNum = r.fusionLimitNumFeature = -1;
          },
          "treeDepth pointDis fusionDataSize(0) fusionDataSize(1) currPointOffsetShow fusionLimitNum "
          "fusionLimitNumFeature codeNumSet"},
         {[](auto& r) {
              r.treeDepth = 32, r.codeNumSet = 257, r.viewBox << 500.0F, 400.0F;
              r.colorOnInvaildPoint << 0.0F, 1.0F, 255.0F;
              r.colorImageRange << -1, 5, 1281, 5;
          },
          "treeDepth viewBox(1) colorOnInvaildPoint(2) codeNumSet colorImageRange(0) colorImageRange(2) "
          "colorImageRange(3)"},
         {[](auto& r) { r.colorImagePar(0, 0) = kNaN; }, "colorImagePar colorImagePar"},
         {[](auto& r) { r.colorImagePar(2, 1) = 1.0, r.tranLeftToColor.set_rotation(-Matrix3d::Identity()); },
          "colorImagePar tranLeftToColor"},
         {[](auto& r) { r.tranLeftToColor.get_translation().z() = kInfinity; }, "tranLeftToColor"},
         {[](auto& r) { r.colorImageSize << -5, 1024; }, "colorImageRange(2) colorImageSize(0)"},
         {[](auto& r) { r.colorImageSize.setZero(), r.colorImageRange.setZero(), r.colorImagePar.setZero(); }, ""}});
    expect_findings<TextureParam>(
        check_texture_param, {{[](auto& r) {
                                   r.camera = {0.0F, kNaN, kInfinity, 1.0F};
                                   r.featureCount = 0, r.trackerFlags[3] = 2, r.matchFlags[2] = 255;
                               },
                               "camera(0) camera(1) camera(2) featureCount trackerFlags(3) matchFlags(2)"},
                              {[](auto& r) { r.trackerSettings.fill(-1), r.trackerToken = ~std::uint64_t{0}; }, ""}});
    TrackParmeter record;
    record.icpIterNum = 9;
    EXPECT_EQ(check_track_parmeter(record).front().reason, "6 leaves fewer than 4 of icpIterNum = 9 iterations");
}

TEST(HandleFrame, NullAndExceptionGiveTheirLineAndValue) {
    int steps = 7;
    const Cloud empty, shown;
    const auto run = [&](void* handle, bool fails) {
        const ExportedFunction function{"step", null_text::SESSION};
        const auto step = [&](int& object) {
            if (fails) throw std::runtime_error("disk full");
            ++object;
        };
        const auto result = on_handle<int, RetVal>(handle, function, {RET_INI_ERROR, RET_RUN_FAIL},
                                                   [&](int& object) { return step(object), RET_SUCCESS; });
        EXPECT_EQ(result, !handle ? RET_INI_ERROR : fails ? RET_RUN_FAIL : RET_SUCCESS);
        const Cloud& cloud = on_handle<int, const Cloud&>(
            handle, function, {empty, empty}, [&](int& object) -> const Cloud& { return step(object), shown; });
        EXPECT_EQ(&cloud, handle && !fails ? &shown : &empty);
        on_handle<int>(handle, function, step);
    };
    const auto thrice = [](const std::string& line) { return line + line + line; };
    EXPECT_EQ(printed([&] { run(nullptr, false); }), thrice("fail because pFusionTrack = NULL\n"));
    EXPECT_EQ(printed([&] { run(&steps, true); }), thrice("step failed: disk full\n"));
    EXPECT_EQ(steps, 7);
    EXPECT_EQ(printed([&] { run(&steps, false); }), "");
    EXPECT_EQ(steps, 10);
    EXPECT_EQ(outcome([] { return guarded<int>("count", -1, []() -> int { throw 5; }); }),
              std::pair(-1, std::string("count failed: unknown exception\n")));
    EXPECT_EQ(printed([] { guarded("nothing", [] { throw "text"; }); }), "nothing failed: unknown exception\n");
}

}  // namespace
