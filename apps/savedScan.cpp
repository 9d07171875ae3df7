#include "apps/savedScan.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <string_view>

#include "algorithmQorInclude.h"
#include "apps/settingsFile.h"
#include "foundation/archive.h"
#include "foundation/diagnostics.h"
#include "recording/files.h"
#include "recording/streamedFile.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

bool read_magic(std::istream& in) {
    std::array<char, 6> magic{};
    in.read(magic.data(), magic.size());
    return std::string_view(magic.data(), magic.size()) == "FUSION";
}

bool read_poses(std::istream& in, std::vector<RigidMatrix>& poses) {
    std::array<std::int32_t, 3> versions{};
    std::int32_t count = 0;
    if (!Archive::read_value(in, versions) || !Archive::read_value(in, count)) return false;
    RigidMatrix pose;
    for (std::int32_t i = 0; i < count; ++i) {
        if (!pose.read_archive(in)) return false;
        poses.push_back(pose);
    }
    return !poses.empty();
}

Outcome<Done> check_volume(const ProjectHead& head, const ScanSettings& settings, const fs::path& project) {
    const FusionParameter& own = settings.fusion;
    const std::int32_t ownDepth = std::clamp(own.treeDepth, 10, 20);  // as sessions take it
    if (head.treeDepth == ownDepth && head.pointDis == own.pointDis) return Done{};
    return Failure{
        format_text("%s has voxels of %g mm and a tree depth of %d where the settings say %g mm and %d; use "
                    "those that it was saved with",
                    project.string().c_str(), head.pointDis, head.treeDepth, own.pointDis, ownDepth)};
}

}  // namespace

Outcome<ProjectHead> read_project_head(const fs::path& project) {
    std::ifstream in(project, std::ios::binary);
    if (!in) return Failure{project.string() + " cannot be opened"};
    ProjectHead head;
    if (!read_magic(in)) return Failure{project.string() + " is no project file"};
    if (!read_poses(in, head.poses) || !Archive::read_value(in, head.treeDepth) ||
        !Archive::read_value(in, head.pointDis)) {
        return Failure{project.string() + " is damaged or cut short"};
    }
    return head;
}

fs::path settings_beside(const fs::path& project) {
    fs::path settings = project;
    settings += ".yml";
    return settings;
}

Outcome<Done> prepare_to_save(const fs::path& project) {
    std::error_code error;
    if (fs::is_directory(project, error)) return Failure{project.string() + " is a folder; name a file"};
    return prepare_output_folder(project.has_parent_path() ? project.parent_path() : fs::path("."));
}

Outcome<Done> save_scan(void* session, const ScanSettings& settings, const fs::path& project) {
    get_show_data(session);
    const std::string title = "Settings of the scan in " + project.filename().string();
    Outcome<Done> described = Done{};
    // The settings take their place when the project has only to be moved: an older one keeps its own until then.
    const Outcome<Done> written = write_streamed_file(project, [&](std::ofstream& out) {
        if (!save_project(session, out) || !out.flush()) return false;
        described = write_whole_file(settings_beside(project), settings_text(settings, title));
        return static_cast<bool>(described);
    });
    return described ? written : described;
}

Outcome<Done> load_scan(void* session, const ScanSettings& settings, const fs::path& project) {
    const Outcome<ProjectHead> head = read_project_head(project);
    if (!head) return head.failure();
    const Outcome<Done> fits = check_volume(*head, settings, project);
    if (!fits) return fits;
    std::ifstream in(project, std::ios::binary);
    if (!read_project(session, in)) return Failure{project.string() + " is not usable; the line above says why"};
    return Done{};
}

}  // namespace VexelAlgorithm::Apps
