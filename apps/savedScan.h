// A scan on disk: its project file and, beside it, the settings that it was made with.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "apps/ScanSettings.h"
#include "foundation/RigidMatrix.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm::Apps {

/// What stands before the volume in a project file (docs/project-format.md).
struct ProjectHead {
    std::vector<RigidMatrix> poses;  ///< camera to model, mm; never empty
    std::int32_t treeDepth = 0;
    float pointDis = 0.0F;  ///< voxel edge, mm
};
/// The poses are as the file says; `read_project` is who judges them.
Outcome<ProjectHead> read_project_head(const std::filesystem::path& project);

/// PROJECT.yml: a project file does not hold the settings of its session.
std::filesystem::path settings_beside(const std::filesystem::path& project);

/// Fails, before a scan rather than after it, where no project could be written; makes its folder when it is missing.
Outcome<Done> prepare_to_save(const std::filesystem::path& project);

/// Brings the display up to date and writes settings and project, each beside its place and moved there when complete:
/// whatever ends the program, an older project of the name is there whole, or the new one is.
Outcome<Done> save_scan(void* session, const ScanSettings& settings, const std::filesystem::path& project);

/// Reads a project into a session that was made of the settings. The reason of a failure names what does not match.
Outcome<Done> load_scan(void* session, const ScanSettings& settings, const std::filesystem::path& project);

}  // namespace VexelAlgorithm::Apps
