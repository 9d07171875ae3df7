// What a session answers about poses, keeps of deformations, and passes on to its texture tracker.
#include <algorithm>

#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/motionTests.h"
#include "fusiontrackoperation/refusal.h"
#include "fusiontrackoperation/rigidPose.h"
#include "platform/textureTracking.h"

namespace VexelAlgorithm {
namespace {

using vexel_sfm::TextureImage;

// A pose found from features alone is right when it is this close to the one that geometry found.
constexpr double ALIGNED_TRANSLATION = 5.0;  // mm
constexpr double ALIGNED_ANGLE = 0.05;       // radians

bool is_usable_pose(const char* function, const RigidMatrix& pose) {
    return is_rigid(pose) || refuse(function, "the pose is not a rigid motion");
}

bool are_close(const RigidMatrix& a, const RigidMatrix& b) {
    const RigidMatrix difference = a.inverse() * b;
    return difference.get_translation().norm() <= ALIGNED_TRANSLATION && rotation_angle(difference) <= ALIGNED_ANGLE;
}

RetVal done_if(bool isDone) {
    return isDone ? RET_SUCCESS : RET_RUN_FAIL;
}

bool are_finite(const std::vector<Vector3f>& vectors) {
    return std::all_of(vectors.begin(), vectors.end(), [](const Vector3f& v) { return v.allFinite(); });
}

}  // namespace

// ---- motion tests -----------------------------------------------------------------------------------

bool FusionTrack::test_motion(const char* function, const RigidMatrix& pose, MotionTest test) const {
    if (!is_usable_pose(function, pose)) return false;
    const std::lock_guard<std::mutex> step(_stepMutex);
    const std::lock_guard<std::mutex> poses(_poseMutex);
    // Before the first frame the list holds a pose that nobody took.
    return is_model_empty() ? test({}, pose) : test(_poses, pose);
}

// ---- texture tracking -------------------------------------------------------------------------------

bool FusionTrack::has_texture_tracker(const char* function) const {
    return _textureTracker != nullptr || refuse(function, "no texture tracker is linked");
}

RetVal FusionTrack::texture_pre_scan(const PointImage& input, const TextureImage& image, RigidMatrix& pose) {
    const char* const function = "texture_pre_scan";
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!has_texture_tracker(function)) return RET_STATE_ERROR;
    if (!fits_session(input, function) || !is_usable_pose(function, pose)) return RET_INPUT_ERROR;
    const PointImage& frame = in_camera_coordinates(input);
    if (_isTextureMapBegun) return done_if(vexel_sfm::tbt_addFrame(_textureTracker, frame, image, pose));
    _isTextureMapBegun = vexel_sfm::tbt_firstFrame(_textureTracker, frame, image);
    if (_isTextureMapBegun) pose.set_identity();
    return done_if(_isTextureMapBegun);
}

RetVal FusionTrack::get_feature_frame(const TextureImage& image, std::vector<Vector2f>& features) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!has_texture_tracker("get_feature_frame")) return RET_STATE_ERROR;
    return done_if(vexel_sfm::tbt_getFeatures(_textureTracker, image, features));
}

bool FusionTrack::has_texture_map(const char* function) const {
    return has_texture_tracker(function) &&
           (_isTextureMapBegun || refuse(function, "texture_pre_scan has had no frame"));
}

RetVal FusionTrack::set_key_frame(const RigidMatrix& pose) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!has_texture_map("set_key_frame")) return RET_STATE_ERROR;
    if (!is_usable_pose("set_key_frame", pose)) return RET_INPUT_ERROR;
    return done_if(vexel_sfm::tbt_renewCurrentFrame(_textureTracker, pose));
}

bool FusionTrack::is_feature_aline_right(const RigidMatrix& pose) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!has_texture_map("is_feature_aline_right") || !is_usable_pose("is_feature_aline_right", pose)) return false;
    RigidMatrix found;
    return vexel_sfm::tbt_featureStitch(_textureTracker, found) && are_close(pose, found);
}

// ---- non-rigid support ------------------------------------------------------------------------------

RetVal FusionTrack::set_nonrigid_refmodel(const BaseTriMesh& model) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!model.is_legal() || !are_finite(model.get_vCoords())) {
        refuse("set_nonrigid_refmodel", "the model is not consistent in itself");
        return RET_INPUT_ERROR;
    }
    _nonRigid = {model, {}};
    return RET_SUCCESS;
}

RetVal FusionTrack::set_nonrigid_field(const std::vector<Vector3f>& field) {
    const char* const function = "set_nonrigid_field";
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!field.empty() && _nonRigid.referenceModel.get_vn() == 0) {
        refuse(function, "there is no reference model");
        return RET_STATE_ERROR;
    }
    if (!field.empty() && field.size() != _nonRigid.referenceModel.get_vn()) {
        refuse(function, "there is not one displacement for each vertex of the reference model");
        return RET_INPUT_ERROR;
    }
    if (!are_finite(field)) {
        refuse(function, "a displacement is not finite");
        return RET_INPUT_ERROR;
    }
    _nonRigid.field = field;
    return RET_SUCCESS;
}

bool FusionTrack::is_nonrigid_field_empty() const {
    const std::lock_guard<std::mutex> step(_stepMutex);
    return _nonRigid.field.empty();
}

}  // namespace VexelAlgorithm
