// Finds the scanner again after tracking was lost.
#include "foundation/diagnostics.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/modelSamples.h"
#include "fusiontrackoperation/motionTests.h"
#include "fusiontrackoperation/refusal.h"
#include "fusiontrackoperation/viewAgreement.h"
#include "platform/featureRegistration.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t MOST_OCTETS = std::size_t{1} << 18;

// At right poses of virtual scans nine tenths of a frame and more are explained and less than 0.01 is contradicted; at
// wrong ones, table and object resting on it again, 0.1 and more. Less is explained where the frame sees beyond what
// was scanned.
constexpr double LEAST_EXPLAINED = 0.6;
constexpr double MOST_CONTRADICTED = 0.04;
// The prediction of ordinary tracking is guided by the frame before, which is off at depth edges by the motion since:
// up to 0.05 at right poses.
constexpr double MOST_CONTRADICTED_WHEN_TRACKED = 0.1;

std::unique_ptr<Track::IcpBaseOnCam> make_feature_icp(const SessionParameters& p) {
    return std::make_unique<Track::IcpBaseOnCam>(p.track.icpIterNum, p.track.icpInterNumFixed, p.track.icpDisFeature,
                                                 p.track.icpDisAvgFeatureThread, p.track.icpRataRayFeature,
                                                 p.common.outputPath, p.icpKeepRatio, p.fusion.codeNumSet);
}

}  // namespace

RetVal FusionTrack::set_feature_recovery(bool isWanted) {
    const char* const function = "set_feature_recovery";
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!isWanted) {
        _pFeatureIcp.reset();
        return settled(function, {0.0});
    }
    if (_featureRegistration == nullptr) {
        refuse(function, "there is no feature registration for disUniform");
        return RET_STATE_ERROR;
    }
    auto icp = make_feature_icp(_parameters);
    if (!icp->get_inisucc()) {
        refuse(function, "icpDisFeature is not usable");
        return RET_STATE_ERROR;
    }
    icp->set_icpStableThreadhold(_pIcp->get_Stable_Threadhold());
    icp->set_corrRatio(_pIcp->get_corrRatio());
    _pFeatureIcp = std::move(icp);
    return settled(function, {1.0});
}

bool FusionTrack::contradicts_prediction() {
    const ViewAgreement agreement =
        compare_views(_fixedImage, _movingImage, _relative, _parameters.agreement_tolerance());
    if (agreement.contradicted() <= MOST_CONTRADICTED_WHEN_TRACKED) return false;
    print_line(format_text("tracking is not believed because %.1f %% of what the frame shows contradict the model",
                           100.0 * agreement.contradicted()));
    return true;
}

// What a large step brings into sight is not in the prediction: what is there may slide along a face by millimetres.
bool FusionTrack::is_jump_confirmed(const PointImage& frame) {
    const RigidMatrix arrived = get_current_rt() * _relative;
    if (!is_need_seq_rebuild({get_current_rt()}, arrived)) return true;
    const FusionScanState tracked = _stepState;
    const std::optional<RigidMatrix> seen = refined_and_accepted(frame, arrived, 0.0);
    _stepState = tracked;
    const double tolerance = static_cast<double>(_parameters.agreement_tolerance());
    if (seen && (arrived.inverse() * *seen).get_translation().norm() <= tolerance) return true;
    print_line("tracking is not believed because the model does not look like the frame from where the step ends");
    return false;
}

bool FusionTrack::recover_pose(const PointImage& frame) {
    if (!_pFeatureIcp || _stepState.frameValid < _parameters.icpLimitNumFeature) return false;
    const std::optional<RigidMatrix> candidate = aligned_by_features(frame);
    if (!candidate) return false;
    const std::optional<RigidMatrix> pose = refined_and_accepted(frame, *candidate, LEAST_EXPLAINED);
    if (!pose) return false;
    _relative = get_current_rt().inverse() * *pose;
    _stepState.relative = _relative;
    return true;
}

/// Lost frames change nothing, so that one description serves all of them.
bool FusionTrack::describe_model() {
    if (_isModelDescribed) return true;
    const Cloud model = sample_model(_volume, MOST_OCTETS);
    _isModelDescribed = pair_lrf_cue_set_ref_cloud(_featureRegistration, model) == RET_SUCCESS;
    return _isModelDescribed;
}

std::optional<RigidMatrix> FusionTrack::aligned_by_features(const PointImage& frame) {
    RigidMatrix pose;
    FeatureAlignment alignment;
    const bool isAligned = describe_model() && pair_lrf_cue_set_obj_cloud(_featureRegistration, frame) == RET_SUCCESS &&
                           pair_lrf_cue_compute_registration(_featureRegistration, pose, alignment) == RET_SUCCESS;
    return isAligned ? std::optional(pose) : std::nullopt;
}

std::optional<RigidMatrix> FusionTrack::refined_and_accepted(const PointImage& frame, const RigidMatrix& candidate,
                                                             double leastExplained) {
    _movingImage = frame;
    _fixedImage = frame;
    _fixedImage.setZero();
    render_view(candidate, false, _fixedImage);
    const int predictionValid = _fixedImage.count_vaildNum();
    if (predictionValid < _parameters.icpLimitNumFeature) return std::nullopt;

    RigidMatrix relative;
    const RetVal end =
        _pFeatureIcp->realTimeIcp(_fixedImage, _movingImage, relative, RigidMatrix(), _debugLevel, false);
    if (end != RET_SUCCESS) return std::nullopt;
    const ViewAgreement agreement =
        compare_views(_fixedImage, _movingImage, relative, _parameters.agreement_tolerance());
    const bool isAccepted = _pFeatureIcp->get_isStable_icp() && agreement.explained() >= leastExplained &&
                            agreement.contradicted() <= MOST_CONTRADICTED;
    if (_debugLevel > 0) {
        print_line(format_text("recovery: residual %.3f mm, stable %d, explained %.3f, contradicted %.3f, accepted %d",
                               static_cast<double>(_pFeatureIcp->get_residual()), _pFeatureIcp->get_isStable_icp(),
                               agreement.explained(), agreement.contradicted(), isAccepted));
    }
    if (!isAccepted) return std::nullopt;
    _stepState.isStable = true;
    _stepState.residual = _pFeatureIcp->get_residual();
    _stepState.correspondences = static_cast<int>(_pFeatureIcp->get_corr_par().x());
    _stepState.predictionValid = predictionValid;
    return candidate * relative;
}

}  // namespace VexelAlgorithm
