// vexel-scan mesh: a project becomes a mesh.
#include <memory>

#include "algorithmQorInclude.h"
#include "apps/Rig.h"
#include "apps/ScanSession.h"
#include "apps/commands.h"
#include "apps/commonOptions.h"
#include "apps/resultFiles.h"
#include "apps/savedScan.h"
#include "apps/scanOptions.h"
#include "apps/settingsFile.h"
#include "apps/threadLimit.h"
#include "foundation/diagnostics.h"
#include "recording/files.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

/// What the command line says.
struct MeshOptions {
    std::string project;
    std::string out;
    std::string settingsFile;
    int threads = 0;  ///< 0: as the settings say
    std::string format = "ply";

    fs::path folder() const {
        if (!out.empty()) return out;
        const fs::path beside = fs::path(project).parent_path();
        return beside.empty() ? fs::path(".") : beside;
    }
};

Outcome<ScanSettings> settings_of(const MeshOptions& options) {
    const fs::path file =
        options.settingsFile.empty() ? settings_beside(options.project) : fs::path(options.settingsFile);
    std::error_code error;
    if (options.settingsFile.empty() && !fs::exists(file, error)) {
        return Failure{file.string() + " with the settings of the project is missing; name a file with --settings"};
    }
    ScanSettings settings = preset_settings("object");  // which names no camera
    const Outcome<Done> read = read_settings_file(file, settings);
    if (!read) return read.failure();
    if (settings.common.imageSize.isZero()) {
        return Failure{file.string() +
                       " names no camera; the settings of a project are whole, as --dump-settings writes them"};
    }
    if (options.threads > 0) settings.fusion.codeNumSet = options.threads;
    const Outcome<Done> usable = check_usable(settings);
    if (!usable) return usable.failure();
    return settings;
}

/// From the coordinates of the session's frames to those in which the scan has written its mesh: the raw left camera's
/// where the frames come from a stereo scanner.
Outcome<RigidMatrix> to_recorded(ScanSettings settings) {
    const RebParam& rebuild = settings.rig.rebuild;
    if (rebuild.leftCalib.empty() || rebuild.rightCalib.empty()) return RigidMatrix();
    const Outcome<Rig> rig = make_rig(settings, {}, {rebuild.imgSize.x(), rebuild.imgSize.y()});
    if (!rig) return rig.failure();
    return rig->rectified_to_raw();
}

Outcome<BaseTriMesh> mesh_of_project(const MeshOptions& options, const ScanSettings& settings) {
    const ScanSession session(settings);
    if (session.handle() == nullptr) return Failure{"the session refused its settings"};
    const Outcome<Done> loaded = load_scan(session.handle(), settings, options.project);
    if (!loaded) return loaded.failure();
    BaseTriMesh mesh;
    if (get_fusion_result_tbb(session.handle(), settings.fusion.pointDis, mesh) != RET_SUCCESS)
        return Failure{"the mesh could not be extracted"};
    if (mesh.get_fn() == 0) return Failure{options.project + " holds no surface"};
    return mesh;
}

std::vector<RigidMatrix> views_of(const ProjectHead& head, const RigidMatrix& toRecorded) {
    std::vector<RigidMatrix> views;
    for (const RigidMatrix& pose : head.poses) views.push_back(toRecorded * pose);
    return views;
}

int run_mesh(const MeshOptions& options) {
    const Outcome<ProjectHead> head = read_project_head(options.project);
    if (!head) return report_failure(head.failure());
    const Outcome<ScanSettings> settings = settings_of(options);
    if (!settings) return report_failure(settings.failure());
    const Outcome<RigidMatrix> toRecorded = to_recorded(*settings);
    if (!toRecorded) return report_failure(toRecorded.failure());
    const Outcome<Done> prepared = prepare_output_folder(options.folder());
    if (!prepared) return report_failure(prepared.failure());

    const ThreadLimit threads(settings->fusion.codeNumSet);
    Outcome<BaseTriMesh> mesh = mesh_of_project(options, *settings);
    if (!mesh) return report_failure(mesh.failure());
    mesh->rigid_transformation(*toRecorded);
    const fs::path meshFile = options.folder() / ("mesh." + options.format);
    const fs::path previewFile = options.folder() / "preview.png";
    const Vector2i& size = settings->common.imageSize;
    Outcome<Done> written = write_mesh_file(meshFile, *mesh);
    if (written) {
        written = write_preview(previewFile, *mesh, settings->common.campar, {size.x(), size.y()},
                                views_of(*head, *toRecorded), threads.count());
    }
    if (!written) return report_failure(written.failure());
    print_line(format_text("\nProject       %s: %zu poses, voxels of %g mm", options.project.c_str(),
                           head->poses.size(), head->pointDis));
    print_line(format_text("Mesh          %s: %zu vertices, %zu triangles", meshFile.string().c_str(), mesh->get_vn(),
                           mesh->get_fn()));
    print_line("Picture       " + previewFile.string());
    return EXIT_OK;
}

}  // namespace

void add_mesh_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command("mesh", "Makes a mesh of a project that scan or track has saved.");
    const auto options = std::make_shared<MeshOptions>();
    command.add_option("PROJECT", options->project, "File of --save-project").required();
    command.add_option("--out", options->out, "Folder for mesh and preview.png; the project's without it");
    command.add_option("--settings", options->settingsFile,
                       "YAML file with the settings of the project; PROJECT.yml without it");
    add_session_threads_option(command, options->threads);
    add_mesh_format_option(command, options->format);
    command.when_given([options, &chosen] { chosen = [options] { return run_mesh(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
