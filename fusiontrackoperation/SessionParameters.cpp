#include "fusiontrackoperation/SessionParameters.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "foundation/parameterCheck.h"

namespace VexelAlgorithm {
namespace {

constexpr int MOST_SLOTS = 1 << 24;  // an image takes 30 bytes a slot, and a session holds half a dozen
constexpr int PARTICLE_POINTS = 10000;
constexpr int MOST_ITERATIONS = 1000;
constexpr int DEEPEST_TREE = 20;
constexpr int LARGEST_FUSION_RANGE = 63;
constexpr int LARGEST_NORMAL_STEP = 64;

std::optional<std::string> first_about(const std::vector<ParameterFinding>& findings,
                                       std::initializer_list<std::string_view> fields) {
    for (const ParameterFinding& finding : findings) {
        for (const std::string_view field : fields) {
            if (finding.field.compare(0, field.size(), field) == 0) return finding.field + ": " + finding.reason;
        }
    }
    return std::nullopt;
}

std::optional<std::string> first_not_finite(const TrackParmeter& track) {
    if (!track.icpDis.allFinite()) return "icpDis: a value is not a finite number";
    if (!std::isfinite(track.icpDisAvgThread)) return "icpDisAvgThread: the value is not a finite number";
    if (!track.icpRataRay.allFinite()) return "icpRataRay: a value is not a finite number";
    if (!std::isfinite(track.icpParticleSize)) return "icpParticleSize: the value is not a finite number";
    return std::nullopt;
}

Vector2i frame_size(const CommonParameter& common) {
    return common.imageSize / common.sample;
}

void replace(const char* field, int& value, int permitted) {
    if (value == permitted) return;
    print_line(format_text("fusion_and_track_ini: %s = %d is out of its range, %d is used", field, value, permitted));
    value = permitted;
}

void replace_unusable_display_settings(FusionParameter& fusion) {
    const FusionParameter usual;
    const Vector2f& box = fusion.viewBox;
    if (!box.allFinite() || box.x() < 0.0F || box.y() <= box.x()) {
        print_line("fusion_and_track_ini: viewBox is not a range of distances, the default is used");
        fusion.viewBox = usual.viewBox;
    }
    if (!fusion.colorOnInvaildPoint.allFinite()) {
        print_line("fusion_and_track_ini: colorOnInvaildPoint is not finite, the default is used");
        fusion.colorOnInvaildPoint = usual.colorOnInvaildPoint;
    }
}

}  // namespace

float SessionParameters::particle_gate() const {
    return std::max(track.icpDis(1), 1.8F * track.icpParticleSize);
}

float SessionParameters::interval_factor(int fusionRange) const {
    return std::max(fixed.intervalFactor, static_cast<float>(fusionRange));
}

float SessionParameters::normal_reach(float pointDis) const {
    const auto reach = static_cast<float>(fusion.fusionDataSize(1) + 1);
    return 3.0F * reach * std::max(pointDis, std::isfinite(common.rawPointDis) ? common.rawPointDis : 0.0F);
}

float SessionParameters::agreement_tolerance() const {
    return std::max(track.icpDisFeature(0), 0.5F * fusion.pointDis);
}

std::optional<std::string> find_unusable(const CommonParameter& common, const TrackParmeter& track) {
    if (auto reason = first_about(check_common_parameter(common), {"imageSize", "sample", "campar"})) return reason;
    const Vector2i size = frame_size(common);
    if (std::int64_t{size.x()} * size.y() > MOST_SLOTS) return "imageSize: the image has too many pixels";
    if (auto reason = first_not_finite(track)) return reason;
    if (track.icpIterNum > MOST_ITERATIONS) return first_about(check_track_parmeter(track), {"icpIterNum"});
    return std::nullopt;
}

SessionParameters make_session_parameters(const CommonParameter& common, const TrackParmeter& track,
                                          const FusionParameter& fusion, const FixedParameters& fixed) {
    SessionParameters parameters;
    parameters.common = common;
    parameters.track = track;
    parameters.fusion = fusion;
    parameters.fixed = fixed;
    parameters.imageSize = frame_size(common);
    parameters.camera = common.campar.scaled_down(common.sample);
    // Odd, so that the columns of the image take turns.
    parameters.particleStep = std::max(parameters.imageSize.prod() / PARTICLE_POINTS, 1) | 1;
    parameters.icpLimitNum = std::max(fusion.fusionLimitNum, fixed.icpLimitLowerBound);
    parameters.icpLimitNumFeature = std::max(fusion.fusionLimitNumFeature, fixed.icpLimitLowerBound);

    replace("icpInterNumFixed", parameters.track.icpInterNumFixed, std::max(track.icpInterNumFixed, 0));
    FusionParameter& used = parameters.fusion;
    // Lower values are raised by the volume, as they always have been, without a word.
    replace("treeDepth", used.treeDepth, std::min(used.treeDepth, DEEPEST_TREE));
    replace("fusionDataSize(0)", used.fusionDataSize(0), std::min(used.fusionDataSize(0), LARGEST_FUSION_RANGE));
    replace("fusionDataSize(1)", used.fusionDataSize(1), std::clamp(used.fusionDataSize(1), 1, LARGEST_NORMAL_STEP));
    replace("codeNumSet", used.codeNumSet, std::min(used.codeNumSet, MaxThreads));
    used.codeNumSet = std::max(used.codeNumSet, 1);
    replace_unusable_display_settings(used);
    return parameters;
}

}  // namespace VexelAlgorithm
