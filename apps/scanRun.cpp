#include "apps/scanRun.h"

#include <algorithm>

#include "algorithmQorInclude.h"
#include "apps/commands.h"
#include "apps/peakMemory.h"
#include "apps/resultFiles.h"
#include "apps/savedScan.h"
#include "apps/trackPlot.h"
#include "foundation/diagnostics.h"
#include "recording/files.h"
#include "recording/trajectoryText.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

void print_rig(const RigSummary& rig) {
    std::string depths;
    if (!rig.depthRange.isZero())
        depths = format_text(" for depths of %g .. %g mm", rig.depthRange(0), rig.depthRange(1));
    print_line(format_text("Rig           baseline %.2f mm, rectified focal length %.1f pixels", rig.baseline,
                           rig.focalLength));
    print_line(
        format_text("Search range  %d .. %d pixels of right column - left column", rig.findRange(0), rig.findRange(1)) +
        depths);
}

/// What the session found, said of the recorded camera: its poses take this camera's coordinates to those of its first
/// frame.
void take_to_recorded(const RigidMatrix& toRecorded, TrackReport& report, std::vector<ComparedFrame>& compared) {
    Matrix4d turn = Matrix4d::Identity();
    turn.topLeftCorner<3, 3>() = toRecorded.get_rotation();
    for (TrackedFrame& frame : report.frames) frame.pose = toRecorded * frame.pose * toRecorded.inverse();
    for (ComparedFrame& frame : compared) {
        if (frame.found) frame.found = toRecorded * *frame.found * toRecorded.inverse();
        frame.points = turn * frame.points * turn.transpose();
    }
}

/// The poses of the session's camera, through which the preview is seen, in the world of the recorded one.
/// Where no frame was accepted, the place from which the scan was to go on.
std::vector<RigidMatrix> accepted_views(const ScanRun& run, const ScanSession& session, const TrackReport& report) {
    std::vector<RigidMatrix> poses;
    for (const TrackedFrame& frame : report.frames) {
        if (frame.isAccepted) poses.push_back(frame.pose * run.toRecorded);
    }
    if (poses.empty()) poses.push_back(run.toRecorded * get_current_rt(session.handle()));
    return poses;
}

/// Before the first frame: the scan that goes on, and whether it can be saved at the end.
Outcome<Done> begin_session(const ScanRun& run, const ScanSession& session) {
    if (session.handle() == nullptr) return Failure{"the session refused its settings"};
    if (!run.options.savedProject.empty()) {
        const Outcome<Done> prepared = prepare_to_save(run.options.savedProject);
        if (!prepared) return prepared;
    }
    if (run.options.resumedProject.empty()) return Done{};
    return load_scan(session.handle(), run.settings, run.options.resumedProject);
}

/// There is something to save as soon as a frame was accepted.
Outcome<Done> save_if_wanted(const ScanRun& run, const ScanSession& session, TrackReport& report) {
    if (run.options.savedProject.empty() || (report.accepted() == 0 && report.resumed.empty())) return Done{};
    return report.clock.time("save project",
                             [&] { return save_scan(session.handle(), run.settings, run.options.savedProject); });
}

void print_interruption(const ScanOptions& options, const TrackReport& report) {
    print_line(
        format_text("interrupted: writing what the first %d frames gave", static_cast<int>(report.frames.size())));
    if (options.savedProject.empty()) return;
    print_line(format_text("--resume %s --first %d goes on from here", options.savedProject.c_str(),
                           report.frames.back().number + report.step));
}

fs::path mesh_file(const ScanOptions& options) {
    return fs::path(options.out) / ("mesh." + options.format);
}

Outcome<Done> write_model(const ScanRun& run, const ScanSession& session, const BaseTriMesh& mesh,
                          TrackReport& report) {
    const Outcome<Done> written =
        report.clock.time("write mesh", [&] { return write_mesh_file(mesh_file(run.options), mesh); });
    if (!written) return written;
    return report.clock.time("draw", [&] {
        return write_preview(fs::path(run.options.out) / "preview.png", mesh, run.camera, report.imageSize,
                             accepted_views(run, session, report), report.threads);
    });
}

/// Trajectory, plot and both reports.
Outcome<Done> write_account(const fs::path& folder, TrackReport& report, const std::vector<ComparedFrame>& compared) {
    Outcome<Done> written = write_whole_file(folder / "trajectory.txt", trajectory_text(report.trajectory()));
    if (written) written = write_picture(folder / "plot.png", draw_track_plot(report, compared), "plot");
    report.peakMemoryMib = peak_memory_mib();
    if (written) written = write_whole_file(folder / "report.json", json_text(report));
    if (written) written = write_whole_file(folder / "report.txt", plain_text(report));
    return written;
}

/// The reason, with a hint where the search range of a stereo scanner looks wrong.
Failure without_model(const Failure& failure, const TrackReport& report) {
    const bool isEmpty = std::all_of(report.frames.begin(), report.frames.end(),
                                     [](const TrackedFrame& frame) { return frame.state.frameValid < 1000; });
    if (!report.rig || !isEmpty) return failure;
    return {failure.reason +
            "; hardly any partner was found in the search range: check --depth-range, and the "
            "calibration with vexel-scan check-calibration"};
}

/// Mesh and preview; the mesh's figures go into the report.
Outcome<Done> make_model(const ScanRun& run, const ScanSession& session, TrackReport& report) {
    Outcome<BaseTriMesh> mesh = extract_mesh(session, run.settings.fusion.pointDis, report);
    if (!mesh) return without_model(mesh.failure(), report);
    mesh->rigid_transformation(run.toRecorded);
    report.mesh = figures_of(*mesh);
    return write_model(run, session, *mesh, report);
}

void print_results(const ScanOptions& options, const TrackReport& report) {
    const fs::path folder = options.out;
    print_text('\n' + summary_text(report));
    print_line("\nMesh          " + mesh_file(options).string());
    print_line("Trajectory    " + (folder / "trajectory.txt").string());
    print_line("Pictures      " + (folder / "preview.png").string() + ", plot.png");
    print_line("Report        " + (folder / "report.txt").string() + ", report.json");
    if (!options.savedProject.empty()) {
        print_line("Project       " + options.savedProject + ", " + settings_beside(options.savedProject).string());
    }
}

}  // namespace

int run_scan(const ScanRun& run, TrackReport& report) {
    const Outcome<Done> recording = begin_debug_recording(run.options);
    if (!recording) return report_failure(recording.failure());
    const ScanSession session(run.settings);
    const Outcome<Done> begun = begin_session(run, session);
    if (!begun) return report_failure(begun.failure());
    if (report.rig) print_rig(*report.rig);
    std::vector<ComparedFrame> compared;
    const Outcome<Done> scanned = scan_frames(session, run.frames, run.source, report, compared);
    if (!scanned) return report_failure(scanned.failure());
    if (report.isInterrupted) print_interruption(run.options, report);
    const Outcome<Done> saved = save_if_wanted(run, session, report);

    take_to_recorded(run.toRecorded, report, compared);
    const Outcome<Done> modelMade = make_model(run, session, report);
    compare(run.options.truth, run.given, compared, report);
    const Outcome<Done> accountWritten = write_account(run.options.out, report, compared);
    if (!saved) return report_failure(saved.failure());
    if (!modelMade) return report_failure(modelMade.failure());
    if (!accountWritten) return report_failure(accountWritten.failure());
    print_results(run.options, report);
    return report.isInterrupted ? EXIT_INTERRUPTED : EXIT_OK;
}

}  // namespace VexelAlgorithm::Apps
