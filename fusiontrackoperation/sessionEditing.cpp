// Surface is taken out of the model.
#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "fusion/cameraConstraint.h"
#include "fusion/emptySurface.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/refusal.h"
#include "fusiontrackoperation/replayEdit.h"
#include "platform/pointTree.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t SEARCHES_PER_TASK = 4096;
constexpr int FILTER_RANGE = 3;  // voxels around a point that speak for it where there is no sample

RetVal input_error(const char* function, const std::string& reason) {
    refuse(function, reason);
    return RET_INPUT_ERROR;
}

std::vector<Vector3f> finite_points(const std::vector<Vector3f>& points) {
    std::vector<Vector3f> finite;
    finite.reserve(points.size());
    for (const Vector3f& point : points) {
        if (point.allFinite()) finite.push_back(point);
    }
    return finite;
}

/// Display points that are found again by their place: half a voxel is as far as one moves, and not its neighbour.
float place_tolerance(float pointDis) {
    return 0.5F * pointDis;
}

}  // namespace

// ---- the course of an edit ----------------------------------------------------------------------------

/// Notes an edit of so many points or frames and hands it to the debug recording; `fill(record)` is called only when
/// there is one.
template <class Fill>
void FusionTrack::record_edit(const char* function, std::size_t amount, const Fill& fill) {
    note_operation(function, amount);
    if (!SessionRecorder::is_on()) return;
    EditRecord record;
    record.name = function;
    fill(record);
    _recorder.edit(std::move(record));
}

/// Runs `change(number of the edit)` as the only one who looks at the volume; display and prediction follow.
template <class Change>
void FusionTrack::edit_volume(const Change& change) {
    bool isEmpty = false;
    {
        const std::lock_guard<std::mutex> outer(_outerMutex);
        const std::lock_guard<std::mutex> inner(_innerMutex);
        // Without a new number it cannot be said what came before.
        if (_edits == std::numeric_limits<std::uint16_t>::max()) {
            _keptFrames.clear();
        } else {
            ++_edits;
        }
        change(_edits);
        forget_emptied_colors();
        _display.update(_volume, _changedLeaves);
        isEmpty = _display.points().get_vn() == 0;
    }
    _isModelDescribed = false;
    // Without anything left to track against the next frame begins anew.
    if (isEmpty) return forget_model();
    predict_anew();
}

/// What comes later to the places of deleted surface brings its own colour.
void FusionTrack::forget_emptied_colors() {
    if (_leafColors.is_empty()) return;
    for (const int leaf : _changedLeaves) {
        if (!_volume.get_fusion_tree().leaf_at(leaf).is_used()) _leafColors.forget(leaf);
    }
}

void FusionTrack::predict_anew() {
    _mapPre.setZero();
    // Without a last frame, as after loading, nothing guides the rays.
    render_prediction(get_current_rt(), _lastFrame.count_vaildNum() > 0);
}

// ---- surface ----------------------------------------------------------------------------------------

/// Features on deleted surface would draw the camera to where nothing is.
void FusionTrack::forget_texture_at(const std::vector<Fusion::SurfacePlace>& places) {
    if (!_isTextureMapBegun) return;
    std::vector<Vector3f> points;
    points.reserve(places.size());
    for (const Fusion::SurfacePlace& place : places) points.push_back(place.point);
    vexel_sfm::tbt_deletePoints(_textureTracker, points, _volume.get_pointDis());
}

void FusionTrack::empty_surface_at(const char* function, const std::vector<Fusion::SurfacePlace>& places) {
    // By place: in a replay the display may have another order.
    record_edit(function, places.size(), [&](EditRecord& record) {
        for (const Fusion::SurfacePlace& place : places) record.datas.points.push_back(place.point);
        for (const Fusion::SurfacePlace& place : places) record.datas.points.push_back(place.normal);
    });
    forget_texture_at(places);
    edit_volume([&](std::uint16_t edit) {
        Fusion::empty_surface(_volume.get_fusion_tree(), _volume.get_code_Num(), places, _volume.get_fusionRange(),
                              edit, _changedLeaves);
    });
}

RetVal FusionTrack::delete_shown_points(const char* function, const std::vector<int>& shown) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (shown.empty()) return input_error(function, "no point is selected");
    std::vector<Fusion::SurfacePlace> places;
    places.reserve(shown.size());
    {
        const std::lock_guard<std::mutex> inner(_innerMutex);
        const Cloud& cloud = _display.points();
        for (const int i : shown) {
            const auto point = static_cast<std::size_t>(i);
            if (i < 0 || point >= cloud.get_vn()) {
                return input_error(function,
                                   format_text("index %d is out of range, %zu points are shown", i, cloud.get_vn()));
            }
            places.push_back({cloud.get_vCoord(point), cloud.get_vNrv(point)});
        }
    }
    empty_surface_at(function, places);
    return RET_SUCCESS;
}

/// The display points, brought up to date, that lie within `radius` of one of the points.
std::vector<Fusion::SurfacePlace> FusionTrack::shown_near(const std::vector<Vector3f>& points, float radius) {
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _display.update(_volume, _changedLeaves);
    const Cloud& cloud = _display.points();
    const PointTree tree(points);
    std::vector<std::uint8_t> isNear(cloud.get_vn());
    parallel_ranges(_volume.get_code_Num(), isNear.size(), SEARCHES_PER_TASK, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            isNear[i] = tree.nearest(cloud.get_vCoord(i), radius) != PointTree::NONE ? 1 : 0;
        }
    });
    std::vector<Fusion::SurfacePlace> near;
    for (std::size_t i = 0; i < isNear.size(); ++i) {
        if (isNear[i] != 0) near.push_back({cloud.get_vCoord(i), cloud.get_vNrv(i)});
    }
    return near;
}

RetVal FusionTrack::delete_surface_near(const char* function, const std::vector<Vector3f>& points, float radius) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!(radius > 0.0F) || !std::isfinite(radius)) return input_error(function, "radius is not a positive number");
    const std::vector<Vector3f> usable = finite_points(points);
    if (usable.empty()) return input_error(function, "no point is selected");
    const std::vector<Fusion::SurfacePlace> places = shown_near(usable, radius);
    if (places.empty()) return input_error(function, "no surface is near the points");
    empty_surface_at(function, places);
    return RET_SUCCESS;
}

RetVal FusionTrack::delete_marked_points(const char* function, const Cloud& cloud) {
    if (!cloud.is_legal()) return input_error(function, "the cloud's attributes differ in length");
    std::vector<Vector3f> marked;
    for (std::size_t i = 0; i < cloud.get_vn(); ++i) {
        if (cloud.get_vDeleted(i)) marked.push_back(cloud.get_vCoord(i));
    }
    return delete_surface_near(function, marked, place_tolerance(get_current_point_dis()));
}

RetVal FusionTrack::delete_unstable(const char* function, int minContributions) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (minContributions < 2) return input_error(function, "minContributions is not above 1");
    if (is_model_empty()) {
        refuse(function, "the model is empty");
        return RET_STATE_ERROR;
    }
    record_edit(function, 0, [&](EditRecord& record) { record.datas.ids = {minContributions}; });
    edit_volume([&](std::uint16_t edit) {
        Fusion::empty_unstable(_volume.get_fusion_tree(), _volume.get_code_Num(), minContributions, edit,
                               _changedLeaves);
    });
    return RET_SUCCESS;
}

// ---- frames -----------------------------------------------------------------------------------------

void FusionTrack::keep_frame(const PointImage& frame, const RigidMatrix& pose, int times) {
    if (!_frameSettings) {
        _frameSettings = std::make_shared<const Fusion::FrameSettings>(
            Fusion::FrameSettings{_volume.get_fusion_cone(), _volume.get_fusionRange()});
    }
    const std::lock_guard<std::mutex> poses(_poseMutex);
    _keptFrames.keep(frame, {static_cast<int>(_poses.size()) - 1, times, _edits, pose, _frameSettings});
}

const KeptFrame* FusionTrack::kept_frame(const char* function, int index) const {
    const KeptFrame* const frame = _keptFrames.find(index);
    if (frame == nullptr) refuse(function, format_text("frame %d is not kept", index));
    return frame;
}

/// The image that frames are unpacked into.
PointImage& FusionTrack::unpacked_image() {
    _movedFrame.ini(_parameters.imageSize.x(), _parameters.imageSize.y());
    _movedFrame.disable_vColor();
    _movedFrame.enable_vNormal();
    _movedFrame.enable_vWeight();
    return _movedFrame;
}

/// Takes the frame's points for which `wanted(slot)` out of the volume, under both locks.
template <class Wanted>
void FusionTrack::take_out(const KeptFrame& frame, int threads, const Wanted& wanted) {
    PointImage& image = unpacked_image();
    if (frame.unpack(image, wanted) == 0) return;
    const KeptIntegration& how = frame.integration();
    Fusion::remove_frame(_volume, image, how.pose, *how.settings, how.times, how.edit, threads, _changedLeaves);
}

RetVal FusionTrack::remove_frames(const char* function, std::vector<int> frames) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (frames.empty()) return input_error(function, "no frame is selected");
    std::sort(frames.begin(), frames.end());
    frames.erase(std::unique(frames.begin(), frames.end()), frames.end());
    for (const int index : frames) {
        if (kept_frame(function, index) == nullptr) return RET_INPUT_ERROR;
    }
    record_edit(function, frames.size(), [&](EditRecord& record) {
        record.datas.ids = frames;
        for (const int index : frames) record.rts.push_back(_keptFrames.find(index)->integration().pose);
    });
    edit_volume([&](std::uint16_t) {
        for (const int index : frames) {
            const KeptFrame* const frame = _keptFrames.find(index);
            if (frame == nullptr) continue;
            take_out(*frame, _volume.get_code_Num(), [](std::int32_t) { return true; });
            _keptFrames.forget(index);
        }
    });
    return RET_SUCCESS;
}

/// Takes those points of the frame out for which `chosen(point)`; returns their number.
template <class Chosen>
std::size_t FusionTrack::remove_chosen(const char* function, const KeptFrame& frame, int threads,
                                       const Chosen& chosen) {
    std::vector<std::uint8_t> isChosen(_mapPre.get_vn());
    EditRecord::Datas points;
    frame.for_each([&](const KeptPoint& point) {
        if (!chosen(point)) return;
        isChosen[static_cast<std::size_t>(point.slot)] = 1;
        points.ids.push_back(point.slot);
        points.points.push_back(point.point);
    });
    const std::size_t count = points.ids.size();
    if (count == 0) return 0;
    const int index = frame.integration().index;
    record_edit(function, count, [&](EditRecord& record) {
        record.datas = std::move(points);
        record.datas.ids.insert(record.datas.ids.begin(), index);
        record.rts = {frame.integration().pose};
    });
    const auto is_chosen = [&](std::int32_t slot) { return isChosen[static_cast<std::size_t>(slot)] != 0; };
    edit_volume([&](std::uint16_t) {
        const KeptFrame* const kept = _keptFrames.find(index);
        if (kept == nullptr) return;
        take_out(*kept, threads, is_chosen);
        _keptFrames.forget_points(index, is_chosen);
    });
    return count;
}

RetVal FusionTrack::remove_frame_points(const char* function, int index, const std::vector<int>& slots,
                                        bool isParallel) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (slots.empty()) return input_error(function, "no point is selected");
    const KeptFrame* const frame = kept_frame(function, index);
    if (frame == nullptr) return RET_INPUT_ERROR;
    std::vector<std::uint8_t> isSelected(_mapPre.get_vn());
    for (const int slot : slots) {
        if (slot < 0 || static_cast<std::size_t>(slot) >= isSelected.size()) {
            return input_error(
                function, format_text("index %d is out of range, a frame has %zu points", slot, isSelected.size()));
        }
        isSelected[static_cast<std::size_t>(slot)] = 1;
    }
    const std::size_t count =
        remove_chosen(function, *frame, isParallel ? _volume.get_code_Num() : 1,
                      [&](const KeptPoint& point) { return isSelected[static_cast<std::size_t>(point.slot)] != 0; });
    return count > 0 ? RET_SUCCESS : input_error(function, "none of the selected points was fused");
}

RetVal FusionTrack::remove_frame_near(const char* function, int index, const std::vector<Vector3f>& points,
                                      float radius) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!(radius > 0.0F) || !std::isfinite(radius)) return input_error(function, "radius is not a positive number");
    const std::vector<Vector3f> usable = finite_points(points);
    if (usable.empty()) return input_error(function, "no point is selected");
    const KeptFrame* const frame = kept_frame(function, index);
    if (frame == nullptr) return RET_INPUT_ERROR;
    const PointTree tree(usable);
    const RigidMatrix& pose = frame->integration().pose;
    const std::size_t count = remove_chosen(function, *frame, _volume.get_code_Num(), [&](const KeptPoint& point) {
        return tree.nearest(pose * point.point, radius) != PointTree::NONE;
    });
    return count > 0 ? RET_SUCCESS : input_error(function, "no point of the frame is near the points");
}

RetVal FusionTrack::filter_frame(const char* function, int index, float distance) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!(distance > 0.0F)) return input_error(function, "distance is not a positive number");
    const KeptFrame* const frame = kept_frame(function, index);
    if (frame == nullptr) return RET_INPUT_ERROR;
    Fusion::FieldReader<Fusion::LeafTSDFSpeckle> field(_volume.get_fusion_tree());
    const auto nearby = Fusion::OffsetCube::nearest_first(FILTER_RANGE, _volume.get_pointDis());
    const RigidMatrix& pose = frame->integration().pose;
    remove_chosen(function, *frame, _volume.get_code_Num(), [&](const KeptPoint& point) {
        // NaN, where nothing is known, is not farther.
        return std::abs(Fusion::distance_to_surface(field, nearby, pose * point.point,
                                                    pose.transform_normal(point.normal))) > distance;
    });
    return RET_SUCCESS;
}

RetVal FusionTrack::mark_points_off_surface(const char* function, Cloud& cloud, float distance) const {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!(distance > 0.0F)) return input_error(function, "distance is not a positive number");
    if (!cloud.is_legal()) return input_error(function, "the cloud's attributes differ in length");
    if (cloud.get_vn() == 0) return input_error(function, "there are no points");
    if (is_model_empty()) {
        refuse(function, "the model is empty");
        return RET_STATE_ERROR;
    }
    cloud.enable_vFlag();
    parallel_ranges(_volume.get_code_Num(), cloud.get_vn(), SEARCHES_PER_TASK, [&](std::size_t begin, std::size_t end) {
        Fusion::FieldReader<Fusion::LeafTSDFSpeckle> field(_volume.get_fusion_tree());
        for (std::size_t i = begin; i < end; ++i) {
            const Vector3f& point = cloud.get_vCoord(i);
            const bool isNear = point.allFinite() && std::abs(field.trilinear_at_point(point)) <= distance;
            if (!isNear) cloud.get_vFlag(i).set(VertexFlag::Deleted, true);
        }
    });
    return RET_SUCCESS;
}

RetVal FusionTrack::replay_edit(const EditRecord& edit) {
    const char* const function = edit.name.c_str();
    const auto is_one_of = [&](std::initializer_list<std::string_view> names) {
        return std::find(names.begin(), names.end(), edit.name) != names.end();
    };
    const std::vector<std::int32_t>& ids = edit.datas.ids;
    if (is_one_of({"delete_selected_point", "delete_point_when_scan", "delete_point_when_scan_accord_delete"})) {
        const std::lock_guard<std::mutex> step(_stepMutex);
        const std::size_t count = edit.datas.points.size() / 2;
        std::vector<Fusion::SurfacePlace> places;
        for (std::size_t i = 0; i < count; ++i) {
            const Vector3f &point = edit.datas.points[i], &normal = edit.datas.points[count + i];
            if (point.allFinite() && normal.allFinite()) places.push_back({point, normal});
        }
        if (places.empty() || is_model_empty()) return input_error(function, "there is no surface to delete");
        empty_surface_at(function, places);
        return RET_SUCCESS;
    }
    if (is_one_of({"delete_frame_point", "delete_frame_point_new", "delete_key_frame"})) {
        return remove_frames(function, ids);
    }
    if (ids.empty()) return input_error(function, "the record says nothing about it");
    if (edit.name == "delete_unStable") return delete_unstable(function, ids.front());
    if (is_one_of({"delete_single_frame_point", "delete_single_frame_point_tbb", "map_on_frame_delete_point",
                   "fusion_single_frame_filtering_using_tsdf"})) {
        return remove_frame_points(function, ids.front(), {ids.begin() + 1, ids.end()},
                                   edit.name != "delete_single_frame_point");
    }
    return input_error(function, "it is no edit of a model");
}

RetVal replay_edit(void* session, const EditRecord& edit) noexcept {
    return on_handle<FusionTrack, RetVal>(session, {"replay_edit", null_text::can_not_run("replay_edit")},
                                          {RET_INI_ERROR, RET_RUN_FAIL},
                                          [&](FusionTrack& target) { return target.replay_edit(edit); });
}

RetVal FusionTrack::set_kept_frame_memory(int mebibytes) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (mebibytes < 0) return input_error("set_kept_frame_memory", "mebibytes is negative");
    _keptFrames.set_limit(static_cast<std::size_t>(mebibytes) << 20);
    return settled("set_kept_frame_memory", {static_cast<double>(mebibytes)});
}

}  // namespace VexelAlgorithm
