#include "apps/reportParts.h"

#include <nlohmann/json.hpp>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {

MeshFigures figures_of(const BaseTriMesh& mesh) {
    MeshFigures figures;
    figures.vertices = mesh.get_vn();
    figures.triangles = mesh.get_fn();
    mesh.get_boundBox(figures.low, figures.high);
    return figures;
}

Json json_of(const Vector3f& vector) {
    return {vector.x(), vector.y(), vector.z()};
}

Json json_of(const MeshFigures& mesh) {
    return {{"vertices", mesh.vertices},
            {"triangles", mesh.triangles},
            {"box_low_mm", json_of(mesh.low)},
            {"box_high_mm", json_of(mesh.high)}};
}

Json json_of(const StageClock& clock) {
    Json timing = Json::object();
    for (const StageClock::Stage& stage : clock.stages()) {
        timing[stage.name] = {
            {"total_ms", stage.milliseconds}, {"runs", stage.runs}, {"ms_per_run", stage.milliseconds / stage.runs}};
    }
    return timing;
}

std::string text_of(const Json& report) {
    return report.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

void add_line(std::string& text, const char* label, const std::string& value) {
    text += format_text("%-14s", label) + value + '\n';
}

void add_mesh(std::string& text, const MeshFigures& mesh) {
    add_line(text, "Triangles", std::to_string(mesh.triangles) + ", " + std::to_string(mesh.vertices) + " vertices");
    add_line(text, "Box",
             format_text("x %.1f .. %.1f, y %.1f .. %.1f, z %.1f .. %.1f mm", mesh.low.x(), mesh.high.x(), mesh.low.y(),
                         mesh.high.y(), mesh.low.z(), mesh.high.z()));
}

void add_run(std::string& text, const StageClock& clock, double peakMemoryMib) {
    text += "\nThis run\n";
    for (const StageClock::Stage& stage : clock.stages()) {
        add_line(
            text, stage.name.c_str(),
            format_text("%9.1f ms, %d x %.2f ms", stage.milliseconds, stage.runs, stage.milliseconds / stage.runs));
    }
    add_line(text, "peak memory", format_text("%9.1f MiB", peakMemoryMib));
}

}  // namespace VexelAlgorithm::Apps
