#include "foundation/parameterCheck.h"

#include <Eigen/Geometry>
#include <cmath>
#include <locale>
#include <sstream>
#include <utility>

#include "foundation/handle.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr int MAX_IMAGE_EDGE = 32768;  // the slots of one image then still have int indices
constexpr int MIN_TREE_DEPTH = 10;
constexpr int MAX_TREE_DEPTH = 20;  // 2^20 voxels an axis; a float coordinate resolves 1/16 voxel there
constexpr int MAX_ITERATIONS = 1000;
constexpr int MIN_FINE_ITERATIONS = 4;
constexpr int MAX_FUSION_RANGE = 63;  // a quarter of a million voxels a point
constexpr int MAX_NORMAL_STEP = 64;
constexpr double ROTATION_TOLERANCE = 1e-3;  // largest entry of R^T R - I

class Findings {
public:
    template <class... Parts>
    void require(bool isRight, const std::string& field, const Parts&... reason) {
        if (isRight) return;
        std::ostringstream text;
        text.imbue(std::locale::classic());
        (text << ... << reason);
        _list.push_back({field, text.str()});
    }

    void positive(const std::string& field, double value) {
        require(value > 0.0 && std::isfinite(value), field, value, " is not a positive finite number");
    }
    void finite(const std::string& field, double value) {
        require(std::isfinite(value), field, value, " is not a finite number");
    }
    void within(const std::string& field, double value, double low, double high) {
        require(value >= low && value <= high, field, value, " is not between ", low, " and ", high);
    }
    void flags(const std::string& field, const std::uint8_t* values, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            require(values[i] <= 1, indexed(field, static_cast<int>(i)), static_cast<int>(values[i]),
                    " is neither 0 nor 1");
        }
    }

    /// Both entries must pass `range`, and the second must not be smaller than the first.
    template <class Range>
    void ordered_pair(const std::string& field, const Vector2f& pair, Range&& range) {
        range(indexed(field, 0), pair(0));
        range(indexed(field, 1), pair(1));
        require(!(pair(1) < pair(0)), indexed(field, 1), pair(1), " is smaller than ", field, "(0) = ", pair(0));
    }

    void image_size(const std::string& field, const Vector2i& size) {
        within(indexed(field, 0), size(0), 1, MAX_IMAGE_EDGE);
        within(indexed(field, 1), size(1), 1, MAX_IMAGE_EDGE);
    }

    std::vector<ParameterFinding> take() { return std::move(_list); }

    static std::string indexed(const std::string& field, int index) {
        return field + '(' + std::to_string(index) + ')';
    }

private:
    std::vector<ParameterFinding> _list;
};

template <class Check>
std::vector<ParameterFinding> collect(const char* function, Check&& check) noexcept {
    return guarded<std::vector<ParameterFinding>>(function, {}, [&] {
        Findings findings;
        check(findings);
        return findings.take();
    });
}

bool has_color_camera(const Vector2i& colorImageSize) {
    return colorImageSize != Vector2i(0, 0);
}

void check_camera(Findings& findings, const CameraInParam& camera) {
    findings.positive("campar(fx)", camera.get_fx());
    findings.positive("campar(fy)", camera.get_fy());
    findings.finite("campar(cx)", camera.get_cx());
    findings.finite("campar(cy)", camera.get_cy());
}

void check_share_pair(Findings& findings, const std::string& field, const Vector2f& shares) {
    findings.ordered_pair(field, shares, [&](const std::string& entry, float share) {
        findings.require(share >= 0.0F && share < 1.0F, entry, share, " is not a fraction of at least 0 and below 1");
    });
}

void check_gate_pair(Findings& findings, const std::string& field, const Vector2f& gates) {
    findings.ordered_pair(field, gates, [&](const std::string& entry, float gate) { findings.positive(entry, gate); });
}

void check_color_range(Findings& findings, const Vector4i& range, const Vector2i& size) {
    for (int axis = 0; axis < 2; ++axis) {
        const int low = range(axis);
        const int high = range(axis + 2);
        findings.require(low >= 0, Findings::indexed("colorImageRange", axis), low, " is negative");
        findings.require(high > low && high <= size(axis), Findings::indexed("colorImageRange", axis + 2), high,
                         " is not above ", low, " and within the image edge of ", size(axis));
    }
}

void check_color_camera_matrix(Findings& findings, const Matrix3d& matrix) {
    findings.require(matrix.allFinite(), "colorImagePar", "an entry is not a finite number");
    findings.require(matrix(0, 0) > 0.0 && matrix(1, 1) > 0.0, "colorImagePar", "the focal lengths ", matrix(0, 0),
                     " and ", matrix(1, 1), " are not both positive");
    findings.require(matrix(1, 0) == 0.0 && matrix(2, 0) == 0.0 && matrix(2, 1) == 0.0 && matrix(2, 2) == 1.0,
                     "colorImagePar", "it is not of the form [fx s cx; 0 fy cy; 0 0 1]");
}

void check_rigid(Findings& findings, const std::string& field, const RigidMatrix& transform) {
    if (!transform.is_finite()) {
        findings.require(false, field, "an entry is not a finite number");
        return;
    }
    const Matrix3d& rotation = transform.get_rotation();
    const Matrix3d deviation = rotation.transpose() * rotation - Matrix3d::Identity();
    const double handedness = rotation.col(0).cross(rotation.col(1)).dot(rotation.col(2));
    findings.require(deviation.cwiseAbs().maxCoeff() <= ROTATION_TOLERANCE && handedness > 0.0, field,
                     "its matrix is not a rotation");
}

}  // namespace

std::vector<ParameterFinding> check_common_parameter(const CommonParameter& record) noexcept {
    return collect("check_common_parameter", [&](Findings& findings) {
        findings.image_size("imageSize", record.imageSize);
        if (has_color_camera(record.colorImageSize)) findings.image_size("colorImageSize", record.colorImageSize);
        findings.require(record.sample >= 1 && record.sample <= record.imageSize.minCoeff(), "sample", record.sample,
                         " is not between 1 and the smaller edge of imageSize");
        findings.positive("rawPointDis", record.rawPointDis);
        check_camera(findings, record.campar);
    });
}

std::vector<ParameterFinding> check_track_parmeter(const TrackParmeter& record) noexcept {
    return collect("check_track_parmeter", [&](Findings& findings) {
        findings.within("icpIterNum", record.icpIterNum, 1, MAX_ITERATIONS);
        findings.require(record.icpInterNumFixed >= 0, "icpInterNumFixed", record.icpInterNumFixed, " is negative");
        findings.require(std::int64_t{record.icpIterNum} - record.icpInterNumFixed >= MIN_FINE_ITERATIONS,
                         "icpInterNumFixed", record.icpInterNumFixed, " leaves fewer than ", MIN_FINE_ITERATIONS,
                         " of icpIterNum = ", record.icpIterNum, " iterations");
        check_gate_pair(findings, "icpDis", record.icpDis);
        check_gate_pair(findings, "icpDisFeature", record.icpDisFeature);
        findings.positive("icpDisAvgThread", record.icpDisAvgThread);
        findings.positive("icpDisAvgFeatureThread", record.icpDisAvgFeatureThread);
        check_share_pair(findings, "icpRataRay", record.icpRataRay);
        check_share_pair(findings, "icpRataRayFeature", record.icpRataRayFeature);
        findings.positive("icpParticleSize", record.icpParticleSize);
        findings.positive("disUniform", record.disUniform);
    });
}

std::vector<ParameterFinding> check_fusion_parameter(const FusionParameter& record) noexcept {
    return collect("check_fusion_parameter", [&](Findings& findings) {
        findings.within("treeDepth", record.treeDepth, MIN_TREE_DEPTH, MAX_TREE_DEPTH);
        findings.positive("pointDis", record.pointDis);
        findings.within("fusionDataSize(0)", record.fusionDataSize(0), 1, MAX_FUSION_RANGE);
        findings.within("fusionDataSize(1)", record.fusionDataSize(1), 1, MAX_NORMAL_STEP);
        findings.finite("currPointOffsetShow", record.currPointOffsetShow);
        check_gate_pair(findings, "viewBox", record.viewBox);
        findings.require(record.fusionLimitNum >= 0, "fusionLimitNum", record.fusionLimitNum, " is negative");
        findings.require(record.fusionLimitNumFeature >= 0, "fusionLimitNumFeature", record.fusionLimitNumFeature,
                         " is negative");
        for (int i = 0; i < 3; ++i) {
            findings.within(Findings::indexed("colorOnInvaildPoint", i), record.colorOnInvaildPoint(i), 0.0, 1.0);
        }
        findings.within("codeNumSet", record.codeNumSet, 1, MaxThreads);
        if (!has_color_camera(record.colorImageSize)) return;
        check_color_range(findings, record.colorImageRange, record.colorImageSize);
        check_color_camera_matrix(findings, record.colorImagePar);
        check_rigid(findings, "tranLeftToColor", record.tranLeftToColor);
        findings.image_size("colorImageSize", record.colorImageSize);
    });
}

std::vector<ParameterFinding> check_texture_param(const TextureParam& record) noexcept {
    return collect("check_texture_param", [&](Findings& findings) {
        findings.positive("camera(0)", record.camera[0]);
        findings.positive("camera(1)", record.camera[1]);
        findings.finite("camera(2)", record.camera[2]);
        findings.finite("camera(3)", record.camera[3]);
        findings.require(record.featureCount >= 1, "featureCount", record.featureCount, " is below 1");
        findings.flags("trackerFlags", record.trackerFlags.data(), record.trackerFlags.size());
        findings.flags("matchFlags", record.matchFlags.data(), record.matchFlags.size());
    });
}

}  // namespace VexelAlgorithm
