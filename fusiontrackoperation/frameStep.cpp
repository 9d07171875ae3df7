// The way of one frame through the session.
#include <algorithm>
#include <atomic>
#include <cmath>

#include "foundation/Stopwatch.h"
#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/refusal.h"
#include "fusiontrackoperation/rigidPose.h"

namespace VexelAlgorithm {
namespace {

// One pair for the whole process; each thread sees its own, because a step runs on its caller's thread and sessions may
// step at the same time.
thread_local Stopwatch wholeStepTimer;
thread_local Stopwatch stepTimer;

/// The contribution that was computed last in this process, whichever session asked for it.
std::atomic<int> lastContribution{0};

constexpr int FIRST_FRAME_INTEGRATIONS = 3;

/// Frame and model must have been taken by one camera: this far, in pixels, its values may differ.
constexpr double CAMERA_TOLERANCE = 0.5;

bool has_attributes(const PointImage& frame) {
    if (frame.is_enable_vNormal() && frame.is_enable_vWeight() && frame.is_enable_vFlag()) return true;
    print_line("the PointImage uesed to fusion mush contain normal and weight and vFlag attribute ");
    return false;
}

bool is_same_camera(const CameraInParam& a, const CameraInParam& b) {
    const Eigen::Array4d difference(a.get_fx() - b.get_fx(), a.get_fy() - b.get_fy(), a.get_cx() - b.get_cx(),
                                    a.get_cy() - b.get_cy());
    return (difference.abs() <= CAMERA_TOLERANCE).all();
}

bool is_identity(const RigidMatrix& rt) {
    return rt.get_rotation() == Matrix3d::Identity() && rt.get_translation() == Vector3d::Zero();
}

/// Angles of R = Rx(a) Ry(b) Rz(c), radians, b in [-pi/2, pi/2].
Vector3d euler_angles(const Matrix3d& rotation) {
    return {std::atan2(-rotation(1, 2), rotation(2, 2)), std::atan2(rotation(0, 2), rotation.row(0).head<2>().norm()),
            std::atan2(-rotation(0, 1), rotation(0, 0))};
}

FrameOutcome outcome_of(Track::IcpEnd end) {
    switch (end) {
        case Track::IcpEnd::NoCorrespondences:
            return FrameOutcome::NoCorrespondences;
        case Track::IcpEnd::NotConverged:
            return FrameOutcome::NotConverged;
        case Track::IcpEnd::ResidualTooLarge:
            return FrameOutcome::ResidualTooLarge;
        case Track::IcpEnd::TooFewValid:
            return FrameOutcome::TooFewValid;
        default:
            return FrameOutcome::Failed;
    }
}

void print_times(const FrameStepTimes& times) {
    print_line(format_text(
        "frame step: prepare %.3f ms, particles %.3f ms, icp %.3f ms, contribution %.3f ms, "
        "integrate %.3f ms, predict %.3f ms, whole %.3f ms",
        times.prepare, times.particles, times.icp, times.contribution, times.integrate, times.predict, times.whole));
}

auto as_it_is(const PointImage& frame) {
    return [&frame] { return &frame; };
}

/// Sets a flag for its lifetime, if nobody else has.
class SoleUse {
public:
    explicit SoleUse(std::atomic<bool>& flag) : _flag(flag), _isGranted(!flag.exchange(true)) {}
    ~SoleUse() {
        if (_isGranted) _flag = false;
    }
    SoleUse(const SoleUse&) = delete;
    SoleUse& operator=(const SoleUse&) = delete;
    bool is_granted() const { return _isGranted; }

private:
    std::atomic<bool>& _flag;
    bool _isGranted;
};

}  // namespace

// ---- the frame step ---------------------------------------------------------------------------------

FrameOutcome FusionTrack::track_and_fuse(const char* function, const PointImage& input, StepArguments& arguments) {
    if (!has_attributes(input)) return FrameOutcome::MissingAttributes;
    if (!fits_session(input, function)) return FrameOutcome::BadFrame;
    const PointImage& frame = in_camera_coordinates(input);
    if (!has_enough_points(frame)) return FrameOutcome::TooFewPoints;
    _currentFrame.set_vCoords(frame.get_vCoords());

    if (is_model_empty()) {
        if (!begin_model(frame, RigidMatrix())) return FrameOutcome::Failed;
        take_as_prediction(frame);
        _lastFrameTimeGap = arguments.frameTimeGap;
        return FrameOutcome::FirstFrame;
    }

    const std::optional<FrameOutcome> loss = find_pose(frame);
    const bool isRecovered = loss && recover_pose(frame);
    if (loss && !isRecovered) return *loss;
    // A jump is what recovery is for.
    if (isRecovered && arguments.speedState >= 0) arguments.speedState = 1;
    if (!isRecovered && !passes_speed_check(arguments.speedState)) return FrameOutcome::TooFast;

    _lastFrameTimeGap = arguments.frameTimeGap;
    const RigidMatrix pose = append_pose(get_current_rt() * _relative);
    const bool fuse =
        !isRecovered && arguments.mayFuse && (arguments.fuseFlag || adds_enough(frame, pose, arguments.contribution));
    if (fuse) integrate_moving_image(pose);

    empty_prediction(frame);
    update_after_fusion();
    render_prediction(pose, true);
    arguments.elapsedMicroseconds = wholeStepTimer.microseconds();
    if (isRecovered) return FrameOutcome::Recovered;
    return fuse ? FrameOutcome::Fused : FrameOutcome::TrackedOnly;
}

// The image becomes colours of the frame's slots before anything else, so that all that follows, debug recording too,
// knows of frames only.
const PointImage* FusionTrack::color_points(const ColorAndPoint& input) {
    if (const auto reason = _colorCamera.find_unusable(input.color)) {
        refuse("fusion_and_track", *reason);
        return nullptr;
    }
    if (!can_be_colored(input.point)) return &input.point;
    _coloredFrame = input.point;
    _colorCamera.color_frame(input.color, _coloredFrame, _volume.get_code_Num());
    return &_coloredFrame;
}

/// Other frames are left to the step, which says what is wrong with them.
bool FusionTrack::can_be_colored(const PointImage& frame) const {
    return frame.is_legal() && frame.get_image_width() == _parameters.imageSize.x() &&
           frame.get_image_height() == _parameters.imageSize.y();
}

bool FusionTrack::frame_step(const ColorAndPoint& input, int& elapsedMicroseconds, bool fuseFlag, int contribution) {
    StepArguments arguments;
    arguments.fuseFlag = fuseFlag;
    arguments.contribution = contribution;
    const FrameOutcome outcome = run_step(
        "fusion_and_track", arguments, [&] { return color_points(input); },
        [&](const PointImage& frame) { return track_and_fuse("fusion_and_track", frame, arguments); });
    if (arguments.elapsedMicroseconds >= 0) elapsedMicroseconds = arguments.elapsedMicroseconds;
    return is_accepted(outcome);
}

bool FusionTrack::frame_step(const PointImage& input, int& elapsedMicroseconds, bool& fuseFlag, int& contribution,
                             int frameTimeGap, int& speedState) {
    StepArguments arguments;
    arguments.fuseFlag = fuseFlag;
    arguments.contribution = contribution;
    arguments.frameTimeGap = frameTimeGap;
    arguments.speedState = speedState;
    const FrameOutcome outcome = run_step("fusion_and_track", arguments, as_it_is(input), [&](const PointImage& frame) {
        return track_and_fuse("fusion_and_track", frame, arguments);
    });
    contribution = arguments.contribution;
    speedState = arguments.speedState;
    if (arguments.elapsedMicroseconds >= 0) elapsedMicroseconds = arguments.elapsedMicroseconds;
    // A frame that was only too fast leaves the caller's flag alone.
    if (outcome != FrameOutcome::TooFast) {
        fuseFlag = outcome == FrameOutcome::FirstFrame || outcome == FrameOutcome::Fused;
    }
    return is_accepted(outcome);
}

bool FusionTrack::track(const PointImage& input, int& elapsedMicroseconds) {
    StepArguments arguments;
    arguments.mayFuse = false;
    const FrameOutcome outcome = run_step("track", arguments, as_it_is(input), [&](const PointImage& frame) {
        return track_and_fuse("track", frame, arguments);
    });
    if (arguments.elapsedMicroseconds >= 0) elapsedMicroseconds = arguments.elapsedMicroseconds;
    return is_accepted(outcome);
}

FrameOutcome FusionTrack::step_queued(QueuedFrame& queued, QueuedStep& result) {
    FusionparallelInputData& data = queued.data;
    StepArguments arguments;
    arguments.fuseFlag = data.fuse;
    arguments.contribution = data.contribution;
    arguments.frameTimeGap = data.frameTimeGap;
    arguments.speedState = data.speedState;
    const auto give = [&]() -> const PointImage* {
        data.queuedMicroseconds = microseconds_since(queued.arrival);
        if (_colorCamera.is_there() && data.color.is_legal() && can_be_colored(queued.frame)) {
            _colorCamera.color_frame(data.color, queued.frame, _volume.get_code_Num());
        }
        return &queued.frame;
    };
    const auto step = [&](const PointImage& frame) {
        const FrameOutcome outcome = track_and_fuse("fusion_and_track_parallel", frame, arguments);
        if (outcome != FrameOutcome::FirstFrame) result.relative = _relative;
        const std::lock_guard<std::mutex> poses(_poseMutex);
        result.pose = _poses.back();
        result.acceptedFrames = static_cast<int>(_poses.size());
        return outcome;
    };
    const FrameOutcome outcome = run_step("fusion_and_track", arguments, give, step, Turn::Await);
    if (outcome != FrameOutcome::TooFast) {
        data.fuse = outcome == FrameOutcome::FirstFrame || outcome == FrameOutcome::Fused;
    }
    data.contribution = arguments.contribution;
    data.speedState = arguments.speedState;
    data.elapsedMicroseconds = std::max(0, arguments.elapsedMicroseconds);
    return outcome;
}

FrameOutcome FusionTrack::fuse_at(const PointImage& input, StepArguments& arguments) {
    const RigidMatrix& pose = arguments.pose;
    if (!has_attributes(input)) return FrameOutcome::MissingAttributes;
    if (!fits_session(input, "fusion")) return FrameOutcome::BadFrame;
    if (!is_rigid(pose)) {
        refuse("fusion", "the pose is not a rigid motion");
        return FrameOutcome::Failed;
    }
    const PointImage& frame = in_camera_coordinates(input);
    if (!has_enough_points(frame)) return FrameOutcome::TooFewPoints;
    _currentFrame.set_vCoords(frame.get_vCoords());
    _movingImage = frame;
    _stepState.times.prepare = wholeStepTimer.milliseconds();

    const bool isFirst = is_model_empty();
    if (isFirst) {
        if (!begin_model(frame, pose)) return FrameOutcome::Failed;
    } else {
        integrate_moving_image(append_pose(pose));
    }
    _lastFrameTimeGap = -1;

    empty_prediction(frame);
    update_after_fusion();
    render_prediction(get_current_rt(), true);
    arguments.elapsedMicroseconds = wholeStepTimer.microseconds();
    return isFirst ? FrameOutcome::FirstFrame : FrameOutcome::Fused;
}

bool FusionTrack::fusion(const PointImage& input, const RigidMatrix& pose, int& elapsedMicroseconds) {
    StepArguments arguments;
    arguments.pose = pose;
    const FrameOutcome outcome = run_step("fusion", arguments, as_it_is(input),
                                          [&](const PointImage& frame) { return fuse_at(frame, arguments); });
    if (arguments.elapsedMicroseconds >= 0) elapsedMicroseconds = arguments.elapsedMicroseconds;
    return is_accepted(outcome);
}

// ---- around a step ----------------------------------------------------------------------------------

template <class Give, class Body>
FrameOutcome FusionTrack::run_step(const char* function, StepArguments& arguments, const Give& give, const Body& body,
                                   Turn turn) {
    const SoleUse use(_isStepping);
    if (!use.is_granted() && turn == Turn::OrRefuse) {
        refuse(function, "the session is busy with another frame");
        return FrameOutcome::Failed;
    }
    const std::lock_guard<std::mutex> step(_stepMutex);
    wholeStepTimer.restart();
    const auto* const frame = guarded<const PointImage*>(function, nullptr, give);
    if (frame != nullptr) record_given(function, *frame, arguments);
    const RigidMatrix relative = _stepState.relative;
    _stepState = FusionScanState();
    _stepState.relative = relative;
    const FrameOutcome outcome =
        frame == nullptr ? FrameOutcome::BadFrame
                         : guarded<FrameOutcome>(function, FrameOutcome::Failed, [&] { return body(*frame); });
    publish(outcome);
    record_done(arguments);
    return outcome;
}

void FusionTrack::record_given(const char* function, const PointImage& input, const StepArguments& arguments) {
    if (!_recorder.is_wanted()) return;
    _recorder.frame_given(
        function,
        {arguments.fuseFlag, arguments.contribution, arguments.frameTimeGap, arguments.speedState, arguments.pose},
        input, accepted_frames());
    wholeStepTimer.restart();  // the times of the step are its own
}

void FusionTrack::record_done(const StepArguments& arguments) {
    if (!_recorder.is_wanted()) return;
    _recorder.frame_done({_stepState, get_current_rt(), arguments.contribution, arguments.speedState});
}

int FusionTrack::accepted_frames() const {
    const std::lock_guard<std::mutex> poses(_poseMutex);
    return is_model_empty() ? 0 : static_cast<int>(_poses.size());
}

void FusionTrack::publish(FrameOutcome outcome) {
    _stepState.outcome = outcome;
    _stepState.isLost = !is_accepted(outcome) && !is_model_empty();
    _stepState.times.whole = wholeStepTimer.milliseconds();
    _stepState.acceptedFrames = accepted_frames();
    if (_debugLevel > 0) print_times(_stepState.times);
    const std::lock_guard<std::mutex> state(_stateMutex);
    _state = _stepState;
}

// ---- before the model is there ----------------------------------------------------------------------

bool FusionTrack::fits_session(const PointImage& input, const char* function) const {
    const int width = _parameters.imageSize.x(), height = _parameters.imageSize.y();
    if (!input.is_legal()) return refuse(function, "the frame's attributes differ in length");
    if (input.get_image_width() != width || input.get_image_height() != height) {
        return refuse(function, format_text("the frame has %d x %d pixels and the session %d x %d",
                                            input.get_image_width(), input.get_image_height(), width, height));
    }
    if (!Fusion::FusionCone::is_usable(input.get_camPar())) return refuse(function, "the frame's camera is not usable");
    if (_modelCamera && !is_same_camera(input.get_camPar(), *_modelCamera)) {
        return refuse(function, "the frame's camera is not that of the model");
    }
    if (!is_rigid(input.get_rt())) return refuse(function, "the frame's stored pose is not a rigid motion");
    return true;
}

const PointImage& FusionTrack::in_camera_coordinates(const PointImage& input) {
    if (is_identity(input.get_rt())) return input;
    _movedFrame = input;
    _movedFrame.to_ori_coor();
    return _movedFrame;
}

bool FusionTrack::has_enough_points(const PointImage& frame) {
    const int valid = frame.count_vaildNum();
    _stepState.frameValid = valid;
    if (valid >= _icpLimitNum) return true;
    print_line(format_text("oneFrame.count_vaildNum() = %d ", valid));
    print_line(format_text("fail because oneFrame.get_Vn() < LimitNum = %d ", _icpLimitNum));
    return false;
}

bool FusionTrack::begin_model(const PointImage& frame, const RigidMatrix& pose) {
    set_first_pose(pose);
    stepTimer.restart();
    if (!integrate_first(frame, pose)) {
        set_first_pose(RigidMatrix());
        return false;
    }
    _stepState.times.integrate = stepTimer.milliseconds();
    {
        const std::lock_guard<std::mutex> inner(_innerMutex);
        _display.set_shift(_volume.get_treeShift());
    }
    _modelCamera = frame.get_camPar();
    return true;
}

void FusionTrack::set_first_pose(const RigidMatrix& pose) {
    const std::lock_guard<std::mutex> poses(_poseMutex);
    _poses.front() = pose;
    rigidMatrix_regularization(_poses.front());
}

bool FusionTrack::integrate_first(const PointImage& frame, const RigidMatrix& pose) {
    std::unique_lock<std::mutex> outer(_outerMutex);
    std::unique_lock<std::mutex> inner(_innerMutex);
    const Vector3f shift = _volume.get_treeShift();
    bool isTaken = true;
    for (int i = 0; i < FIRST_FRAME_INTEGRATIONS && isTaken; ++i) {
        isTaken = _volume.fusion_one_frame_speckle_parallel(frame, pose, _changedLeaves, true, false, nullptr);
    }
    if (isTaken && is_model_empty()) print_line("fail because no point of the first frame lies inside the volume");
    if (is_model_empty()) _volume.set_shift(shift);
    if (isTaken && !is_model_empty()) color_model(frame, pose);
    _isModelDescribed = false;
    outer.unlock();
    inner.unlock();
    if (is_model_empty()) return false;
    keep_frame(frame, pose, FIRST_FRAME_INTEGRATIONS);
    return true;
}

void FusionTrack::take_as_prediction(const PointImage& frame) {
    _mapPre = frame;
    _mapPre.disable_vColor();
    _lastFrame = frame;
}

// ---- tracking ---------------------------------------------------------------------------------------

std::optional<FrameOutcome> FusionTrack::find_pose(const PointImage& frame) {
    if (!has_enough_prediction()) return FrameOutcome::EmptyPrediction;
    set_up_tracking(frame);
    find_coarse_pose();
    if (!refine_pose()) return outcome_of(_pIcp->get_end());
    if (_pFeatureIcp && (contradicts_prediction() || !is_jump_confirmed(frame))) return FrameOutcome::Contradicted;
    _stepState.relative = _relative;
    return std::nullopt;
}

bool FusionTrack::has_enough_prediction() {
    const int valid = _mapPre.count_vaildNum();
    _stepState.predictionValid = valid;
    if (valid >= _icpLimitNum) return true;
    print_line(
        format_text("fail because _mapPre.count_vaildNum() < _icpLimitNum     _mapPre.count_vaildNum() = %d ", valid));
    return false;
}

void FusionTrack::set_up_tracking(const PointImage& frame) {
    _fixedImage = _mapPre;
    _movingImage = frame;
    _relative.set_identity();
    _stepState.times.prepare = wholeStepTimer.milliseconds();
}

void FusionTrack::find_coarse_pose() {
    stepTimer.restart();
    _initialPose.set_identity();
    // Without a particle left the pose is the identity, from which the ICP may still arrive.
    _pParticle->partical_track(_fixedImage, _movingImage, _initialPose, _debugLevel, nullptr);
    rigidMatrix_regularization(_initialPose);
    _stepState.times.particles = stepTimer.milliseconds();
}

bool FusionTrack::refine_pose() {
    stepTimer.restart();
    const RetVal result = _pIcp->realTimeIcp(_fixedImage, _movingImage, _relative, _initialPose, _debugLevel, false);
    _stepState.times.icp = stepTimer.milliseconds();
    _stepState.isStable = _pIcp->get_isStable_icp();
    _stepState.residual = _pIcp->get_residual();
    _stepState.correspondences = static_cast<int>(_pIcp->get_corr_par().x());
    if (result != RET_SUCCESS) {
        print_line("icp false" + std::string(115, 'e') + " ");
        return false;
    }
    return true;
}

bool FusionTrack::passes_speed_check(int& speedState) const {
    if (!(static_cast<double>(speedState) > -1e-6)) return true;
    if (is_over_fast()) {
        if (speedState == 0) {
            print_line("icp succeed but exceeded the speed limit can't run the fusion process ");
            return false;
        }
        print_line("icp succeed but exceeded the speed limit, running the fusion process ");
        speedState = 2;
    }
    speedState = 1;  // also after a fast frame
    return true;
}

bool FusionTrack::is_over_fast() const {
    const auto lineSpeed = static_cast<float>(_relative.get_translation().norm());
    if (lineSpeed > _lineSpeedLimit) {
        print_line("linespeed exceed the limitation, fusion_and_track falied ");
        return true;
    }
    const Vector3d angularSpeed = euler_angles(_relative.get_rotation());
    if (!(angularSpeed.cwiseAbs().maxCoeff() > static_cast<double>(_angularSpeedLimit))) return false;
    print_line(format_text("angularspeed[0] = %f, angularspeed[1] = %f, angularspeed[2] = %f ", angularSpeed[0],
                           angularSpeed[1], angularSpeed[0]));
    print_line("angularspeed exceed the limitation, fusion_and_track falied ");
    return true;
}

RigidMatrix FusionTrack::append_pose(RigidMatrix pose) {
    rigidMatrix_regularization(pose);
    const std::lock_guard<std::mutex> poses(_poseMutex);
    _poses.push_back(pose);
    return pose;
}

// ---- fusion and the next prediction -----------------------------------------------------------------

bool FusionTrack::adds_enough(const PointImage& frame, const RigidMatrix& pose, int& contribution) {
    stepTimer.restart();
    const int best = contribution;
    contribution = _volume.get_space_contribution(frame, pose);
    lastContribution = contribution;
    _stepState.times.contribution = stepTimer.milliseconds();
    return best < contribution;
}

void FusionTrack::integrate_moving_image(const RigidMatrix& pose) {
    stepTimer.restart();
    bool isTaken = false;
    {
        const std::lock_guard<std::mutex> outer(_outerMutex);
        const std::lock_guard<std::mutex> inner(_innerMutex);
        isTaken = _volume.fusion_one_frame_speckle_parallel(_movingImage, pose, _changedLeaves, true, false, nullptr);
        if (isTaken) color_model(_movingImage, pose);
    }
    _isModelDescribed = false;
    if (isTaken) keep_frame(_movingImage, pose, 1);
    _stepState.times.integrate = stepTimer.milliseconds();
}

/// Without the memory for it the scan goes on without the frame's colours.
void FusionTrack::color_model(const PointImage& frame, const RigidMatrix& pose) {
    guarded("the colours of a frame", [&] { _leafColors.blend_frame(_volume, frame, pose); });
}

void FusionTrack::empty_prediction(const PointImage& frame) {
    stepTimer.restart();
    _mapPre = frame;
    _mapPre.setZero();
}

void FusionTrack::update_after_fusion() {
    // The moving image is in its own camera's coordinates, as the guide of the raycast has to be.
    std::swap(_lastFrame, _movingImage);
}

void FusionTrack::render_prediction(const RigidMatrix& pose, bool guided) {
    render_view(pose, guided, _mapPre);
    _stepState.times.predict = stepTimer.milliseconds();
}

void FusionTrack::render_view(const RigidMatrix& pose, bool guided, PointImage& view) {
    const Fusion::RayCastNormals normals{true, _parameters.fusion.fusionDataSize(1),
                                         _parameters.normal_reach(_volume.get_pointDis())};
    {
        const std::lock_guard<std::mutex> outer(_outerMutex);
        Fusion::rayCast(_volume, _lastFrame, pose, view, guided, _parameters.fusion.viewBox, normals,
                        _parameters.interval_factor(_volume.get_fusionRange()));
    }
    view.to_ori_coor();
}

}  // namespace VexelAlgorithm
