#include "algorithmQorInclude.h"

#include <memory>
#include <utility>

#include "foundation/handle.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/motionTests.h"

namespace VexelAlgorithm {
namespace {

void* make_session(const CommonParameter& common, const TrackParmeter& track, const FusionParameter& fusion,
                   const TextureSetup* texture) {
    print_line("parameter output in function fusion_and_track_ini");
    print_parameter(common);
    print_parameter(track);
    print_parameter(fusion);
    if (const auto reason = find_unusable(common, track)) {
        print_line("fusion_and_track_ini: " + *reason);
        print_line("error input");
        return nullptr;
    }
    auto session = std::make_unique<FusionTrack>(make_session_parameters(common, track, fusion, FixedParameters()),
                                                 texture != nullptr, texture != nullptr ? *texture : TextureSetup());
    if (!session->is_valid()) {
        print_line("error input");
        return nullptr;
    }
    session->recorder().begin({common, track, fusion, texture != nullptr ? std::optional(*texture) : std::nullopt});
    return session.release();
}

constexpr ExportedFunction FRAME_STEP{"fusion_and_track", null_text::FRAME_STEP};

constexpr ExportedFunction session_function(std::string_view name) {
    return {name, null_text::can_not_run(name)};
}

/// The common case: the line with the function's name and `RET_INI_ERROR` for a null handle.
template <class Body>
RetVal on_session(void* handle, std::string_view name, Body&& body) noexcept {
    return on_handle<FusionTrack, RetVal>(handle, session_function(name), {RET_INI_ERROR, RET_RUN_FAIL},
                                          std::forward<Body>(body));
}

/// The same for the threaded input, which answers a null handle with `RET_INPUT_ERROR`.
template <class Body>
RetVal on_parallel_input(void* handle, const char* name, const Body& body) noexcept {
    return on_handle<FusionTrack, RetVal>(handle, session_function(name), {RET_INPUT_ERROR, RET_RUN_FAIL},
                                          [&](FusionTrack& session) { return body(session.parallel_input(), name); });
}

template <class Frame>
RetVal load_frame(void* handle, const char* name, Frame&& frame, const FusionparallelInputData& data,
                  ParallelInput::Color color) noexcept {
    return on_parallel_input(handle, name, [&](ParallelInput& input, const char* function) {
        return input.load(function, std::forward<Frame>(frame), data, color);
    });
}

bool test_motion(void* handle, const char* name, const RigidMatrix& pose, FusionTrack::MotionTest test) noexcept {
    return on_handle<FusionTrack, bool>(handle, session_function(name), {false, false},
                                        [&](FusionTrack& session) { return session.test_motion(name, pose, test); });
}

template <class Callback>
void store_callback(void* handle, std::string_view name, Callback callback) noexcept {
    on_handle<FusionTrack>(handle, {name, null_text::CALL_BACK_SETTER},
                           [&](FusionTrack& session) { session.set_callback(callback); });
}

const Cloud& empty_cloud() noexcept {
    static const Cloud cloud;
    return cloud;
}

}  // namespace

void* fusion_and_track_ini(const CommonParameter& common, const TrackParmeter& track,
                           const FusionParameter& fusion) noexcept {
    return guarded<void*>("fusion_and_track_ini", nullptr,
                          [&] { return make_session(common, track, fusion, nullptr); });
}

void* fusion_and_track_ini(const CommonParameter& common, const TrackParmeter& track, const FusionParameter& fusion,
                           const TextureParam& texture, const RigidMatrix& leftToTexture) noexcept {
    return guarded<void*>("fusion_and_track_ini", nullptr, [&] {
        const TextureSetup setup{texture, leftToTexture};
        return make_session(common, track, fusion, &setup);
    });
}

bool fusion_and_track(void* handle, const PointImage& frame, int& elapsedMicroseconds) noexcept {
    return on_handle<FusionTrack, bool>(handle, FRAME_STEP, {false, false}, [&](FusionTrack& session) {
        bool fuse = true;
        int contribution = 0, speedState = -1;
        return session.frame_step(frame, elapsedMicroseconds, fuse, contribution, -1, speedState);
    });
}

bool fusion_and_track(void* handle, const PointImage& frame, int& elapsedMicroseconds, bool& fuse,
                      int contribution) noexcept {
    return on_handle<FusionTrack, bool>(handle, FRAME_STEP, {false, false}, [&](FusionTrack& session) {
        int speedState = -1;
        return session.frame_step(frame, elapsedMicroseconds, fuse, contribution, -1, speedState);
    });
}

bool fusion_and_track(void* handle, const ColorAndPoint& frame, int& elapsedMicroseconds, bool fuse,
                      int contribution) noexcept {
    return on_handle<FusionTrack, bool>(handle, FRAME_STEP, {false, false}, [&](FusionTrack& session) {
        return session.frame_step(frame, elapsedMicroseconds, fuse, contribution);
    });
}

bool fusion_and_track_with_speed_limit(void* handle, const PointImage& frame, int& elapsedMicroseconds, bool& fuse,
                                       int& contribution, int frameTimeGap, int& speedState) noexcept {
    return on_handle<FusionTrack, bool>(handle, FRAME_STEP, {false, false}, [&](FusionTrack& session) {
        if (static_cast<double>(frameTimeGap) < 1e-6) {
            print_line("fusion_and_track fail because frameTimeGap < 1e-6");
            return false;
        }
        return session.frame_step(frame, elapsedMicroseconds, fuse, contribution, frameTimeGap, speedState);
    });
}

bool track(void* handle, const PointImage& frame, int& elapsedMicroseconds) noexcept {
    return on_handle<FusionTrack, bool>(handle, session_function("track"), {false, false}, [&](FusionTrack& session) {
        return session.track(frame, elapsedMicroseconds);
    });
}

bool fusion(void* handle, const PointImage& frame, const RigidMatrix& pose, int& elapsedMicroseconds) noexcept {
    return on_handle<FusionTrack, bool>(handle, session_function("fusion"), {false, false}, [&](FusionTrack& session) {
        return session.fusion(frame, pose, elapsedMicroseconds);
    });
}

RetVal fusion_and_track_parallel(void* handle, const PointImage& frame, const FusionparallelInputData& data) noexcept {
    return load_frame(handle, "fusion_and_track_parallel", frame, data, ParallelInput::Color::NotAwaited);
}

RetVal fusion_and_track_parallel(void* handle, PointImage&& frame, const FusionparallelInputData& data) noexcept {
    return load_frame(handle, "fusion_and_track_parallel", std::move(frame), data, ParallelInput::Color::NotAwaited);
}

RetVal fusion_and_track_parallel_load_cloud(void* handle, const PointImage& frame,
                                            const FusionparallelInputData& data) noexcept {
    return load_frame(handle, "fusion_and_track_parallel_load_cloud", frame, data, ParallelInput::Color::Awaited);
}

RetVal fusion_and_track_parallel_load_cloud(void* handle, PointImage&& frame,
                                            const FusionparallelInputData& data) noexcept {
    return load_frame(handle, "fusion_and_track_parallel_load_cloud", std::move(frame), data,
                      ParallelInput::Color::Awaited);
}

RetVal fusion_and_track_parallel_load_color(void* handle, const ColorImage& color, std::int64_t frameId) noexcept {
    constexpr const char* name = "fusion_and_track_parallel_load_color";
    return on_handle<FusionTrack, RetVal>(
        handle, session_function(name), {RET_INPUT_ERROR, RET_RUN_FAIL},
        [&](FusionTrack& session) { return session.load_color(name, color, frameId); });
}

RetVal fusion_paralle_pause(void* handle) noexcept {
    return on_parallel_input(handle, "fusion_paralle_pause",
                             [](ParallelInput& input, const char*) { return input.pause(); });
}

RetVal fusion_paralle_start(void* handle) noexcept {
    return on_parallel_input(handle, "fusion_paralle_start", [](ParallelInput& input, const char*) {
        input.resume();
        return RET_SUCCESS;
    });
}

const Cloud& get_show_data(void* handle) noexcept {
    return on_handle<FusionTrack, const Cloud&>(
        handle, {"get_show_data", null_text::SESSION}, {empty_cloud(), empty_cloud()},
        [](FusionTrack& session) -> const Cloud& { return session.get_show_data(); });
}

const Cloud& get_show_data_filter_noise(void* handle) noexcept {
    return on_handle<FusionTrack, const Cloud&>(
        handle, session_function("get_show_data_filter_noise"), {empty_cloud(), empty_cloud()},
        [](FusionTrack& session) -> const Cloud& { return session.get_show_data_filter_noise(); });
}

RigidMatrix get_current_rt(void* handle) noexcept {
    return on_handle<FusionTrack, RigidMatrix>(handle, session_function("get_current_rt"), {{}, {}},
                                               [](FusionTrack& session) { return session.get_current_rt(); });
}

float get_current_point_dis(void* handle) noexcept {
    return on_handle<FusionTrack, float>(handle, session_function("get_current_point_dis"), {0.0F, 0.0F},
                                         [](FusionTrack& session) { return session.get_current_point_dis(); });
}

RetVal get_fusion_scan_state(void* handle, FusionScanState& state) noexcept {
    return on_session(handle, "get_fusion_scan_state", [&](FusionTrack& session) {
        state = session.get_fusion_scan_state();
        return RET_SUCCESS;
    });
}

bool is_uniform_motion(void* handle, const RigidMatrix& pose) noexcept {
    return test_motion(handle, "is_uniform_motion", pose, is_uniform_motion);
}

bool is_rotation_inversed(void* handle, const RigidMatrix& pose) noexcept {
    return test_motion(handle, "is_rotation_inversed", pose, is_rotation_inversed);
}

bool is_need_seq_rebuild(void* handle, const RigidMatrix& pose) noexcept {
    return test_motion(handle, "is_need_seq_rebuild", pose, is_need_seq_rebuild);
}

RetVal texture_pre_scan(void* handle, const PointImage& frame, const vexel_sfm::TextureImage& image,
                        RigidMatrix& pose) noexcept {
    return on_session(handle, "texture_pre_scan",
                      [&](FusionTrack& session) { return session.texture_pre_scan(frame, image, pose); });
}

RetVal get_feature_frame(void* handle, const vexel_sfm::TextureImage& image, std::vector<Vector2f>& features) noexcept {
    return on_session(handle, "get_feature_frame",
                      [&](FusionTrack& session) { return session.get_feature_frame(image, features); });
}

RetVal set_key_frame(void* handle, const RigidMatrix& pose) noexcept {
    return on_session(handle, "set_key_frame", [&](FusionTrack& session) { return session.set_key_frame(pose); });
}

bool is_feature_aline_right(void* handle, const RigidMatrix& pose) noexcept {
    return on_handle<FusionTrack, bool>(handle, session_function("is_feature_aline_right"), {false, false},
                                        [&](FusionTrack& session) { return session.is_feature_aline_right(pose); });
}

RetVal set_nonrigid_refmodel(void* handle, const BaseTriMesh& model) noexcept {
    return on_session(handle, "set_nonrigid_refmodel",
                      [&](FusionTrack& session) { return session.set_nonrigid_refmodel(model); });
}

RetVal set_nonrigid_field(void* handle, const std::vector<Vector3f>& field) noexcept {
    return on_session(handle, "set_nonrigid_field",
                      [&](FusionTrack& session) { return session.set_nonrigid_field(field); });
}

bool is_nonrigid_fileld_empty(void* handle) noexcept {
    return on_handle<FusionTrack, bool>(handle, session_function("is_nonrigid_fileld_empty"), {true, true},
                                        [](FusionTrack& session) { return session.is_nonrigid_field_empty(); });
}

RetVal get_fusion_result(void* handle, float pointDis, BaseTriMesh& mesh) noexcept {
    return on_session(handle, "get_fusion_result", [&](FusionTrack& session) {
        return session.get_fusion_result(pointDis, mesh, FusionTrack::Parallel::OpenMp);
    });
}

RetVal get_fusion_result_tbb(void* handle, float pointDis, BaseTriMesh& mesh) noexcept {
    return on_session(handle, "get_fusion_result_tbb", [&](FusionTrack& session) {
        return session.get_fusion_result(pointDis, mesh, FusionTrack::Parallel::Tbb);
    });
}

RetVal get_model_bounding_box(void* handle, Vector3f& low, Vector3f& high) noexcept {
    return on_session(handle, "get_model_bounding_box",
                      [&](FusionTrack& session) { return session.get_model_bounding_box(low, high); });
}

int get_show_num_ini(void* handle) noexcept {
    return on_handle<FusionTrack, int>(handle, session_function("get_show_num_ini"), {0, 0},
                                       [](FusionTrack& session) { return session.get_show_num(); });
}

int count_valid_num_of_show_cloud(void* handle) noexcept {
    return on_handle<FusionTrack, int>(handle, session_function("count_valid_num_of_show_cloud"), {0, 0},
                                       [](FusionTrack& session) { return session.count_valid_shown(); });
}

int get_valid_count_of_show_cloud(void* handle) noexcept {
    return on_handle<FusionTrack, int>(handle, session_function("get_valid_count_of_show_cloud"), {0, 0},
                                       [](FusionTrack& session) { return session.get_valid_shown(); });
}

RetVal output_tree(void* handle, const std::string& path) noexcept {
    return on_session(handle, "output_tree",
                      [&](FusionTrack& session) { return session.output_tree("output_tree", path, false); });
}

RetVal output_whole_tree(void* handle, const std::string& path) noexcept {
    return on_session(handle, "output_whole_tree",
                      [&](FusionTrack& session) { return session.output_tree("output_whole_tree", path, true); });
}

RetVal output_operate_record(void* handle, const std::string& path) noexcept {
    return on_session(handle, "output_operate_record",
                      [&](FusionTrack& session) { return session.output_operate_record(path); });
}

RetVal set_fusion_result_opt(void* handle, bool dropPieces, bool smooth, bool normals) noexcept {
    return on_session(handle, "set_fusion_result_opt",
                      [&](FusionTrack& session) { return session.set_fusion_result_opt(dropPieces, smooth, normals); });
}

RetVal reset_final_gauss_smooth_window(void* handle, int window) noexcept {
    return on_session(handle, "reset_final_gauss_smooth_window",
                      [&](FusionTrack& session) { return session.reset_final_gauss_smooth_window(window); });
}

RetVal reset_final_normal_window(void* handle, int window) noexcept {
    return on_session(handle, "reset_final_normal_window",
                      [&](FusionTrack& session) { return session.reset_final_normal_window(window); });
}

RetVal reset_final_isolated_island_delete(void* handle, int triangles) noexcept {
    return on_session(handle, "reset_final_isolated_island_delete",
                      [&](FusionTrack& session) { return session.reset_final_isolated_island_delete(triangles); });
}

RetVal reset_delete_distance_ratio_with_tanget_plane(void* handle, float ratio) noexcept {
    return on_session(handle, "reset_delete_distance_ratio_with_tanget_plane",
                      [&](FusionTrack& session) { return session.reset_tangent_plane_ratio(ratio); });
}

RetVal delete_selected_point(void* handle, const std::vector<int>& selected) noexcept {
    return on_session(handle, "delete_selected_point", [&](FusionTrack& session) {
        return session.delete_shown_points("delete_selected_point", selected);
    });
}

RetVal delete_point_when_scan(void* handle, const Cloud& points, float radius) noexcept {
    return on_session(handle, "delete_point_when_scan", [&](FusionTrack& session) {
        return session.delete_surface_near("delete_point_when_scan", points.get_vCoords(), radius);
    });
}

RetVal delete_point_when_scan_accord_delete(void* handle, const Cloud& marked) noexcept {
    return on_session(handle, "delete_point_when_scan_accord_delete", [&](FusionTrack& session) {
        return session.delete_marked_points("delete_point_when_scan_accord_delete", marked);
    });
}

RetVal delete_unStable(void* handle, int minContributions) noexcept {
    return on_session(handle, "delete_unStable", [&](FusionTrack& session) {
        return session.delete_unstable("delete_unStable", minContributions);
    });
}

RetVal delete_single_frame_point(void* handle, int frame, const std::vector<int>& selected) noexcept {
    return on_session(handle, "delete_single_frame_point", [&](FusionTrack& session) {
        return session.remove_frame_points("delete_single_frame_point", frame, selected, false);
    });
}

RetVal delete_single_frame_point_tbb(void* handle, int frame, const std::vector<int>& selected) noexcept {
    return on_session(handle, "delete_single_frame_point_tbb", [&](FusionTrack& session) {
        return session.remove_frame_points("delete_single_frame_point_tbb", frame, selected, true);
    });
}

RetVal delete_frame_point(void* handle, int frame) noexcept {
    return on_session(handle, "delete_frame_point",
                      [&](FusionTrack& session) { return session.remove_frames("delete_frame_point", {frame}); });
}

RetVal delete_frame_point_new(void* handle, const std::vector<int>& frames) noexcept {
    return on_session(handle, "delete_frame_point_new",
                      [&](FusionTrack& session) { return session.remove_frames("delete_frame_point_new", frames); });
}

RetVal delete_key_frame(void* handle, int frame) noexcept {
    return on_session(handle, "delete_key_frame",
                      [&](FusionTrack& session) { return session.remove_frames("delete_key_frame", {frame}); });
}

RetVal map_on_frame_delete_point(void* handle, int frame, const Cloud& points, float radius) noexcept {
    return on_session(handle, "map_on_frame_delete_point", [&](FusionTrack& session) {
        return session.remove_frame_near("map_on_frame_delete_point", frame, points.get_vCoords(), radius);
    });
}

RetVal fusion_single_frame_filtering_using_tsdf(void* handle, int frame, float distance) noexcept {
    return on_session(handle, "fusion_single_frame_filtering_using_tsdf", [&](FusionTrack& session) {
        return session.filter_frame("fusion_single_frame_filtering_using_tsdf", frame, distance);
    });
}

RetVal fusion_nonrigid_delete_points_through_tsdf(void* handle, Cloud& cloud, float distance) noexcept {
    return on_session(handle, "fusion_nonrigid_delete_points_through_tsdf", [&](FusionTrack& session) {
        return session.mark_points_off_surface("fusion_nonrigid_delete_points_through_tsdf", cloud, distance);
    });
}

RetVal fusion_nonrigid_gpu_delete_points_through_tsdf(void* handle, Cloud& cloud, float distance) noexcept {
    return on_session(handle, "fusion_nonrigid_gpu_delete_points_through_tsdf", [&](FusionTrack& session) {
        return session.mark_points_off_surface("fusion_nonrigid_gpu_delete_points_through_tsdf", cloud, distance);
    });
}

RetVal set_kept_frame_memory(void* handle, int mebibytes) noexcept {
    return on_session(handle, "set_kept_frame_memory",
                      [&](FusionTrack& session) { return session.set_kept_frame_memory(mebibytes); });
}

RetVal reset_Point_dis(void* handle, float pointDis) noexcept {
    return on_session(handle, "reset_Point_dis",
                      [&](FusionTrack& session) { return session.reset_point_dis(pointDis); });
}

RetVal reset_icpDisThread(void* handle, float icpDisThread) noexcept {
    return on_session(handle, "reset_icpDisThread",
                      [&](FusionTrack& session) { return session.reset_icp_dis_thread(icpDisThread); });
}

RetVal reset_rata_ray(void* handle, const Vector2f& rata) noexcept {
    return on_session(handle, "reset_rata_ray", [&](FusionTrack& session) { return session.reset_rata_ray(rata); });
}

RetVal set_icpStableThreadhold(void* handle, float threshold) noexcept {
    return on_session(handle, "set_icpStableThreadhold",
                      [&](FusionTrack& session) { return session.set_icp_stable_threshold(threshold); });
}

RetVal set_icpKeepRatio(void* handle, const Vector2f& keepRatio) noexcept {
    return on_session(handle, "set_icpKeepRatio",
                      [&](FusionTrack& session) { return session.set_icp_keep_ratio(keepRatio); });
}

RetVal set_feature_recovery(void* handle, bool isWanted) noexcept {
    return on_session(handle, "set_feature_recovery",
                      [&](FusionTrack& session) { return session.set_feature_recovery(isWanted); });
}

RetVal set_track_speed_threshold(void* handle, float lineSpeed, float angularSpeed) noexcept {
    return on_session(handle, "set_track_speed_threshold",
                      [&](FusionTrack& session) { return session.set_track_speed_threshold(lineSpeed, angularSpeed); });
}

RetVal fusion_set_fusionrange(void* handle, int fusionRange) noexcept {
    return on_handle<FusionTrack, RetVal>(handle, session_function("fusion_set_fusionrange"),
                                          {RET_INPUT_ERROR, RET_RUN_FAIL},
                                          [&](FusionTrack& session) { return session.set_fusion_range(fusionRange); });
}

RetVal set_campar(void* handle, const CameraInParam& campar) noexcept {
    return on_session(handle, "set_campar", [&](FusionTrack& session) { return session.set_campar(campar); });
}

RetVal set_treeShift(void* handle, const Vector3f& shift) noexcept {
    return on_session(handle, "set_treeShift", [&](FusionTrack& session) { return session.set_tree_shift(shift); });
}

RetVal get_treeShift(void* handle, Vector3f& shift) noexcept {
    return on_session(handle, "get_treeShift", [&](FusionTrack& session) {
        shift = session.get_tree_shift();
        return RET_SUCCESS;
    });
}

RetVal get_model2Volum_shift(void* handle, Vector3f& shift) noexcept {
    return on_session(handle, "get_model2Volum_shift", [&](FusionTrack& session) {
        shift = session.get_model_to_volume_shift();
        return RET_SUCCESS;
    });
}

RetVal fusion_reset(void* handle) noexcept {
    return on_session(handle, "fusion_reset", [](FusionTrack& session) { return session.reset(true); });
}

RetVal fusion_reset_withoutTex(void* handle) noexcept {
    return on_session(handle, "fusion_reset_withoutTex", [](FusionTrack& session) { return session.reset(false); });
}

RetVal fusion_tree_reset(void* handle) noexcept {
    return on_session(handle, "fusion_tree_reset", [](FusionTrack& session) { return session.reset_tree(); });
}

RetVal fusiontrack_release(void*& handle) noexcept {
    const ExportedFunction function{"fusiontrack_release", null_text::RELEASE};
    const RetVal permission = on_handle<FusionTrack, RetVal>(
        handle, function, {RET_INI_ERROR, RET_RUN_FAIL},
        [](FusionTrack& session) { return session.may_be_released() ? RET_SUCCESS : RET_STATE_ERROR; });
    return permission == RET_SUCCESS ? release_handle<FusionTrack>(handle, function, RET_INI_ERROR) : permission;
}

bool save_project(void* handle, std::ofstream& file) noexcept {
    return on_handle<FusionTrack, bool>(handle, {"save_project", null_text::SESSION}, {false, false},
                                        [&](FusionTrack& session) { return session.save_project(file); });
}

bool read_project(void* handle, std::ifstream& file) noexcept {
    return on_handle<FusionTrack, bool>(handle, {"read_project", null_text::SESSION}, {false, false},
                                        [&](FusionTrack& session) { return session.read_project(file); });
}

RetVal edit_testbug_write(void* handle) noexcept {
    return on_session(handle, "edit_testbug_write", [](FusionTrack& session) {
        session.recorder().write_edit();
        return RET_SUCCESS;
    });
}

void set_fusion_success_call_back(void* handle, FusionSuccessCallBack callback) noexcept {
    store_callback(handle, "set_fusion_success_call_back", callback);
}

void set_fusion_fail_call_back(void* handle, FusionFailCallBack callback) noexcept {
    store_callback(handle, "set_fusion_fail_call_back", callback);
}

void set_illegal_input_call_back(void* handle, IllegalInputCallBack callback) noexcept {
    store_callback(handle, "set_illegal_input_call_back", callback);
}

RetVal shoule_we_debug_fusion(void* handle, bool, int level) noexcept {
    return on_handle<FusionTrack, RetVal>(handle, {"shoule_we_debug_fusion", null_text::FUSION_DEBUG},
                                          {RET_INI_ERROR, RET_RUN_FAIL}, [&](FusionTrack& session) {
                                              session.set_debug_level(level);
                                              return RET_SUCCESS;
                                          });
}

}  // namespace VexelAlgorithm
