// Project files: a scan session on disk. docs/project-format.md describes every byte.
#pragma once

#include <fstream>
#include <vector>

#include "foundation/RigidMatrix.h"
#include "fusiontrackoperation/DisplayData.h"

namespace VexelAlgorithm {

/// Writes the whole record: header, poses, volume, leaves, display points. Prints a line for each section and one that
/// says what failed. The files are binary streams at any position. Uses less than 1 MiB beside the display colours and
/// the cells of the top grid. Volume and display must not change meanwhile.
bool write_project(std::ofstream& out, const std::vector<RigidMatrix>& poses, const SessionVolume& volume,
                   const LeafColors& colors, const DisplayData& display);

// The sections in reading, in their order. Each returns false after one line: the section's own when the stream ends or
// fails inside it, "read_project fail because REASON" for what the stream says. No count is trusted: memory grows with
// the bytes that have come.

bool read_project_header(std::ifstream& in);
/// At least one pose, all of them rigid motions (camera to model, mm).
bool read_project_poses(std::ifstream& in, std::vector<RigidMatrix>& poses);
/// The shift (mm) of a volume of the same depth and voxel size as `volume`; nothing else can be read into it.
bool read_project_volume_header(std::ifstream& in, const SessionVolume& volume, Vector3f& shift);
/// Trees and leaves into an empty volume, all leaves unchanged, and their colours. After a failure volume and colours
/// must be cleared.
bool read_project_volume(std::ifstream& in, SessionVolume& volume, LeafColors& colors);
/// The display points of that volume. After a failure the display must be cleared.
bool read_project_display(std::ifstream& in, const SessionVolume& volume, DisplayData& display);

}  // namespace VexelAlgorithm
