// Settings files: every field comes back to the last bit, and every kind of damage is named.
#include <gtest/gtest.h>

#include "apps/settingsFields.h"
#include "apps/settingsFile.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Apps;

/// Gives every field a value of its own that no preset has and that is hard to write exactly.
struct Scrambler {
    double next = 1.0 / 3.0;

    bool section(const char*, const char*) { return true; }
    template <class Value>
    void field(const char*, Value& value, const char*) {
        change(value);
    }
    double number() { return next = std::fmod(next * 7919.123456789, 1000.0) - 300.0; }
    void change(float& value) { value = static_cast<float>(number() * 1e-3); }
    void change(double& value) { value = number(); }
    void change(int& value) { value = static_cast<int>(number() * 2e6); }
    void change(bool& value) { value = !value; }
    void change(std::uint8_t& value) { value = value == 0 ? 1 : 0; }
    void change(std::uint32_t& value) { value = 4294967295u; }
    void change(std::uint64_t& value) { value = 18446744073709551615u; }
    void change(std::string& value) { value = "C:\\scan \"one\": # no comment, [ 1 ]\n\tk\xC3\xA4se 99999999999"; }
    void change(CameraInParam& camera) { camera.set_param(number(), number(), number(), 1e-300); }
    void change(RigidMatrix& rigid) {
        Matrix3d rotation = Matrix3d::NullaryExpr([&] { return number(); });
        rigid = {rotation, {number(), number(), number()}};
    }
    void change(std::vector<float>& values) {
        values.resize(5);
        for (float& value : values) change(value);
    }
    template <class Scalar, std::size_t Count>
    void change(std::array<Scalar, Count>& values) {
        for (Scalar& value : values) change(value);
    }
    template <class Scalar, int Rows, int Columns>
    void change(Eigen::Matrix<Scalar, Rows, Columns>& matrix) {
        for (Eigen::Index i = 0; i < matrix.size(); ++i) change(matrix.data()[i]);
    }
};

TEST(Settings, EveryFieldReadsBackToTheLastBit) {
    ScanSettings scrambled;
    Scrambler scrambler;
    visit_settings(scrambler, scrambled);
    const std::string text = settings_text(scrambled, "scrambled");
    for (const ScanSettings& start : {ScanSettings(), preset_settings("room"), preset_settings("object")}) {
        ScanSettings read = start;
        const Outcome<Done> outcome = read_settings_text(text, read);
        ASSERT_TRUE(outcome) << outcome.failure().reason;
        EXPECT_EQ(settings_text(read, "scrambled"), text);
        EXPECT_EQ(read.common.outputPath, scrambled.common.outputPath);
        EXPECT_EQ(read.texture.param.trackerToken, 18446744073709551615u);
        EXPECT_EQ(read.fusion.tranLeftToColor.get_rotation(), scrambled.fusion.tranLeftToColor.get_rotation());
        EXPECT_EQ(read.frame.inverseDepthStep, scrambled.frame.inverseDepthStep);
    }
}

TEST(Settings, PresetsAreSoundAndExplainThemselves) {
    for (const std::string& name : preset_names()) {
        const ScanSettings preset = preset_settings(name);
        for (const ParameterFinding& finding : check_settings(preset)) ADD_FAILURE() << finding.field << finding.reason;
        const std::string text = settings_text(preset, name);
        EXPECT_NE(text.find("   # edge of a voxel and spacing of output points, mm\n   pointDis: "), std::string::npos);
        ScanSettings read;
        ASSERT_TRUE(read_settings_text(text, read));
        EXPECT_EQ(settings_text(read, name), text);
    }
}

TEST(Settings, NamedFieldsReplaceAndTheRestStays) {
    for (const std::string start : {"", "%YAML:1.0\n---\n"}) {
        ScanSettings settings = preset_settings("room");
        const std::string text = start +
                                 "# mine\nfusion:\n  pointDis: 3   # mm\ntrack:\n   icpDis: [ 1.5,\n      2 ]\n"
                                 "common: { outputPath: \"99999999999\", deviceTag: 7 }\n";
        const Outcome<Done> read = read_settings_text(text, settings);
        ASSERT_TRUE(read) << read.failure().reason;
        EXPECT_EQ(settings.fusion.pointDis, 3.0f);
        EXPECT_EQ(settings.track.icpDis, Vector2f(1.5f, 2.0f));
        EXPECT_EQ(settings.common.outputPath, "99999999999");
        EXPECT_EQ(settings.common.deviceTag, 7u);
        EXPECT_EQ(settings.fusion.treeDepth, preset_settings("room").fusion.treeDepth);
    }
    ScanSettings settings;
    EXPECT_TRUE(read_settings_text("", settings) && read_settings_text("# nothing\n", settings));
}

TEST(Settings, SaysInOneSentenceWhatIsWrongAndChangesNothing) {
    const std::string brackets(60000, '[');
    const std::pair<std::string, const char*> cases[] = {
        {"tracks:\n   icpIterNum: 5\n", "no section 'tracks'"},
        {"track:\n   icpIter: 5\n", "section track has no field 'icpIter'"},
        {"track: 5\n", "section track holds no fields"},
        {"- 1\n- 2\n", "sections"},
        {"track:\n   icpIterNum: 5\n   icpIterNum: 6\n", "track.icpIterNum stands there twice"},
        {"track:\n   icpIterNum: 2.5\n", "track.icpIterNum: a whole number"},
        {"track:\n   icpIterNum: -0x1234567890\n", "icpIterNum: -0x1234567890 is beyond"},
        {"fusion:\n   fusionDataSize: [ 5, 99999999999999999999 ]\n", "fusionDataSize: 99999999999999999999 is beyond"},
        {"track:\n   icpDis: [ 1, 2, 3 ]\n", "track.icpDis: a list of 2 numbers"},
        {"track:\n   icpDis: [ 1, x ]\n", "track.icpDis: entry 1: a number"},
        {"track:\n   icpDisAvgThread: .Nan\n", "track.icpDisAvgThread: a finite number"},
        {"track:\n   icpDisAvgThread: 1e39\n", "track.icpDisAvgThread: the number is too large"},
        {"common:\n   deviceTag: \"4294967296\"\n", "common.deviceTag: a whole number from 0 to 4294967295"},
        {"common:\n   outputPath: 7\n", "common.outputPath: a text"},
        {"texture:\n   isUsed: 2\n", "texture.isUsed: 0 or 1"},
        {"texture:\n   matchFlags: [ 0, 1, 300 ]\n", "texture.matchFlags: entry 2: 0 or 1"},
        {"fusion:\n   pointDis: 1\n   treeDepth: [ 1, \n", "line "},
        {"fusion:\n\tpointDis: 1\n", "a tab"},
        {std::string("fusion:\n  pointDis: 1\0 \n", 24), "control character"},
        {"fusion:\n   pointDis: " + brackets, "more brackets"},
        {"<?xml version=\"1.0\"?><opencv_storage></opencv_storage>", ""},
    };
    for (const auto& [text, reason] : cases) {
        SCOPED_TRACE(text.substr(0, 80));
        ScanSettings settings = preset_settings("object");
        const std::string before = settings_text(settings, "");
        const Outcome<Done> read = read_settings_text(text, settings);
        ASSERT_FALSE(read);
        EXPECT_NE(read.failure().reason.find(reason), std::string::npos) << read.failure().reason;
        EXPECT_EQ(read.failure().reason.find('\n'), std::string::npos);
        EXPECT_EQ(settings_text(settings, ""), before);
    }
}

TEST(Settings, FindingsNameTheFieldWithItsSection) {
    ScanSettings settings = preset_settings("room");
    ASSERT_TRUE(
        read_settings_text("common:\n   imageSize: [ -1, 480 ]\ntexture:\n   featureCount: 0\n"
                           "frame:\n   farthest: 50\n   normalWindow: 64\n",
                           settings));
    std::string found = " ";
    for (const ParameterFinding& finding : check_settings(settings)) found += finding.field + ' ';
    for (const char* field :
         {" common.imageSize(0) ", " texture.featureCount ", " frame.farthest ", " frame.normalWindow "})
        EXPECT_NE(found.find(field), std::string::npos) << field << found;
}

}  // namespace
