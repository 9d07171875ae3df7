// Editing: what should not have been scanned is deleted, a bad frame is taken back, the scan goes on over the hole, and
// the edited model is saved. The camera here is a virtual one.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "examples/virtualScanner.h"

using namespace VexelAlgorithm;

namespace {

bool scan(void* session, const Simulation::Sequence& camera, int begin, int end) {
    for (int i = begin; i < end; ++i) {
        int microseconds = 0;
        if (!fusion_and_track(session, Simulation::frame_of(camera, i), microseconds)) return false;
    }
    return true;
}

/// What a user would draw a lasso around: the shown points within 15 mm of the middle one.
std::vector<int> selection(const Cloud& shown) {
    Vector3f low, high;
    shown.get_boundBox(low, high);
    const Vector3f middle = 0.5F * (low + high);
    std::vector<int> selected;
    for (std::size_t i = 0; i < shown.get_vn(); ++i) {
        const bool isInside = (shown.get_vCoord(i) - middle).head<2>().norm() < 15.0F;
        if (isInside) selected.push_back(static_cast<int>(i));
    }
    return selected;
}

/// The number of the last frame, by which it can be taken back.
int last_frame(void* session) {
    FusionScanState state;
    get_fusion_scan_state(session, state);
    return state.acceptedFrames - 1;
}

bool save(void* session, const std::filesystem::path& path) {
    std::ofstream out(path, std::ios::binary);
    return save_project(session, out);
}

bool run(void* session, const Simulation::Sequence& camera) {
    if (!scan(session, camera, 0, 5)) return false;
    const std::size_t whole = get_show_data(session).get_vn();

    // Indices are those of the cloud that was drawn.
    const std::vector<int> selected = selection(get_show_data(session));
    if (delete_selected_point(session, selected) != RET_SUCCESS) return false;
    const std::size_t edited = get_show_data(session).get_vn();

    // The frame after that turns out to be a bad one.
    if (!scan(session, camera, 5, 6)) return false;
    if (delete_frame_point(session, last_frame(session)) != RET_SUCCESS) return false;
    const std::size_t takenBack = get_show_data(session).get_vn();

    const std::filesystem::path path = std::filesystem::temp_directory_path() / "vexel_editing_example";
    const bool isSaved = save(session, path);
    std::filesystem::remove(path);

    // What has been deleted may be scanned again.
    if (!scan(session, camera, 6, 9)) return false;
    const std::size_t closed = get_show_data(session).get_vn();
    std::printf("%zu points shown, %zu after %zu were deleted, %zu without the bad frame, %zu after scanning on\n",
                whole, edited, selected.size(), takenBack, closed);
    return isSaved && !selected.empty() && edited < whole && closed > takenBack;
}

}  // namespace

int main() {
    const auto camera = virtual_scanner();
    if (!camera) return 1;
    void* session = fusion_and_track_ini(common_parameter(*camera), TrackParmeter(), fusion_parameter());
    if (session == nullptr) return 1;
    const bool isDone = run(session, *camera);
    fusiontrack_release(session);
    return isDone ? 0 : 1;
}
