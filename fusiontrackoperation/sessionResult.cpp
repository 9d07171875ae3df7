// What a session has in the end.
#include <cmath>
#include <filesystem>
#include <limits>

#include "foundation/Stopwatch.h"
#include "foundation/diagnostics.h"
#include "foundation/meshExport.h"
#include "foundation/parallel.h"
#include "fusion/meshOptimise.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "fusiontrackoperation/OctetSurfaces.h"
#include "fusiontrackoperation/meshThinning.h"
#include "fusiontrackoperation/refusal.h"

namespace VexelAlgorithm {
namespace {

constexpr float MIN_CONTRIBUTIONS = 0.0F;  // everything that was fused
constexpr int SMOOTHING_STEPS = 5;
constexpr std::size_t OCTETS_PER_TASK = std::size_t{1} << 13;
constexpr std::size_t VERTICES_PER_TASK = std::size_t{1} << 14;

struct Box {
    Vector3f low = Vector3f::Constant(std::numeric_limits<float>::infinity());
    Vector3f high = -low;

    void include(const Vector3f& point) {
        low = low.cwiseMin(point);
        high = high.cwiseMax(point);
    }
    bool is_empty() const { return !(low.x() <= high.x()); }
};

}  // namespace

RetVal FusionTrack::get_fusion_result(float pointDis, BaseTriMesh& mesh, Parallel parallel) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    if (!(pointDis >= 0.0F) || !std::isfinite(pointDis)) {
        refuse(parallel == Parallel::Tbb ? "get_fusion_result_tbb" : "get_fusion_result",
               "pointDis is negative or not a number");
        return RET_INPUT_ERROR;
    }
    const Stopwatch watch;
    BaseTriMesh result;
    std::vector<int> vertexAxis;
    const RetVal end = parallel == Parallel::Tbb ? _volume.get_result_tbb(MIN_CONTRIBUTIONS, result, vertexAxis, false)
                                                 : _volume.get_result(MIN_CONTRIBUTIONS, result, vertexAxis, false);
    if (end != RET_SUCCESS) return end;
    const bool debug = _debugLevel > 0;
    if (debug) print_line(format_text("Mc Time is:%f ms", watch.milliseconds()));
    if (debug) write_debug_mesh("mc_result.obj", result);

    const ResultSettings& settings = _resultSettings;
    delete_off_tangent_plane(result, vertexAxis, settings.tangentPlaneRatio);
    Fusion::optimise_mesh(result, vertexAxis,
                          {settings.dropPieces ? static_cast<std::size_t>(settings.minPieceTriangles) : 0,
                           settings.smooth ? SMOOTHING_STEPS : 0, false});
    gauss_smooth(result, _volume.get_pointDis(), settings.gaussWindow);
    if (settings.normals) result.update_VNrv();
    if (pointDis > _volume.get_pointDis()) thin_mesh(result, pointDis);
    if (settings.normals) smooth_normals(result, settings.normalWindow - 1);
    color_mesh(result);
    if (debug) write_debug_mesh("Mc_Opt_result.obj", result);
    if (debug) write_debug_mesh("ErrorBastriMesh.obj", find_non_manifold_faces(result));
    mesh = std::move(result);
    return RET_SUCCESS;
}

void FusionTrack::color_mesh(BaseTriMesh& mesh) const {
    if (_leafColors.is_empty()) return;
    mesh.enable_vColor();
    parallel_ranges(_volume.get_code_Num(), mesh.get_vn(), VERTICES_PER_TASK, [&](std::size_t begin, std::size_t end) {
        LeafColorSampler colors(_leafColors, _volume, _parameters.fusion.colorOnInvaildPoint);
        for (std::size_t i = begin; i < end; ++i) mesh.set_vColor(i, colors.at(mesh.get_vCoord(i)));
    });
}

void FusionTrack::write_debug_mesh(const char* name, const BaseTriMesh& mesh) const {
    if (mesh.get_vn() == 0) return;
    write_mesh((std::filesystem::path(_parameters.common.outputPath) / name).string(), mesh, MESH_WRITE_DEFAULT, 6);
}

RetVal FusionTrack::get_model_bounding_box(Vector3f& low, Vector3f& high) {
    const std::lock_guard<std::mutex> step(_stepMutex);
    const auto octets = static_cast<std::size_t>(_volume.get_vaild_leaf_num() / OctetCells::Count);
    Box box;
    std::mutex boxMutex;
    parallel_ranges(_volume.get_code_Num(), octets, OCTETS_PER_TASK, [&](std::size_t begin, std::size_t end) {
        OctetSurfaces surfaces(_volume.get_fusion_tree());
        Box own;
        const auto number_at = [&](std::size_t i) { return static_cast<std::int32_t>(begin + i); };
        surfaces.for_each(end - begin, number_at, [&](const OctetSurface& octet) {
            for (int code = 0; code < OctetCells::Count; ++code) {
                if ((octet.found() >> code & 1) != 0) own.include(octet.point(code).point);
            }
        });
        const std::lock_guard<std::mutex> lock(boxMutex);
        if (own.is_empty()) return;
        box.include(own.low);
        box.include(own.high);
    });
    if (box.is_empty()) {
        refuse("get_model_bounding_box", "the model is empty");
        return RET_STATE_ERROR;
    }
    low = box.low;
    high = box.high;
    return RET_SUCCESS;
}

}  // namespace VexelAlgorithm
