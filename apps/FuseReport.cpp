#include "apps/FuseReport.h"

#include <nlohmann/json.hpp>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

using Json = nlohmann::ordered_json;

Json json_of(const Vector3f& vector) {
    return {vector.x(), vector.y(), vector.z()};
}

Json timing_of(const StageClock& clock) {
    Json timing = Json::object();
    for (const StageClock::Stage& stage : clock.stages()) {
        timing[stage.name] = {
            {"total_ms", stage.milliseconds}, {"runs", stage.runs}, {"ms_per_run", stage.milliseconds / stage.runs}};
    }
    return timing;
}

std::string box_text(const Vector3f& low, const Vector3f& high) {
    return format_text("x %.1f .. %.1f, y %.1f .. %.1f, z %.1f .. %.1f mm", low.x(), high.x(), low.y(), high.y(),
                       low.z(), high.z());
}

std::string count_text(std::uint64_t count) {
    return std::to_string(count);
}

void add_line(std::string& text, const char* label, const std::string& value) {
    text += format_text("%-14s", label) + value + '\n';
}

}  // namespace

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
    json["mesh"] = {{"min_weight", report.minWeight},
                    {"vertices", report.vertices},
                    {"triangles", report.triangles},
                    {"box_low_mm", json_of(report.low)},
                    {"box_high_mm", json_of(report.high)}};
    json["timing"] = timing_of(report.clock);
    json["memory"] = {{"peak_mib", report.peakMemoryMib}};
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
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
             count_text(report.points) + ", " + count_text(report.pointsOutside) + " outside the volume");
    add_line(text, "Voxels",
             count_text(report.voxels) + format_text(" of %g mm, tree depth %d", report.voxel, report.treeDepth));
    add_line(text, "Triangles", count_text(report.triangles) + ", " + count_text(report.vertices) + " vertices");
    add_line(text, "Box", box_text(report.low, report.high));
    text += "\nThis run\n";
    for (const StageClock::Stage& stage : report.clock.stages()) {
        add_line(
            text, stage.name.c_str(),
            format_text("%9.1f ms, %d x %.2f ms", stage.milliseconds, stage.runs, stage.milliseconds / stage.runs));
    }
    add_line(text, "peak memory", format_text("%9.1f MiB", report.peakMemoryMib));
    return text;
}

}  // namespace VexelAlgorithm::Apps
