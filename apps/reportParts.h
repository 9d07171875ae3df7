// What the reports of all runs have in common.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "apps/StageClock.h"
#include "foundation/BaseTriMesh.h"

namespace VexelAlgorithm::Apps {

using Json = nlohmann::ordered_json;

/// How much came out, and where it lies (mm).
struct MeshFigures {
    std::uint64_t vertices = 0;
    std::uint64_t triangles = 0;
    Vector3f low = Vector3f::Zero();
    Vector3f high = Vector3f::Zero();
};
MeshFigures figures_of(const BaseTriMesh& mesh);

Json json_of(const Vector3f& vector);
Json json_of(const MeshFigures& mesh);
/// An object with total, runs and mean of each stage.
Json json_of(const StageClock& clock);
/// The whole report, indented; bytes that are no UTF-8 are replaced.
std::string text_of(const Json& report);

/// "Label         value\n"
void add_line(std::string& text, const char* label, const std::string& value);
/// Triangles and box.
void add_mesh(std::string& text, const MeshFigures& mesh);
/// What differs from run to run, below the line "This run".
void add_run(std::string& text, const StageClock& clock, double peakMemoryMib);

}  // namespace VexelAlgorithm::Apps
