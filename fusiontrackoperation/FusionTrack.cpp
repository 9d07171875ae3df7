#include "fusiontrackoperation/FusionTrack.h"

#include <cmath>

#include "foundation/diagnostics.h"
#include "fusiontrackoperation/refusal.h"
#include "platform/featureRegistration.h"
#include "platform/textureTracking.h"

namespace VexelAlgorithm {
namespace {

std::unique_ptr<Track::IcpBaseOnCam> make_icp(const SessionParameters& p) {
    return std::make_unique<Track::IcpBaseOnCam>(p.track.icpIterNum, p.track.icpInterNumFixed, p.track.icpDis,
                                                 p.track.icpDisAvgThread, p.track.icpRataRay, p.common.outputPath,
                                                 p.icpKeepRatio, p.fusion.codeNumSet);
}

std::unique_ptr<Track::ParticleTrack> make_particle_tracker(const SessionParameters& p) {
    return std::make_unique<Track::ParticleTrack>(
        p.particle_gate(), p.particleIterations, p.common.outputPath, p.particleStep, p.particleCounts,
        Vector3f::Constant(p.track.icpParticleSize), p.fixed.particleMinValidRatio, p.particleKeepRatio,
        p.fusion.codeNumSet);
}

bool is_positive(float value) {
    return std::isfinite(value) && value > 0.0F;
}

/// True when the setting may be made; otherwise the line that says why not.
bool is_settable(bool isInRange, const char* function, const char* reason) {
    return isInRange || refuse(function, reason);
}

}  // namespace

FusionTrack::FusionTrack(const SessionParameters& parameters, bool withTexture, const TextureSetup& texture)
    : _parameters(parameters),
      _volume(parameters.fusion.treeDepth, parameters.fusion.pointDis, parameters.fixed.coneHalfWidth,
              parameters.fusion.fusionDataSize(0), parameters.fusion.codeNumSet, parameters.common.outputPath),
      _display(parameters.fusion.colorOnInvaildPoint, _leafColors),
      _colorCamera(parameters.fusion),
      _camera(parameters.camera),
      _icpLimitNum(parameters.icpLimitNum),
      _debugLevel(parameters.fixed.debugLevel) {
    _pIcp = make_icp(_parameters);
    _pParticle = make_particle_tracker(_parameters);
    _isValid = _pIcp->get_inisucc();
    if (!_isValid) {
        print_line("_pIcp ini fails ");
        return;
    }
    initialise_images();
    _featureRegistration = pair_lrf_cue_create_implementaion(5.0F, 10.0F, 20.0F, _parameters.track.disUniform, 3);
    if (withTexture) {
        _textureTracker =
            vexel_sfm::tbt_create(vexel_sfm::texture_tracker_settings(texture.record, texture.leftToTexture));
    }
}

FusionTrack::~FusionTrack() {
    _parallelInput.stop();
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (_textureTracker != nullptr) vexel_sfm::tbt_release(_textureTracker);
    if (_featureRegistration != nullptr) pair_lrf_cue_release_implementation(_featureRegistration);
}

void FusionTrack::initialise_images() {
    for (PointImage* image : {&_mapPre, &_fixedImage, &_movingImage, &_lastFrame}) {
        image->ini(_parameters.imageSize.x(), _parameters.imageSize.y(), _camera, _parameters.common.sample,
                   Vector2f::Zero());
    }
}

// ---- what an application looks at --------------------------------------------------------------------

const Cloud& FusionTrack::get_show_data() {
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _display.update(_volume, _changedLeaves);
    return _display.points();
}

const Cloud& FusionTrack::get_show_data_filter_noise() {
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _display.update(_volume, _changedLeaves);
    return _display.confirmed_points(_volume);
}

RigidMatrix FusionTrack::get_current_rt() const {
    const std::lock_guard<std::mutex> poses(_poseMutex);
    return _poses.back();
}

float FusionTrack::get_current_point_dis() const {
    const std::lock_guard<std::mutex> step(_stepMutex);
    return _volume.get_pointDis();
}

FusionScanState FusionTrack::get_fusion_scan_state() const {
    const std::lock_guard<std::mutex> state(_stateMutex);
    return _state;
}

// ---- settings ---------------------------------------------------------------------------------------

RetVal FusionTrack::settled(const char* function, std::initializer_list<double> values) {
    _recorder.setting_changed(function, values);
    return RET_SUCCESS;
}

RetVal FusionTrack::reset_point_dis(float pointDis) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!is_settable(is_positive(pointDis), "reset_Point_dis", "pointDis is not a positive number")) {
        return RET_INPUT_ERROR;
    }
    if (!is_settable(is_model_empty(), "reset_Point_dis", "the model is not empty")) return RET_STATE_ERROR;
    const std::lock_guard<std::mutex> outer(_outerMutex);
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _volume.set_point_dis(pointDis);
    return settled("reset_Point_dis", {pointDis});
}

RetVal FusionTrack::reset_icp_dis_thread(float icpDisThread) {
    if (!is_settable(is_positive(icpDisThread), "reset_icpDisThread", "icpDisThread is not a positive number")) {
        return RET_INPUT_ERROR;
    }
    _pIcp->set_disAvgThread(icpDisThread);
    return settled("reset_icpDisThread", {icpDisThread});
}

RetVal FusionTrack::reset_rata_ray(const Vector2f& rata) {
    const bool isInRange = rata.x() >= 0.0F && rata.y() >= 0.0F && rata.x() < 1.0F && rata.y() < 1.0F;
    if (!is_settable(isInRange, "reset_rata_ray", "a share is not at least 0 and below 1")) return RET_INPUT_ERROR;
    _pIcp->set_rata(rata);
    return settled("reset_rata_ray", {rata.x(), rata.y()});
}

RetVal FusionTrack::set_icp_stable_threshold(float threshold) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!is_settable(std::isfinite(threshold), "set_icpStableThreadhold", "threshold is not a finite number")) {
        return RET_INPUT_ERROR;
    }
    _pIcp->set_icpStableThreadhold(threshold);
    if (_pFeatureIcp) _pFeatureIcp->set_icpStableThreadhold(threshold);
    return settled("set_icpStableThreadhold", {threshold});
}

RetVal FusionTrack::set_icp_keep_ratio(const Vector2f& keepRatio) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    const bool isInRange = keepRatio.x() > 0.0F && keepRatio.y() > 0.0F && keepRatio.x() < 1.0F && keepRatio.y() < 1.0F;
    if (!is_settable(isInRange, "set_icpKeepRatio", "a share is not above 0 and below 1")) return RET_INPUT_ERROR;
    _pIcp->set_corrRatio(keepRatio);
    if (_pFeatureIcp) _pFeatureIcp->set_corrRatio(keepRatio);
    return settled("set_icpKeepRatio", {keepRatio.x(), keepRatio.y()});
}

RetVal FusionTrack::set_track_speed_threshold(float lineSpeed, float angularSpeed) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!is_settable(is_positive(lineSpeed) && is_positive(angularSpeed), "set_track_speed_threshold",
                     "a speed is not a positive number")) {
        return RET_INPUT_ERROR;
    }
    _lineSpeedLimit = lineSpeed;
    _angularSpeedLimit = angularSpeed;
    return settled("set_track_speed_threshold", {lineSpeed, angularSpeed});
}

RetVal FusionTrack::set_fusion_range(int fusionRange) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!is_settable(fusionRange >= 1 && fusionRange <= SessionVolume::MaxFusionRange, "fusion_set_fusionrange",
                     "fusionRange is out of its range")) {
        return RET_INPUT_ERROR;
    }
    const std::lock_guard<std::mutex> outer(_outerMutex);
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _volume.set_fusionRange(fusionRange);
    _frameSettings.reset();
    return settled("fusion_set_fusionrange", {static_cast<double>(fusionRange)});
}

RetVal FusionTrack::set_campar(const CameraInParam& campar) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    const CameraInParam camera = campar.scaled_down(_parameters.common.sample);
    if (!is_settable(Fusion::FusionCone::is_usable(camera), "set_campar", "the camera is not usable")) {
        return RET_INPUT_ERROR;
    }
    _camera = camera;
    if (_modelCamera) _modelCamera = camera;
    initialise_images();
    _frameSettings.reset();
    {
        const std::lock_guard<std::mutex> outer(_outerMutex);
        const std::lock_guard<std::mutex> inner(_innerMutex);
        _volume.modify_smooth_and_fusionrange(_volume.get_smooth_threshold(), _volume.get_fusionRange());
    }
    if (!is_model_empty()) render_prediction(get_current_rt(), false);
    return settled("set_campar", {campar.get_fx(), campar.get_fy(), campar.get_cx(), campar.get_cy()});
}

RetVal FusionTrack::set_tree_shift(const Vector3f& shift) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!is_settable(shift.allFinite(), "set_treeShift", "the shift is not finite")) return RET_INPUT_ERROR;
    if (!is_settable(is_model_empty(), "set_treeShift", "the model is not empty")) return RET_STATE_ERROR;
    const std::lock_guard<std::mutex> outer(_outerMutex);
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _volume.set_shift(shift);
    return settled("set_treeShift", {shift.x(), shift.y(), shift.z()});
}

Vector3f FusionTrack::get_tree_shift() const {
    const std::lock_guard<std::mutex> step(_stepMutex);
    return _volume.get_treeShift();
}

Vector3f FusionTrack::get_model_to_volume_shift() const {
    const std::lock_guard<std::mutex> inner(_innerMutex);
    return _display.get_shift();
}

void FusionTrack::set_callback(FusionSuccessCallBack callback) {
    const std::lock_guard<std::mutex> callbacks(_callbackMutex);
    _onSuccess = callback;
}

void FusionTrack::set_callback(FusionFailCallBack callback) {
    const std::lock_guard<std::mutex> callbacks(_callbackMutex);
    _onFail = callback;
}

void FusionTrack::set_callback(IllegalInputCallBack callback) {
    const std::lock_guard<std::mutex> callbacks(_callbackMutex);
    _onIllegalInput = callback;
}

// ---- life cycle -------------------------------------------------------------------------------------

void FusionTrack::forget_model() {
    {
        const std::lock_guard<std::mutex> outer(_outerMutex);
        const std::lock_guard<std::mutex> inner(_innerMutex);
        _volume.reset();
        _leafColors.clear();
        _changedLeaves.clear();
        _display.clear();
    }
    _isModelDescribed = false;
    _operations.clear();
    _keptFrames.clear();
    _frameSettings.reset();
    _edits = 0;
    _validShown = 0;
    const std::lock_guard<std::mutex> poses(_poseMutex);
    _poses.assign(1, RigidMatrix());
    _modelCamera.reset();
    _nonRigid = NonRigid();
    initialise_images();
}

void FusionTrack::forget_last_frame(int acceptedFrames) {
    _currentFrame.clear();
    _relative.set_identity();
    _initialPose.set_identity();
    _lastFrameTimeGap = -1;
    _stepState = FusionScanState();
    _stepState.acceptedFrames = acceptedFrames;
    const std::lock_guard<std::mutex> state(_stateMutex);
    _state = _stepState;
}

RetVal FusionTrack::reset(bool withTexture) {
    if (!may_stop_worker(withTexture ? "fusion_reset" : "fusion_reset_withoutTex")) return RET_STATE_ERROR;
    _parallelInput.stop();
    const std::lock_guard<std::mutex> step(_stepMutex);
    forget_model();
    forget_last_frame(0);
    _recorder.model_replaced(withTexture ? "fusion_reset" : "fusion_reset_withoutTex");
    if (!withTexture || _textureTracker == nullptr) return RET_SUCCESS;
    if (vexel_sfm::tbt_reset(_textureTracker)) {
        _isTextureMapBegun = false;
        return RET_SUCCESS;
    }
    print_line("fusion_reset failed: the texture tracker can not be reset");
    return RET_RUN_FAIL;
}

RetVal FusionTrack::reset_tree() {
    if (!may_stop_worker("fusion_tree_reset")) return RET_STATE_ERROR;
    _parallelInput.stop();
    const std::lock_guard<std::mutex> step(_stepMutex);
    forget_model();
    _recorder.model_replaced("fusion_tree_reset");
    return RET_SUCCESS;
}

}  // namespace VexelAlgorithm
