// The real-time scan session: tracks each frame against the model, fuses it and renders the next prediction.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "foundation/BaseTriMesh.h"
#include "foundation/ColorAndPoint.h"
#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/RigidMatrix.h"
#include "fusion/emptySurface.h"
#include "fusion/rayCast.h"
#include "fusiontrackoperation/ColorCamera.h"
#include "fusiontrackoperation/DisplayData.h"
#include "fusiontrackoperation/FusionScanState.h"
#include "fusiontrackoperation/LeafColors.h"
#include "fusiontrackoperation/NonRigid.h"
#include "fusiontrackoperation/ParallelInput.h"
#include "fusiontrackoperation/SessionParameters.h"
#include "fusiontrackoperation/SessionRecorder.h"
#include "fusiontrackoperation/TextureSetup.h"
#include "fusiontrackoperation/keptFrames.h"
#include "fusiontrackoperation/meshRefinement.h"
#include "fusiontrackoperation/sessionCallbacks.h"
#include "platform/textureTracking.h"
#include "track/IcpBaseOnCam.h"
#include "track/ParticleTrack.h"

namespace VexelAlgorithm {

/// One scan. The exported functions of `algorithmQorInclude.h` describe what each operation does.
///
/// Locks. A frame step holds the step lock from beginning to end; a second one is refused, settings and results wait
/// for it. Inside, integration holds the outer and the inner lock, taken in that order; the raycast of the prediction
/// holds the outer one; display extraction holds the inner one alone, so that it may overlap a raycast and never an
/// integration. The pose list, the scan state and the callbacks have a lock each, held for the length of a copy.
/// Nobody who holds a later lock of the row step, outer, inner, poses, state, callbacks takes an earlier one.
class FusionTrack {
public:
    /// `parameters` are those of `make_session_parameters`. With `withTexture` a texture tracker is made from
    /// `texture`, where the application has registered one.
    FusionTrack(const SessionParameters& parameters, bool withTexture, const TextureSetup& texture);
    ~FusionTrack();
    FusionTrack(const FusionTrack&) = delete;
    FusionTrack& operator=(const FusionTrack&) = delete;

    /// False when the ICP refuses its settings; the session must not be used then.
    bool is_valid() const { return _isValid; }

    // ---- frames -------------------------------------------------------------------------------------

    /// All of `fusion_and_track`. fuseFlag: true forces fusion, false leaves it to the contribution; out: whether the
    /// frame was fused. contribution: the best one so far; out: that of this frame, when it was asked for. speedState:
    /// negative for no speed check, 0 for refusing fast frames, positive for fusing them; out: 1 after a check that
    /// lets the frame pass.
    bool frame_step(const PointImage& input, int& elapsedMicroseconds, bool& fuseFlag, int& contribution,
                    int frameTimeGap, int& speedState);
    /// The same for a frame whose points take their colours from the image.
    bool frame_step(const ColorAndPoint& input, int& elapsedMicroseconds, bool fuseFlag, int contribution);
    bool track(const PointImage& input, int& elapsedMicroseconds);
    bool fusion(const PointImage& input, const RigidMatrix& pose, int& elapsedMicroseconds);

    /// Frames for the session's worker; `report_frame` tells what happened to each.
    ParallelInput& parallel_input() { return _parallelInput; }
    /// For the frame of this id.
    RetVal load_color(const char* function, const ColorImage& color, std::int64_t frameId);

    // ---- what an application looks at ------------------------------------------------------------------

    const Cloud& get_show_data();
    const Cloud& get_show_data_filter_noise();
    RigidMatrix get_current_rt() const;
    float get_current_point_dis() const;
    FusionScanState get_fusion_scan_state() const;
    /// Points that the last display call has shown.
    int get_show_num() const;
    int count_valid_shown();
    /// As `count_valid_shown` counted last.
    int get_valid_shown() const { return _validShown; }

    /// One of those in motionTests.h; false with a line for a pose that is none.
    using MotionTest = bool (*)(const std::vector<RigidMatrix>& history, const RigidMatrix& pose);
    bool test_motion(const char* function, const RigidMatrix& pose, MotionTest test) const;

    // ---- texture tracking and deformations --------------------------------------------------------------

    RetVal texture_pre_scan(const PointImage& input, const vexel_sfm::TextureImage& image, RigidMatrix& pose);
    RetVal get_feature_frame(const vexel_sfm::TextureImage& image, std::vector<Vector2f>& features);
    RetVal set_key_frame(const RigidMatrix& pose);
    bool is_feature_aline_right(const RigidMatrix& pose);
    RetVal set_nonrigid_refmodel(const BaseTriMesh& model);
    RetVal set_nonrigid_field(const std::vector<Vector3f>& field);
    bool is_nonrigid_field_empty() const;

    // ---- results --------------------------------------------------------------------------------------

    enum class Parallel { OpenMp, Tbb };
    RetVal get_fusion_result(float pointDis, BaseTriMesh& mesh, Parallel parallel);
    RetVal get_model_bounding_box(Vector3f& low, Vector3f& high);
    RetVal set_fusion_result_opt(bool dropPieces, bool smooth, bool normals);
    RetVal reset_final_gauss_smooth_window(int window);
    RetVal reset_final_normal_window(int window);
    RetVal reset_final_isolated_island_delete(int triangles);
    RetVal reset_tangent_plane_ratio(float ratio);
    RetVal output_tree(const char* function, const std::string& path, bool isWhole) const;
    RetVal output_operate_record(const std::string& path) const;

    // ---- editing --------------------------------------------------------------------------------------
    //
    // `function` is the exported function at whose call it is done.

    RetVal delete_shown_points(const char* function, const std::vector<int>& shown);
    RetVal delete_surface_near(const char* function, const std::vector<Vector3f>& points, float radius);
    RetVal delete_marked_points(const char* function, const Cloud& cloud);
    RetVal delete_unstable(const char* function, int minContributions);
    /// Frames are numbered by their place in the pose list.
    RetVal remove_frames(const char* function, std::vector<int> frames);
    RetVal remove_frame_points(const char* function, int index, const std::vector<int>& slots, bool isParallel);
    RetVal remove_frame_near(const char* function, int index, const std::vector<Vector3f>& points, float radius);
    RetVal filter_frame(const char* function, int index, float distance);
    RetVal mark_points_off_surface(const char* function, Cloud& cloud, float distance) const;
    RetVal set_kept_frame_memory(int mebibytes);
    /// See replayEdit.h.
    RetVal replay_edit(const EditRecord& edit);

    // ---- settings -------------------------------------------------------------------------------------

    RetVal reset_point_dis(float pointDis);
    RetVal reset_icp_dis_thread(float icpDisThread);
    RetVal reset_rata_ray(const Vector2f& rata);
    RetVal set_icp_stable_threshold(float threshold);
    RetVal set_icp_keep_ratio(const Vector2f& keepRatio);
    RetVal set_track_speed_threshold(float lineSpeed, float angularSpeed);
    RetVal set_fusion_range(int fusionRange);
    RetVal set_feature_recovery(bool isWanted);
    RetVal set_campar(const CameraInParam& campar);
    RetVal set_tree_shift(const Vector3f& shift);
    Vector3f get_tree_shift() const;
    Vector3f get_model_to_volume_shift() const;
    void set_debug_level(int level) { _debugLevel = level; }
    void set_callback(FusionSuccessCallBack callback);
    void set_callback(FusionFailCallBack callback);
    void set_callback(IllegalInputCallBack callback);

    // ---- life cycle -----------------------------------------------------------------------------------

    /// Back to the state after creation; settings stay.
    RetVal reset(bool withTexture);
    /// To be asked before the session is destroyed.
    bool may_be_released() const { return may_stop_worker("fusiontrack_release"); }
    /// Empties the volume and what is rendered and shown from it, and starts the pose list anew.
    RetVal reset_tree();

    bool save_project(std::ofstream& out) const;
    /// A file that is not a project of this session's records leaves the session as it was; one that turns out to be
    /// damaged behind that leaves it as after `reset_tree`.
    bool read_project(std::ifstream& in);

    /// Debug recording. Functions that edit hand it what they did.
    SessionRecorder& recorder() { return _recorder; }

private:
    /// What a frame step is asked for and what it answers; see `frame_step`.
    struct StepArguments {
        RigidMatrix pose;     ///< of a frame that is not tracked
        bool mayFuse = true;  ///< false: only track
        bool fuseFlag = true;
        int contribution = 0;
        int frameTimeGap = -1;
        int speedState = -1;
        int elapsedMicroseconds = -1;  ///< stays negative unless the step completes
    };

    FrameOutcome track_and_fuse(const char* function, const PointImage& input, StepArguments& arguments);
    FrameOutcome fuse_at(const PointImage& input, StepArguments& arguments);
    enum class Turn { OrRefuse, Await };
    /// Runs `body(frame)`, which gives the outcome, as the only step, publishes the scan state and records it all.
    /// `give` makes the frame ready; null, after a line: there is none.
    template <class Give, class Body>
    FrameOutcome run_step(const char* function, StepArguments& arguments, const Give& give, const Body& body,
                          Turn turn = Turn::OrRefuse);
    const PointImage* color_points(const ColorAndPoint& input);
    bool can_be_colored(const PointImage& frame) const;
    void record_given(const char* function, const PointImage& input, const StepArguments& arguments);
    void record_done(const StepArguments& arguments);
    int accepted_frames() const;
    void publish(FrameOutcome outcome);

    // The worker's share: the step of a queued frame, which waits for its turn, and the callback that reports it.
    struct QueuedStep {
        RigidMatrix relative;  ///< motion since the pose before
        RigidMatrix pose;
        int acceptedFrames = 0;
    };
    void work_on(QueuedFrame& queued, bool isGivenUp) noexcept;
    FrameOutcome step_queued(QueuedFrame& queued, QueuedStep& result);
    void report_frame(QueuedFrame& queued, const QueuedStep& result);
    void report_success(QueuedFrame& queued, const QueuedStep& result, FusionSuccessCallBack callback);
    const Cloud& get_show_data(std::vector<int>& changedLeaves);
    template <class Callback>
    Callback stored(Callback FusionTrack::*callback) const;
    /// False, with a line, inside a callback of the threaded input.
    bool may_stop_worker(const char* function) const;

    // The stages of a step, in its order.
    bool fits_session(const PointImage& input, const char* function) const;
    const PointImage& in_camera_coordinates(const PointImage& input);
    bool has_enough_points(const PointImage& frame);
    bool is_model_empty() const { return _volume.get_vaild_leaf_num() == 0; }
    bool begin_model(const PointImage& frame, const RigidMatrix& pose);
    void set_first_pose(const RigidMatrix& pose);
    bool integrate_first(const PointImage& frame, const RigidMatrix& pose);
    void take_as_prediction(const PointImage& frame);
    /// The relative transform of a frame that is tracked from the last accepted pose; otherwise why it is not.
    std::optional<FrameOutcome> find_pose(const PointImage& frame);
    bool has_enough_prediction();
    void set_up_tracking(const PointImage& frame);
    void find_coarse_pose();
    bool refine_pose();
    bool passes_speed_check(int& speedState) const;
    bool is_over_fast() const;
    RigidMatrix append_pose(RigidMatrix pose);
    bool adds_enough(const PointImage& frame, const RigidMatrix& pose, int& contribution);
    void integrate_moving_image(const RigidMatrix& pose);
    void color_model(const PointImage& frame, const RigidMatrix& pose);
    void empty_prediction(const PointImage& frame);
    void update_after_fusion();
    void render_prediction(const RigidMatrix& pose, bool guided);
    /// The model from a pose, in camera coordinates; an empty image of the session's size becomes it.
    void render_view(const RigidMatrix& pose, bool guided, PointImage& view);

    // Recovery, where it is wanted.
    /// Whether the tracked frame shows something else than the prediction, so that its pose is not to be believed.
    bool contradicts_prediction();
    /// False when the tracked step is too large for the prediction to have shown where it ends, and the view from there
    /// does not hold the frame in place.
    bool is_jump_confirmed(const PointImage& frame);
    /// The relative transform of a frame that tracking has lost, found by its features. Needs nothing of the last pose.
    bool recover_pose(const PointImage& frame);
    bool describe_model();
    std::optional<RigidMatrix> aligned_by_features(const PointImage& frame);
    /// The pose near the candidate at which the model looks like the frame, at least that share of whose points it has.
    std::optional<RigidMatrix> refined_and_accepted(const PointImage& frame, const RigidMatrix& candidate,
                                                    double leastExplained);

    bool has_texture_tracker(const char* function) const;
    bool has_texture_map(const char* function) const;

    // Editing, under the step lock.
    template <class Change>
    void edit_volume(const Change& change);
    std::vector<Fusion::SurfacePlace> shown_near(const std::vector<Vector3f>& points, float radius);
    void empty_surface_at(const char* function, const std::vector<Fusion::SurfacePlace>& places);
    void forget_texture_at(const std::vector<Fusion::SurfacePlace>& places);
    void predict_anew();
    template <class Fill>
    void record_edit(const char* function, std::size_t amount, const Fill& fill);
    void note_operation(const char* function, std::size_t amount);
    RetVal set_result_count(const char* function, const char* name, int ResultSettings::*setting, int value, int lowest,
                            int highest);
    void forget_emptied_colors();
    void keep_frame(const PointImage& frame, const RigidMatrix& pose, int times);
    const KeptFrame* kept_frame(const char* function, int index) const;
    PointImage& unpacked_image();
    template <class Wanted>
    void take_out(const KeptFrame& frame, int threads, const Wanted& wanted);
    template <class Chosen>
    std::size_t remove_chosen(const char* function, const KeptFrame& frame, int threads, const Chosen& chosen);

    void initialise_images();
    /// A setting was changed by the exported function of that name.
    RetVal settled(const char* function, std::initializer_list<double> values);
    void forget_model();
    void forget_last_frame(int acceptedFrames);
    bool read_model(std::ifstream& in, const Vector3f& shift);
    void resume_from(std::vector<RigidMatrix> poses);
    void color_mesh(BaseTriMesh& mesh) const;
    void write_debug_mesh(const char* name, const BaseTriMesh& mesh) const;

    const SessionParameters _parameters;
    SessionVolume _volume;                 // written under outer and inner lock
    LeafColors _leafColors;                // under both locks, like the volume
    Fusion::ChangedLeaves _changedLeaves;  // under the inner lock
    DisplayData _display;                  // under the inner lock
    std::unique_ptr<Track::IcpBaseOnCam> _pIcp;
    std::unique_ptr<Track::ParticleTrack> _pParticle;
    void* _featureRegistration = nullptr;               // held ready
    std::unique_ptr<Track::IcpBaseOnCam> _pFeatureIcp;  // with the limits for features; null unless recovery is wanted
    bool _isModelDescribed = false;                     // the feature registration holds the model as it is now
    void* _textureTracker = nullptr;                    // held ready; null without a registered library
    bool _isValid = false;

    // Under the step lock.
    PointImage _mapPre;      // the prediction: the model from the last accepted pose, in camera coordinates
    PointImage _fixedImage;  // copies for the trackers
    PointImage _movingImage;
    PointImage _lastFrame;  // guides the raycast
    ColorCamera _colorCamera;
    PointImage _coloredFrame;                   // a frame that came with an image, with its colours
    PointImage _movedFrame;                     // a frame that came moved by its pose, brought back
    Cloud _currentFrame;                        // points of the incoming frame
    RigidMatrix _relative;                      // result of the ICP
    RigidMatrix _initialPose;                   // result of the particle tracker
    CameraInParam _camera;                      // of the session's images, as the record or `set_campar` says
    std::optional<CameraInParam> _modelCamera;  // that of the first frame; no other one can be fused with it
    int _icpLimitNum;
    float _lineSpeedLimit = 50.0F;     // mm a frame
    float _angularSpeedLimit = 20.0F;  // radians a frame
    int _lastFrameTimeGap = -1;        // as the caller gave it; -1 for none
    FusionScanState _stepState;        // of the running step
    bool _isTextureMapBegun = false;   // the texture tracker has had its first frame
    NonRigid _nonRigid;                // goes with the model
    ResultSettings _resultSettings;
    std::deque<std::string> _operations;  // the edits of the model, a line each
    KeptFrames _keptFrames;
    std::shared_ptr<const Fusion::FrameSettings> _frameSettings;  // of frames as they are integrated now
    std::uint16_t _edits = 0;                                     // edits of the model so far

    std::vector<RigidMatrix> _poses{
        RigidMatrix()};      // camera to model, under the pose lock; one element before the first frame
    FusionScanState _state;  // under the state lock
    FusionSuccessCallBack _onSuccess = nullptr;  // under the callback lock, like the next two
    FusionFailCallBack _onFail = nullptr;
    IllegalInputCallBack _onIllegalInput = nullptr;
    std::atomic<int> _debugLevel;
    std::atomic<int> _validShown{0};

    SessionRecorder _recorder;  // has a lock of its own, behind all others

    std::atomic<bool> _isStepping{false};
    mutable std::mutex _stepMutex;
    mutable std::mutex _outerMutex;
    mutable std::mutex _innerMutex;
    mutable std::mutex _poseMutex;
    mutable std::mutex _stateMutex;
    mutable std::mutex _callbackMutex;

    // Last, so that its thread ends before anything that it uses.
    ParallelInput _parallelInput{[this](QueuedFrame& queued, bool isGivenUp) { work_on(queued, isGivenUp); }};
};

}  // namespace VexelAlgorithm
