// A session goes to a project file and comes back.
#include <utility>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/projectFile.h"

namespace VexelAlgorithm {

bool FusionTrack::save_project(std::ofstream& out) const {
    const std::lock_guard<std::mutex> step(_stepMutex);
    const std::lock_guard<std::mutex> outer(_outerMutex);
    const std::lock_guard<std::mutex> inner(_innerMutex);
    // Only steps change the pose list: others may read it during the whole save.
    return write_project(out, _poses, _volume, _leafColors, _display);
}

bool FusionTrack::read_project(std::ifstream& in) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    std::vector<RigidMatrix> poses;
    Vector3f shift;
    if (!read_project_header(in) || !read_project_poses(in, poses) || !read_project_volume_header(in, _volume, shift)) {
        return false;
    }
    if (!is_model_empty()) forget_model();
    const bool isRead = guarded<bool>("read_project", false, [&] {
        if (!read_model(in, shift)) return false;
        resume_from(std::move(poses));
        return true;
    });
    // Half a model would be worse than none.
    if (!isRead) forget_model();
    _recorder.model_replaced(isRead ? "read_project" : "fusion_tree_reset");
    return isRead;
}

bool FusionTrack::read_model(std::ifstream& in, const Vector3f& shift) {
    const std::lock_guard<std::mutex> outer(_outerMutex);
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _volume.set_shift(shift);
    _isModelDescribed = false;
    return read_project_volume(in, _volume, _leafColors) && read_project_display(in, _volume, _display);
}

void FusionTrack::resume_from(std::vector<RigidMatrix> poses) {
    const RigidMatrix last = poses.back();
    const auto count = static_cast<int>(poses.size());
    {
        const std::lock_guard<std::mutex> lock(_poseMutex);
        _poses = std::move(poses);
    }
    _modelCamera = _camera;
    initialise_images();
    render_prediction(last, false);
    forget_last_frame(count);
}

}  // namespace VexelAlgorithm
