// What an application counts, chooses and writes down beside the scan.
#include <cmath>
#include <iomanip>
#include <limits>
#include <string>

#include "foundation/ReplacedFile.h"
#include "foundation/diagnostics.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/refusal.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t MOST_OPERATIONS = 4096;
constexpr int LARGEST_WINDOW = 64;

/// One voxel: centre (mm, model), mean distance (mm), sum of weights, number of contributions.
void write_voxel(std::ostream& out, const Vector3f& centre, const Fusion::LeafTSDFSpeckle& leaf) {
    // The stream's locale is the classic one, whatever that of the process; nine digits bring a float back.
    out << std::setprecision(9) << centre.x() << ' ' << centre.y() << ' ' << centre.z() << ' ' << leaf.value() << ' '
        << leaf.weight() << ' ' << leaf.count() << '\n';
}

/// Writes a text by `write(stream)`; what is there under the name stays unless all of it could be written.
template <class Write>
RetVal write_text(const char* function, const std::string& path, const Write& write) {
    if (path.empty()) {
        refuse(function, "the path is empty");
        return RET_INPUT_ERROR;
    }
    ReplacedFile file(path);
    write(file.stream());
    if (file.commit()) return RET_SUCCESS;
    refuse(function, path + " cannot be written");
    return RET_RUN_FAIL;
}

}  // namespace

// ---- counts -----------------------------------------------------------------------------------------

int FusionTrack::get_show_num() const {
    const std::lock_guard<std::mutex> inner(_innerMutex);
    return static_cast<int>(_display.points().get_vn());
}

int FusionTrack::count_valid_shown() {
    const std::lock_guard<std::mutex> inner(_innerMutex);
    _display.update(_volume, _changedLeaves);
    _validShown = static_cast<int>(_display.confirmed_points(_volume).get_vn());
    return _validShown;
}

// ---- settings of the result -------------------------------------------------------------------------

RetVal FusionTrack::set_fusion_result_opt(bool dropPieces, bool smooth, bool normals) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    _resultSettings.dropPieces = dropPieces;
    _resultSettings.smooth = smooth;
    _resultSettings.normals = normals;
    return RET_SUCCESS;
}

RetVal FusionTrack::set_result_count(const char* function, const char* name, int ResultSettings::*setting, int value,
                                     int lowest, int highest) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (value < lowest || value > highest) {
        refuse(function, format_text("%s is not between %d and %d", name, lowest, highest));
        return RET_INPUT_ERROR;
    }
    _resultSettings.*setting = value;
    return RET_SUCCESS;
}

RetVal FusionTrack::reset_final_gauss_smooth_window(int window) {
    return set_result_count("reset_final_gauss_smooth_window", "window", &ResultSettings::gaussWindow, window, 0,
                            LARGEST_WINDOW);
}

RetVal FusionTrack::reset_final_normal_window(int window) {
    return set_result_count("reset_final_normal_window", "window", &ResultSettings::normalWindow, window, 1,
                            LARGEST_WINDOW);
}

RetVal FusionTrack::reset_final_isolated_island_delete(int triangles) {
    return set_result_count("reset_final_isolated_island_delete", "triangles", &ResultSettings::minPieceTriangles,
                            triangles, 0, std::numeric_limits<int>::max());
}

RetVal FusionTrack::reset_tangent_plane_ratio(float ratio) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!(ratio >= 0.0F) || !std::isfinite(ratio)) {
        refuse("reset_delete_distance_ratio_with_tanget_plane", "ratio is negative or not a number");
        return RET_INPUT_ERROR;
    }
    _resultSettings.tangentPlaneRatio = ratio;
    return RET_SUCCESS;
}

// ---- dumps ------------------------------------------------------------------------------------------

RetVal FusionTrack::output_tree(const char* function, const std::string& path, bool isWhole) const {
    const std::lock_guard<std::mutex> step(_stepMutex);
    const auto& tree = _volume.get_fusion_tree();
    return write_text(function, path, [&](std::ostream& out) {
        for (std::int32_t id = 0; id < tree.get_vaild_leaf_num(); ++id) {
            const Fusion::LeafTSDFSpeckle& leaf = tree.leaf_at(id);
            const bool isWanted = leaf.is_used() && (isWhole || std::abs(leaf.value()) <= tree.get_pointDis());
            if (isWanted) write_voxel(out, tree.voxel_to_world(tree.leaf_coordinates(id)), leaf);
        }
    });
}

void FusionTrack::note_operation(const char* function, std::size_t amount) {
    if (_operations.size() == MOST_OPERATIONS) _operations.pop_front();
    _operations.push_back(format_text("%d %s %zu", accepted_frames(), function, amount));
}

RetVal FusionTrack::output_operate_record(const std::string& path) const {
    const std::lock_guard<std::mutex> step(_stepMutex);
    return write_text("output_operate_record", path, [&](std::ostream& out) {
        for (const std::string& operation : _operations) out << operation << '\n';
    });
}

}  // namespace VexelAlgorithm
