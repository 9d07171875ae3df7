#include "apps/ScanSettings.h"

#include <algorithm>

#include "recording/numberText.h"

namespace VexelAlgorithm::Apps {
namespace {

bool is_zero(const CameraInParam& camera) {
    return camera.get_fx() == 0.0 && camera.get_fy() == 0.0 && camera.get_cx() == 0.0 && camera.get_cy() == 0.0;
}

ScanSettings without_device() {
    ScanSettings settings;
    settings.common.imageSize.setZero();
    settings.common.campar = CameraInParam();
    settings.common.colorImageSize.setZero();
    settings.common.sample = 1;
    settings.fusion.colorImageSize.setZero();
    settings.rig.rebuild.imgSize.setZero();
    settings.rig.rebuild.imageRange.setZero();
    return settings;
}

ScanSettings room_settings() {
    ScanSettings settings = without_device();
    settings.common.rawPointDis = 3.5F;
    settings.track.icpIterNum = 20;
    settings.track.icpInterNumFixed = 8;
    settings.track.icpDis = {20.0F, 60.0F};
    settings.track.icpDisFeature = {30.0F, 100.0F};
    settings.track.icpDisAvgThread = 15.0F;
    settings.track.icpDisAvgFeatureThread = 15.0F;
    settings.track.icpParticleSize = 30.0F;
    settings.track.disUniform = 25.0F;
    settings.fusion.treeDepth = 11;
    settings.fusion.pointDis = 5.0F;
    settings.fusion.fusionDataSize = {9, 2};
    settings.fusion.viewBox = {400.0F, 6000.0F};
    settings.session.icpKeepRatio = {0.9F, 0.97F};
    return settings;
}

/// An object of some 100 mm before a scanner of some 0.1 mm noise, 640 x 512 points a frame. The smallest eigenvalue of
/// a view of things is then 4000 and more, that of a noisy bare plane at most 700.
ScanSettings small_object() {
    ScanSettings settings = without_device();
    settings.common.rawPointDis = 0.4F;
    settings.track.icpIterNum = 26;
    settings.track.icpInterNumFixed = 12;
    settings.fusion.treeDepth = 11;
    settings.fusion.pointDis = 0.5F;
    settings.fusion.viewBox = {150.0F, 1000.0F};
    settings.session.icpStableThreadhold = 1000.0F;
    return settings;
}

ScanSettings object_settings() {
    ScanSettings settings = small_object();
    settings.frame.inverseDepthStep = 1e-6F;
    return settings;
}

ScanSettings desk_settings() {
    ScanSettings settings = small_object();
    settings.common.sample = settings.rig.rebuild.sampleRatio;
    settings.rig.depthRange = {300.0F, 520.0F};
    settings.rig.rebuild.subPixMatchWin = {9, 9};  // fusion averages the noise that larger windows would
    return settings;
}

class Findings {
public:
    void add(const char* section, const std::vector<ParameterFinding>& found) {
        for (const ParameterFinding& finding : found) _all.push_back({section + finding.field, finding.reason});
    }
    void within(const char* field, double value, double low, double high) {
        if (value >= low && value <= high) return;
        _all.push_back(
            {field, number_text(value) + " is not between " + number_text(low) + " and " + number_text(high)});
    }
    std::vector<ParameterFinding> take() { return std::move(_all); }

private:
    std::vector<ParameterFinding> _all;
};

void check_frame(Findings& findings, const DepthFrameSettings& frame) {
    findings.within("frame.nearest", frame.nearest, 1.0, 65533.0);
    findings.within("frame.farthest", frame.farthest, frame.nearest, 65534.0);
    findings.within("frame.inverseDepthStep", frame.inverseDepthStep, 0.0, 1.0);
    findings.within("frame.smallestStep", frame.smallestStep, 0.0, 1e6);
    findings.within("frame.edgeJump", frame.edgeJump, 0.0, 1e6);
    findings.within("frame.edgeMargin", frame.edgeMargin, 0.0, 64.0);
    findings.within("frame.smallestIsland", frame.smallestIsland, 0.0, 1e9);
    findings.within("frame.smoothingRadius", frame.smoothingRadius, 0.0, 16.0);
    findings.within("frame.normalStep", frame.normalStep, 1.0, 16.0);
    findings.within("frame.normalWindow", frame.normalWindow, frame.normalStep, 16.0 * frame.normalStep);
}

void check_window(Findings& findings, const char* field, const Vector2i& window) {
    if ((window.array() >= 3).all() && (window.array() <= 63).all() && window.x() % 2 == 1 && window.y() % 2 == 1)
        return;
    findings.add("", {{field, "both sides must be odd, from 3 to 63"}});
}

void check_camera_vector(Findings& findings, const char* field, const std::vector<float>& values) {
    if (values.empty() || values.size() == 22) return;
    findings.add("", {{field, "has " + std::to_string(values.size()) + " values where a camera has 22"}});
}

void check_rig(Findings& findings, const RigSettings& rig) {
    const RebParam& rebuild = rig.rebuild;
    if (!rig.depthRange.isZero()) {
        findings.within("rig.depthRange(0)", rig.depthRange(0), 1.0, 65533.0);
        findings.within("rig.depthRange(1)", rig.depthRange(1), std::max(rig.depthRange(0), 1.0F), 65534.0);
    } else if (rebuild.findRange(0) >= rebuild.findRange(1)) {
        findings.add("rig.", {{"findRange(1)", "is not above findRange(0)"}});
    }
    if (!rebuild.imgSize.isZero()) {
        findings.within("rig.imgSize(0)", rebuild.imgSize(0), 16, 16384);
        findings.within("rig.imgSize(1)", rebuild.imgSize(1), 16, 16384);
    }
    findings.within("rig.sampleRatio", rebuild.sampleRatio, 1, 16);
    findings.within("rig.gradientTh(0)", rebuild.gradientTh(0), 0, 255);
    findings.within("rig.gradientTh(1)", rebuild.gradientTh(1), 0, 255);
    check_window(findings, "rig.pixMatchWin", rebuild.pixMatchWin);
    check_window(findings, "rig.subPixMatchWin", rebuild.subPixMatchWin);
    const Vector4i& range = rebuild.imageRange;
    if (!range.isZero() && (range(0) >= range(1) || range(2) >= range(3)))
        findings.add("rig.", {{"imageRange", "is empty or inverted"}});
    findings.within("rig.edgeMargin", rig.edgeMargin, 0, 64);
    findings.within("rig.edgeJump", rig.edgeJump, 0.0, 1e6);
    findings.within("rig.smallestPiece", rig.smallestPiece, 0, 1e9);
    check_camera_vector(findings, "rig.leftCalib", rebuild.leftCalib);
    check_camera_vector(findings, "rig.rightCalib", rebuild.rightCalib);
}

/// A record in which the zeros that stand for the recording's values are replaced by some that pass.
CommonParameter with_some_device(CommonParameter common) {
    const CommonParameter usual;
    if (common.imageSize.isZero()) common.imageSize = usual.imageSize;
    if (is_zero(common.campar)) common.campar = usual.campar;
    return common;
}

}  // namespace

std::vector<std::string> preset_names() {
    return {"room", "object", "desk"};
}

ScanSettings preset_settings(const std::string& name) {
    if (name == "desk") return desk_settings();
    return name == "object" ? object_settings() : room_settings();
}

void fill_in(ScanSettings& settings, const Recording& recording, const std::string& folder) {
    CommonParameter& common = settings.common;
    const ImageSize size = recording.image_size();
    if (common.imageSize.isZero()) common.imageSize = {size.width, size.height};
    if (is_zero(common.campar)) common.campar = recording.camera();
    if (common.outputPath.empty()) common.outputPath = folder;
}

std::vector<ParameterFinding> check_settings(const ScanSettings& settings) {
    Findings findings;
    findings.add("common.", check_common_parameter(with_some_device(settings.common)));
    findings.add("track.", check_track_parmeter(settings.track));
    findings.add("fusion.", check_fusion_parameter(settings.fusion));
    findings.within("session.icpStableThreadhold", settings.session.icpStableThreadhold, 0.0, 1e30);
    for (const float share : settings.session.icpKeepRatio) findings.within("session.icpKeepRatio", share, 0.01, 0.99);
    findings.add("texture.", check_texture_param(settings.texture.param));
    check_frame(findings, settings.frame);
    check_rig(findings, settings.rig);
    return findings.take();
}

}  // namespace VexelAlgorithm::Apps
