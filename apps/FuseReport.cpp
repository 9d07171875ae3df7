#include "apps/FuseReport.h"

#include <nlohmann/json.hpp>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {

std::string json_text(const FuseReport& report) {
    Json json;
    json["input"] = {{"recording", report.recording},
                     {"image_size", {report.imageSize.width, report.imageSize.height}},
                     {"first_frame", report.firstFrame},
                     {"last_frame", report.lastFrame},
                     {"step", report.step},
                     {"threads", report.threads},
                     {"frames_selected", report.framesSelected},
                     {"frames_fused", report.framesFused},
                     {"frames_without_points", report.framesWithoutPoints},
                     {"interrupted", report.isInterrupted},
                     {"points", report.points},
                     {"points_outside_volume", report.pointsOutside}};
    json["volume"] = {{"voxel_mm", report.voxel},
                      {"tree_depth", report.treeDepth},
                      {"shift_mm", json_of(report.shift)},
                      {"fusion_range_voxels", report.fusionRange},
                      {"voxels", report.voxels}};
    json["mesh"] = {{"min_weight", report.minWeight}};
    json["mesh"].update(json_of(report.mesh));
    json["timing"] = json_of(report.clock);
    json["memory"] = {{"peak_mib", report.peakMemoryMib}};
    return text_of(json);
}

std::string plain_text(const FuseReport& report) {
    std::string text;
    add_line(text, "Recording", report.recording);
    add_line(
        text, "Frames",
        format_text("%d of %d fused (%d .. %d, every %d)%s", report.framesFused, report.framesSelected,
                    report.firstFrame, report.lastFrame, report.step, report.isInterrupted ? ", interrupted" : ""));
    if (report.framesWithoutPoints > 0) {
        add_line(text, "", format_text("%d without a usable point", report.framesWithoutPoints));
    }
    add_line(text, "Points",
             std::to_string(report.points) + ", " + std::to_string(report.pointsOutside) + " outside the volume");
    add_line(text, "Voxels",
             std::to_string(report.voxels) + format_text(" of %g mm, tree depth %d", report.voxel, report.treeDepth));
    add_mesh(text, report.mesh);
    add_run(text, report.clock, report.peakMemoryMib);
    return text;
}

}  // namespace VexelAlgorithm::Apps
