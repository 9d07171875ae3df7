// The library's public header: everything an application may use.
//
// Units. Lengths are in millimetres, angles in radians, image positions in pixels with the centre of the first pixel at
// (0, 0), colours in [0, 1] as RGB, times as each function says (reconstruction in ms, frame steps in microseconds).
//
// Frames of reference. A camera looks along +z, x points right and y down. A pose (`RigidMatrix`) takes camera
// coordinates to model coordinates; model coordinates are the camera coordinates of the first frame of a scan. Voxel
// (i, j, k) of a volume has its centre at shift + (i + 0.5, j + 0.5, k + 0.5) pointDis in model coordinates.
//
// Failures. No exception leaves the library, but for std::bad_alloc and std::length_error from operations of the
// geometry types that need memory, which behave as std::vector does. Most functions return a `RetVal`, of which only
// `RET_SUCCESS` is success, or a bool; a function that creates returns null. A failure prints one line on standard
// output, or gives it to the application's function (`foundation/diagnosticsCallBack.h`), and leaves what it was given
// as it was, unless its description says otherwise.
//
// Who frees what. Geometry types, records and volumes are values or ordinary objects of the caller and own their
// arrays. A handle (`void*` from a function named `..._ini`) owns everything behind it and is given back to its
// `..._release` function, exactly once; releasing null only prints a line. Inputs are read during the call and never
// kept; outputs are cleared or resized by the callee.
//
// Threads. Nothing runs in the background, but for the threaded input of a scan session once it is used: a call does
// its work before it returns, on up to as many threads as its object is configured for. Different objects may be used
// from different threads at once. One object may be read from several threads; a call that changes it must be alone on
// it unless its description permits an overlap. With one thread configured, the same input gives the same bytes.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "SpeckleRebCPU/speckleRebuild.h"
#include "exposure/autoExposure.h"
#include "foundation/BaseTriMesh.h"
#include "foundation/CameraInParam.h"
#include "foundation/Cloud.h"
#include "foundation/CloudWithWeight.h"
#include "foundation/ColorAndPoint.h"
#include "foundation/CommonParameter.h"
#include "foundation/DataArchiveConfig.h"
#include "foundation/FusionParameter.h"
#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/RigidMatrix.h"
#include "foundation/TextureParam.h"
#include "foundation/TrackParmeter.h"
#include "foundation/TriMesh.h"
#include "foundation/diagnosticsCallBack.h"
#include "foundation/meshExport.h"
#include "foundation/parameterCheck.h"
#include "foundation/parameterPrint.h"
#include "foundation/types.h"
#include "fusion/FusionTsdf.h"
#include "fusion/LaserGrid.h"
#include "fusion/LeafNormal.h"
#include "fusion/rayCast.h"
#include "fusiontrackoperation/FusionScanState.h"
#include "fusiontrackoperation/FusionparallelInputData.h"
#include "fusiontrackoperation/sessionCallbacks.h"
#include "platform/featureRegistration.h"
#include "platform/textureTracking.h"
#include "readCaliData/CaliParReadIn.h"
#include "track/IcpBaseOnCam.h"
#include "track/IcpOnImage.h"
#include "track/ParticleTrack.h"

namespace VexelAlgorithm {

// ---- scan session -----------------------------------------------------------------------------------
//
// A session tracks the frames of a hand-held scan against the model that they build, and fuses them. Frames are in
// camera coordinates (mm) of width x height = imageSize / sample slots, with normals, weights and flags, and carry the
// camera of the sub-sampled image. Model coordinates are the camera coordinates of the first frame.
//
// Every function takes the handle first. On a null handle it prints "can not run function NAME because pFusionTrack =
// NULL", unless its description gives another line, changes nothing and returns `RET_INI_ERROR`, or what its
// description says. Everything else that cannot be done prints one line and returns false, `RET_INPUT_ERROR` (an
// argument cannot be used), `RET_STATE_ERROR` (not now) or `RET_RUN_FAIL` (memory), and changes nothing.
//
// Threads. Every function may be called from any thread. One frame at a time: a frame given while the session works on
// another one is refused with a line. `get_show_data`, `get_show_data_filter_noise`, `get_current_rt`,
// `get_fusion_scan_state`, `get_model2Volum_shift`, `reset_icpDisThread`, `reset_rata_ray`, `shoule_we_debug_fusion`,
// the threaded input and the callback setters may overlap a frame step and each other, but for the two display
// functions, which are for one thread at a time because the cloud that they return is the session's. All other
// functions wait for a running frame step to end, and a frame waits for them. Nothing may overlap
// `fusiontrack_release`.

/// Prints the records and makes a session from them; null, with lines that say why, when they cannot be used. Settings
/// beyond what a session can take are replaced by the nearest permitted ones, a line each. Which record field does
/// what is told by the records' headers. The second form also makes a texture tracker, where one is registered
/// (`platform/textureTracking.h`); `leftToTexture` takes left camera coordinates to those of the texture camera.
VEXEL_API void* fusion_and_track_ini(const CommonParameter& common, const TrackParmeter& track,
                                     const FusionParameter& fusion) noexcept;
VEXEL_API void* fusion_and_track_ini(const CommonParameter& common, const TrackParmeter& track,
                                     const FusionParameter& fusion, const TextureParam& texture,
                                     const RigidMatrix& leftToTexture) noexcept;

/// The frame step. The first frame becomes the model's origin and is always fused. Every later one is registered
/// against the model as seen from the last accepted pose: particle tracker, then ICP. Accepted, its pose joins the pose
/// list, and the frame is fused. Returns whether the frame was accepted; `get_fusion_scan_state` says why not. A
/// rejected frame leaves model, poses and prediction as they were, so that the scan goes on as soon as a frame sees
/// again what was seen last. `elapsedMicroseconds` is written when a frame other than the first is accepted. Null
/// handle: "fail because pFusionTrack == NULL" and false, for all four forms.
///
/// The slots' colours, where the frame has them and they are not zero, go into the model when the frame is fused: each
/// voxel at the surface keeps the weighted mean of what it was seen in, with |z| of the normal (camera coordinates) as
/// weight. They change neither tracking nor shape.
VEXEL_API bool fusion_and_track(void* handle, const PointImage& frame, int& elapsedMicroseconds) noexcept;
/// `fuse` true: the frame is fused when it is tracked. False: only when more of its points lie on new surface than
/// `contribution` says. Out: whether it was fused.
VEXEL_API bool fusion_and_track(void* handle, const PointImage& frame, int& elapsedMicroseconds, bool& fuse,
                                int contribution) noexcept;
/// The same for a frame with the colour camera's image (without lens distortion), which gives the frame's points their
/// colours, whatever colours the frame has. A point is taken from the left camera, in whose coordinates frames are, to
/// the colour camera by tranLeftToColor and projected by colorImagePar; its colour is that of the image there,
/// interpolated. It has none behind the camera, outside colorImageRange, and where another point of the frame hides it
/// from the camera, ten times the distance of neighbouring points or more in front of it. Frames of
/// `run_speckle_rebuild_cpu` are in coordinates of the rectified left camera: their tranLeftToColor is
/// `CaliParReadIn::get_rectified_to_color`. An image that is not of colorImageSize, or whose bytes do not fit its size,
/// is refused.
VEXEL_API bool fusion_and_track(void* handle, const ColorAndPoint& frame, int& elapsedMicroseconds, bool fuse,
                                int contribution) noexcept;
/// The same with a limit of speed. `contribution` out: the number of the frame's points on new surface, computed when
/// `fuse` is false. `frameTimeGap`: time since the frame before in the application's unit, kept with the session; below
/// 1 the frame is refused with "fusion_and_track fail because frameTimeGap < 1e-6". `speedState` negative: no check; 0:
/// a frame is rejected that moved more than 50 mm or turned more than 20 rad (`set_track_speed_threshold`) since the
/// pose before, and `fuse` stays as it was; positive: such a frame is taken with a line. Out: 1 after a check that let
/// the frame pass.
VEXEL_API bool fusion_and_track_with_speed_limit(void* handle, const PointImage& frame, int& elapsedMicroseconds,
                                                 bool& fuse, int& contribution, int frameTimeGap,
                                                 int& speedState) noexcept;
/// The frame step without fusion (but for the first frame, which starts the model): the pose list grows, and the next
/// prediction is rendered from the new pose. False on a null handle.
VEXEL_API bool track(void* handle, const PointImage& frame, int& elapsedMicroseconds) noexcept;
/// The frame step without tracking: fuses the frame at a pose (camera to model) that the application knows, and renders
/// the prediction from there. On an empty model the frame becomes the first one, at that pose. False on a null handle.
VEXEL_API bool fusion(void* handle, const PointImage& frame, const RigidMatrix& pose,
                      int& elapsedMicroseconds) noexcept;

// Threaded input. Frames are given to a worker thread of the session, which does for each what
// `fusion_and_track_with_speed_limit` does, in the order in which they came, and reports it to one of the callbacks. A
// session that is never given a frame this way has no such thread.
//
// A frame that was taken (`RET_SUCCESS`) is reported exactly once; one that was refused, never. Bad frames are taken
// and reported as illegal. Refused with a line: frames while `maxQueued` of them wait already, at once or after
// `waitMilliseconds` (`RET_STATE_ERROR`); while the input is paused (`RET_PAUSED`, "illegal data input because _isPause
// == true "), which also ends a wait for room; while the session is being reset (`RET_STATE_ERROR`); settings out of
// their range (`RET_INPUT_ERROR`). The frame in work does not count as waiting. Inside a callback nothing waits for
// room.
//
// `fusion_reset`, its two sisters and `fusiontrack_release` let the frame in work end, have those that wait reported to
// the fail callback as given up, and end the thread before they do anything else; so nobody may wait inside a callback
// for a thread that is in one of them. Inside a callback they are refused with a line (`RET_STATE_ERROR`). The worker
// waits for a direct frame step to end; a direct one that comes while it works is refused as busy. While frames are
// given with `showData`, the display functions are for the callbacks only. Null handle: the usual line and
// `RET_INPUT_ERROR`, for all of these.

/// Queues a frame; the first form copies it, the second takes it over unless it is refused. A colour image that came
/// before with the same `frameId` goes with it.
VEXEL_API RetVal fusion_and_track_parallel(void* handle, const PointImage& frame,
                                           const FusionparallelInputData& data) noexcept;
VEXEL_API RetVal fusion_and_track_parallel(void* handle, PointImage&& frame,
                                           const FusionparallelInputData& data) noexcept;
/// The same for a frame whose colour image comes by `fusion_and_track_parallel_load_color`, before it or after. When
/// its turn comes it waits for the image until `colorWaitMilliseconds` after its arrival, and then goes on without.
VEXEL_API RetVal fusion_and_track_parallel_load_cloud(void* handle, const PointImage& frame,
                                                      const FusionparallelInputData& data) noexcept;
VEXEL_API RetVal fusion_and_track_parallel_load_cloud(void* handle, PointImage&& frame,
                                                      const FusionparallelInputData& data) noexcept;
/// The colour image of the frame of this id, from which the frame takes its colours as by `fusion_and_track`. The
/// callbacks find it in the frame's input data; that is all that is done with it in a session without a colour camera
/// (colorImageSize (0, 0)). Also taken while paused. Up to 16 images wait for their frames; one more drops the oldest,
/// with a line. Reset forgets them. An image without pixels, whose bytes do not fit its size, or that is not of
/// colorImageSize: `RET_INPUT_ERROR`.
VEXEL_API RetVal fusion_and_track_parallel_load_color(void* handle, const ColorImage& color,
                                                      std::int64_t frameId) noexcept;
/// From now on no frame is taken and none begun; those that wait stay. Waits for the frame in work and its callback to
/// end; if they have not after 5 s, says "fusion_pause fail ", goes on as before and returns `RET_RUN_FAIL`. Inside a
/// callback it takes effect at once and waits for nothing. A pause outlasts a reset.
VEXEL_API RetVal fusion_paralle_pause(void* handle) noexcept;
/// Ends the pause, if there is one.
VEXEL_API RetVal fusion_paralle_start(void* handle) noexcept;

/// Points (mm, model coordinates) of the model's surface, about one a voxel, with normals that point out of the surface
/// and colours: that of the model, or `colorOnInvaildPoint` where it has none. Each call brings up to date what frames
/// have changed since the one before; its cost follows that and not the size of the model. A place of the surface has
/// one point, which moves with it and goes with it; the order of the points changes. The cloud belongs to the session,
/// stays as it is during frame steps and is valid until the next display, edit, reset or release call on the handle.
/// Waits while a frame is integrated, not while it is tracked or rendered. Null handle: "fail because pFusionTrack =
/// NULL" and an empty cloud.
VEXEL_API const Cloud& get_show_data(void* handle) noexcept;
/// The same without points that rest on fewer than three measurements. The first call goes over all points.
VEXEL_API const Cloud& get_show_data_filter_noise(void* handle) noexcept;
/// Pose (camera to model) of the last accepted frame; the identity before the first one and for a null handle.
VEXEL_API RigidMatrix get_current_rt(void* handle) noexcept;
/// Voxel edge (mm) of the model; 0 for a null handle.
VEXEL_API float get_current_point_dis(void* handle) noexcept;
/// What happened to the last frame that was not refused as busy.
VEXEL_API RetVal get_fusion_scan_state(void* handle, FusionScanState& state) noexcept;

// Questions about a pose (camera to model) as the next one after those of the accepted frames. They wait for a running
// frame step. A step is the motion relative to the pose before. False, with a line, for a pose that is no rigid motion
// and for a null handle.

/// Whether the step to the pose repeats the last step, as at constant speed: the two differ by at most a quarter of the
/// larger one, or 1 mm, in translation, and a quarter or 0.01 rad in rotation. False with fewer than two poses.
VEXEL_API bool is_uniform_motion(void* handle, const RigidMatrix& pose) noexcept;
/// Whether the step to the pose turns back: by at least 0.01 rad, about an axis more than 120 degrees from that of the
/// latest of the last 30 steps that turned as much. False when none has.
VEXEL_API bool is_rotation_inversed(void* handle, const RigidMatrix& pose) noexcept;
/// Whether reconstruction has to begin anew at the pose because the frame before does not tell where the surface is:
/// the step is longer than 20 mm or turns by more than 0.2 rad, or there is no accepted frame.
VEXEL_API bool is_need_seq_rebuild(void* handle, const RigidMatrix& pose) noexcept;

// Texture tracking, over the tracker of a session made with a `TextureParam` (`platform/textureTracking.h`). Its map
// and poses stand beside those of the model; the frame step does not use them. Without a tracker: "can not run function
// NAME because no texture tracker is linked" and `RET_STATE_ERROR`, or false. `RET_RUN_FAIL` when the tracker fails.

/// Feeds the tracker a frame (as for the frame step) and the texture image of the same instant. The first frame since
/// the start or `fusion_reset` begins the map, at the identity. Later ones are tracked: `pose` (left camera to map)
/// goes in as the expected pose and comes out as the found one.
VEXEL_API RetVal texture_pre_scan(void* handle, const PointImage& frame, const vexel_sfm::TextureImage& image,
                                  RigidMatrix& pose) noexcept;
/// The tracker's features (pixels) of an image that is not kept.
VEXEL_API RetVal get_feature_frame(void* handle, const vexel_sfm::TextureImage& image,
                                   std::vector<Vector2f>& features) noexcept;
/// Makes the tracker's last frame one to rely on: its pose becomes the given one, say that of the frame step.
/// `RET_STATE_ERROR` while the map is empty.
VEXEL_API RetVal set_key_frame(void* handle, const RigidMatrix& pose) noexcept;
/// Whether the pose of the tracker's last frame, found from features alone, agrees with the given one within 5 mm and
/// 0.05 rad. False, with a line, while the map is empty.
VEXEL_API bool is_feature_aline_right(void* handle, const RigidMatrix& pose) noexcept;

// A deformation of the model that the application has found, kept with the session: a reference model and a
// displacement for each of its vertices. The session itself deforms nothing by it: results and display stay those of
// the rigid model. Reset forgets both; a project does not hold them.

/// Model coordinates, mm. Forgets the field. An empty one takes model and field away.
VEXEL_API RetVal set_nonrigid_refmodel(void* handle, const BaseTriMesh& model) noexcept;
/// Displacements (mm, model coordinates), one a vertex of the reference model, or none to take the field away.
/// `RET_STATE_ERROR` without a reference model.
VEXEL_API RetVal set_nonrigid_field(void* handle, const std::vector<Vector3f>& field) noexcept;
/// Whether no field is kept; true for a null handle.
VEXEL_API bool is_nonrigid_fileld_empty(void* handle) noexcept;

/// Numbers of display points; 0 for a null handle. The first: what the last display call or edit has left in the cloud,
/// for buffers to be made. The second brings the display up to date and counts the points of
/// `get_show_data_filter_noise`, so that it is a display call like that one; the third gives what it counted last,
/// without waiting for anything.
VEXEL_API int get_show_num_ini(void* handle) noexcept;
VEXEL_API int count_valid_num_of_show_cloud(void* handle) noexcept;
VEXEL_API int get_valid_count_of_show_cloud(void* handle) noexcept;

/// The model as a triangle mesh (mm, model coordinates) with vertex normals: marching cubes over everything that was
/// fused, without connected pieces of fewer than 100 triangles (or as the settings below have it). `pointDis`: 0 or at
/// most the voxel edge for all vertices; more keeps one vertex in each cube of that edge (mm). An empty model gives an
/// empty mesh and success. At a debug level above 0 prints a line that begins with "Mc Time is:" and writes
/// "mc_result.obj" (all that marching cubes found), "Mc_Opt_result.obj" (the result) and "ErrorBastriMesh.obj"
/// (triangles of the result at edges that are not manifold) to outputPath, each unless it would be empty. Once a frame
/// with colours has been fused the mesh has vertex colours, `colorOnInvaildPoint` where there is none. The first
/// form runs on OpenMP, the second on TBB; their results are the same.
VEXEL_API RetVal get_fusion_result(void* handle, float pointDis, BaseTriMesh& mesh) noexcept;
VEXEL_API RetVal get_fusion_result_tbb(void* handle, float pointDis, BaseTriMesh& mesh) noexcept;
/// Corners (mm, model coordinates) of the box around the model's surface. `RET_STATE_ERROR` while there is none.
VEXEL_API RetVal get_model_bounding_box(void* handle, Vector3f& low, Vector3f& high) noexcept;

// Settings of the final mesh, from the next `get_fusion_result` on. Its steps in their order: vertices off the tangent
// plane, small pieces, smoothing, Gaussian smoothing, normals, spacing, smoothing of normals.

/// Which steps follow marching cubes: dropping small pieces (at first true); five steps of smoothing that keeps the
/// volume (Taubin, 1995; borders stay; at first false); vertex normals (at first true; without them the mesh has none).
VEXEL_API RetVal set_fusion_result_opt(void* handle, bool dropPieces, bool smooth, bool normals) noexcept;
/// Gaussian smoothing over so many rings of neighbouring vertices, 0 (at first: none) to 64; the standard deviation of
/// one ring is the voxel edge. Vertices on borders stay. Smooths noise and shrinks what is finely curved.
VEXEL_API RetVal reset_final_gauss_smooth_window(void* handle, int window) noexcept;
/// Vertex normals are the mean over so many rings of triangles, 1 (at first: those at the vertex) to 64.
VEXEL_API RetVal reset_final_normal_window(void* handle, int window) noexcept;
/// Connected pieces with fewer triangles are dropped; at first 100, 0 keeps all.
VEXEL_API RetVal reset_final_isolated_island_delete(void* handle, int triangles) noexcept;
/// Drops a vertex that lies farther from the tangent plane of its neighbours than so many times their mean distance
/// from it: spikes from about 0.5 on. 0 (at first) drops none.
VEXEL_API RetVal reset_delete_distance_ratio_with_tanget_plane(void* handle, float ratio) noexcept;

/// Writes the voxels of the model as text, a line each: centre (mm, model coordinates), mean signed distance (mm), sum
/// of weights, number of contributions. The first form those at most a voxel from the surface, the second all.
/// `RET_INPUT_ERROR` for an empty path, `RET_RUN_FAIL` when the file cannot be written; an older file then stays.
VEXEL_API RetVal output_tree(void* handle, const std::string& path) noexcept;
VEXEL_API RetVal output_whole_tree(void* handle, const std::string& path) noexcept;
/// Writes the edits of this model as text, the newest 4096, a line each: accepted frames before it, name of the
/// function, number of points or frames (0 where neither was given).
VEXEL_API RetVal output_operate_record(void* handle, const std::string& path) noexcept;

// Editing. What is deleted is gone from the model, and with it from display, prediction, mesh and saved project; frames
// that come later may put surface there again. Each call brings the display up to date, so it ends the validity of the
// display cloud like a display call, and renders the prediction anew. The texture tracker forgets its points at deleted
// places. A selection of nothing and an index that is out of range are `RET_INPUT_ERROR` and change nothing. An edit
// that leaves no surface at all ends like `fusion_tree_reset`: the next frame is a first one.

/// Deletes the surface at display points: indices into the cloud that `get_show_data` returned last, in any order. The
/// hole is up to a voxel wider than the selection, because neighbouring points share voxels. Surface that faces the
/// other way stays where it is more than about fusionDataSize(0) / 2 voxels behind the points.
VEXEL_API RetVal delete_selected_point(void* handle, const std::vector<int>& selected) noexcept;
/// The same for all surface nearer than `radius` (mm, positive) to one of the points (model coordinates; those that are
/// not finite select nothing). It needs no indices, which change while the scan goes on. `RET_INPUT_ERROR` when no
/// surface is near.
VEXEL_API RetVal delete_point_when_scan(void* handle, const Cloud& points, float radius) noexcept;
/// The same for the points that are marked `VertexFlag::Deleted` in a copy of the display cloud, however old: surface
/// within half a voxel of them.
VEXEL_API RetVal delete_point_when_scan_accord_delete(void* handle, const Cloud& marked) noexcept;
/// Deletes what rests on fewer than `minContributions` (above 1) measurements, voxel by voxel. `RET_STATE_ERROR` while
/// the model is empty.
VEXEL_API RetVal delete_unStable(void* handle, int minContributions) noexcept;

// Editing by frames. A frame is numbered by its place in the pose list: `acceptedFrames` - 1 of the scan state after
// its step. The points of fused frames are kept with their floats, 32 bytes each, as far as the memory goes
// (`set_kept_frame_memory`); then the oldest frames make room. A frame that is not kept, or not any more, that was only
// tracked, or that a project brought, gives a line and `RET_INPUT_ERROR`. Taking out subtracts from each voxel what the
// frame added, so that what other frames saw stays, but for the rounding of one sum; a voxel that no other frame has
// seen is empty to the bit. Where surface was deleted in between, nothing is subtracted. Colours go with a voxel that
// becomes empty; in others the mean keeps the frame's share. The pose list stays.

/// Takes points of one frame out of the model: slots of its image, y * width + x. Those that were not fused are passed
/// over; `RET_INPUT_ERROR` when none was. The first form works on one thread, with the same bytes on every run, the
/// second on all.
VEXEL_API RetVal delete_single_frame_point(void* handle, int frame, const std::vector<int>& selected) noexcept;
VEXEL_API RetVal delete_single_frame_point_tbb(void* handle, int frame, const std::vector<int>& selected) noexcept;
/// Takes a whole frame, or several at once, out of the model; they are kept no longer.
VEXEL_API RetVal delete_frame_point(void* handle, int frame) noexcept;
VEXEL_API RetVal delete_frame_point_new(void* handle, const std::vector<int>& frames) noexcept;
/// The same for a frame that the application has made a key frame.
VEXEL_API RetVal delete_key_frame(void* handle, int frame) noexcept;
/// Takes out the points of one frame that lie nearer than `radius` (mm, positive) to one of the points (model
/// coordinates), such as display points that the application has selected.
VEXEL_API RetVal map_on_frame_delete_point(void* handle, int frame, const Cloud& points, float radius) noexcept;
/// Takes out the points of one frame that lie farther than `distance` (mm, positive) from the surface that all frames
/// make together, by the trilinear sample of the volume or, without one, the nearest voxel
/// around the point; where neither is known points stay. Finding none is a success.
VEXEL_API RetVal fusion_single_frame_filtering_using_tsdf(void* handle, int frame, float distance) noexcept;
/// Marks the points of a cloud in model coordinates, a deformed model for instance, with `VertexFlag::Deleted` that lie
/// farther than `distance` (mm, positive) from the surface or where no surface is known; other marks stay, and
/// `Cloud::squeeze` drops marked points. The model is not changed. `RET_STATE_ERROR` while it is empty. The second form
/// is for a device; without one it does the same on the processor.
VEXEL_API RetVal fusion_nonrigid_delete_points_through_tsdf(void* handle, Cloud& cloud, float distance) noexcept;
VEXEL_API RetVal fusion_nonrigid_gpu_delete_points_through_tsdf(void* handle, Cloud& cloud, float distance) noexcept;
/// Memory (MiB) for the points of fused frames; at first 512. Less than is in use drops the oldest frames; 0 keeps
/// none.
VEXEL_API RetVal set_kept_frame_memory(void* handle, int mebibytes) noexcept;

/// Voxel edge, mm. Only while the model is empty (`RET_STATE_ERROR`).
VEXEL_API RetVal reset_Point_dis(void* handle, float pointDis) noexcept;
/// Largest mean point-to-plane distance (mm) of an accepted registration, from the next frame on.
VEXEL_API RetVal reset_icpDisThread(void* handle, float icpDisThread) noexcept;
/// Least shares, in [0, 1), of prediction and frame that must end as correspondences, from the next frame on.
VEXEL_API RetVal reset_rata_ray(void* handle, const Vector2f& rata) noexcept;
/// Smallest eigenvalue of the ICP's normal matrix from which on a registration counts as stable; at first 5. Only the
/// scan state tells.
VEXEL_API RetVal set_icpStableThreadhold(void* handle, float threshold) noexcept;
/// Shares of the ICP's correspondences that are kept, the nearest ones, in the first and in the fine iterations, each
/// above 0 and below 1; at first 0.7 and 0.9. Frames with outliers, at depth edges say, want less, noisy frames without
/// them more.
VEXEL_API RetVal set_icpKeepRatio(void* handle, const Vector2f& keepRatio) noexcept;
/// Recovery with features, off at first. While it is on, a frame that tracking loses (`isLost`) is aligned with the
/// whole model by the shapes of its surface, wherever the scanner was before, and refined by an ICP with the limits for
/// features of the records: icpDisFeature, icpDisAvgFeatureThread, icpRataRayFeature, fusionLimitNumFeature. The pose
/// is taken when the frame then shows what the model has: at least six tenths of its points on the model's surface, at
/// most 4 % of what both show in contradiction, no motion left free. A frame that fits in more than one pose, as on
/// symmetric objects, planes and spheres, stays lost; of a symmetric object of which only some sides were scanned the
/// others look like these, and are taken for them.
///
/// Found again, the frame is accepted (`FrameOutcome::Recovered`) without a speed check and not fused, also as the
/// step's `fuse` says; tracking goes on from there with the next one. Not found, it is rejected as without recovery,
/// and nothing changes. Ordinary tracking is believed only where at most a tenth contradicts, and after a step of more
/// than 20 mm or 0.2 rad only where the model as seen from the new pose holds the frame there, by the same ICP; other
/// frames count as lost, and are rejected as `FrameOutcome::Contradicted` when they are not recovered.
///
/// Checking a large step takes the time of a prediction and an ICP more. A lost frame takes the time of some 150 ms of
/// processing more, the first one after a fusion about twice that; the description of the model takes some 10 MB at
/// most. Models with more than 100000 cubes of disUniform on their surface are not searched, with a line.
/// `RET_STATE_ERROR` with a line when disUniform or icpDisFeature are not usable.
VEXEL_API RetVal set_feature_recovery(void* handle, bool isWanted) noexcept;
/// Limits of the speed check: translation (mm) and largest angle about an axis (radians) from frame to frame.
VEXEL_API RetVal set_track_speed_threshold(void* handle, float lineSpeed, float angularSpeed) noexcept;
/// Edge, in voxels, of the cube around a point whose voxels the point may change, 1 to 63, as given. Null handle:
/// `RET_INPUT_ERROR`.
VEXEL_API RetVal fusion_set_fusionrange(void* handle, int fusionRange) noexcept;
/// Intrinsics (pixels) of the full-resolution camera. Frames must carry them, divided by `sample`, from now on; the
/// prediction is rendered anew from the current pose, of what lies inside viewBox.
VEXEL_API RetVal set_campar(void* handle, const CameraInParam& campar) noexcept;
/// Model coordinates (mm) of the corner of voxel (0, 0, 0), instead of the place that the first frame would choose;
/// zero for that. Only while the model is empty (`RET_STATE_ERROR`).
VEXEL_API RetVal set_treeShift(void* handle, const Vector3f& shift) noexcept;
VEXEL_API RetVal get_treeShift(void* handle, Vector3f& shift) noexcept;
/// The shift as the first frame left it; zero before. A point of the model minus it is where the point lies in the
/// volume, mm.
VEXEL_API RetVal get_model2Volum_shift(void* handle, Vector3f& shift) noexcept;

/// Forgets model, poses, display and scan state; the next frame is a first one and places the volume anew. Settings
/// stay. The first form resets the texture tracker too (`RET_RUN_FAIL` when that fails, all else being done).
VEXEL_API RetVal fusion_reset(void* handle) noexcept;
VEXEL_API RetVal fusion_reset_withoutTex(void* handle) noexcept;
/// Forgets model, poses and display; what `get_fusion_scan_state` tells of the last frame stays.
VEXEL_API RetVal fusion_tree_reset(void* handle) noexcept;
/// Destroys the session and nulls the caller's handle. Inside a callback `RET_STATE_ERROR`, and the session stays. Null
/// already: "can not run function fail fusiontrack_release
/// because pFusionTrack = NULL".
VEXEL_API RetVal fusiontrack_release(void*& handle) noexcept;

/// Writes the session to a binary stream that the application has opened: poses, model and display points, in the form
/// of docs/project-format.md. The display points are those of the last `get_show_data`; without any the project cannot
/// be saved. The session stays as it is. Prints a line for each section; true when every byte went out. A file is whole
/// only then: write beside the final name and rename. Null handle: "fail because pFusionTrack = NULL" and false.
VEXEL_API bool save_project(void* handle, std::ofstream& file) noexcept;
/// Replaces the session's model by that of a project, which must have been saved by a session of the same treeDepth and
/// voxel size; the scan goes on where it stopped, with the camera and all other settings of this session. The display
/// is what it was when the project was saved, and all leaves count as unchanged. False with one line, and the session
/// as it was, for what is no project, another version, poses that are none and another volume; for damage behind these
/// as after `fusion_tree_reset`, so that it can be used again. Memory and time stay in proportion to the bytes read,
/// whatever they say. Null handle as for `save_project`.
VEXEL_API bool read_project(void* handle, std::ifstream& file) noexcept;

/// Stores a function for the threaded input, null for none; direct frame steps call none of them. Null handle: "can not
/// run this function because pFusionTrack = NULL".
VEXEL_API void set_fusion_success_call_back(void* handle, FusionSuccessCallBack callback) noexcept;
VEXEL_API void set_fusion_fail_call_back(void* handle, FusionFailCallBack callback) noexcept;
VEXEL_API void set_illegal_input_call_back(void* handle, IllegalInputCallBack callback) noexcept;

/// Debug level: above 0 a line of times for each frame, and the files of `get_fusion_result`; it is also handed to the
/// trackers. The bool means nothing. Null handle: "cant not run function named shoule_we_debug_fusion because pTemp ==
/// NULL " without a line end.
VEXEL_API RetVal shoule_we_debug_fusion(void* handle, bool ignored, int level) noexcept;

// Debug recording. While both flags of `DataArchiveConfig::global()` are set, a session writes what it was made from,
// each frame before its step and what came of it after, changed settings and edits to a file of its own in the store
// directory, announced with "Opened testbug file: " and its name. When a file cannot be written, one line says so and
// the scan goes on without. `vexel-scan replay` lists and replays such files; docs/debug-recording.md tells their form.

/// Writes the last edit operation to the recording, if it is not there yet; a second call writes nothing. Does nothing
/// while the session does not record.
VEXEL_API RetVal edit_testbug_write(void* handle) noexcept;

}  // namespace VexelAlgorithm
