#include "apps/scanRun.h"

#include <algorithm>

#include "apps/commands.h"
#include "apps/peakMemory.h"
#include "apps/resultFiles.h"
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
std::vector<RigidMatrix> accepted_views(const TrackReport& report, const RigidMatrix& toRecorded) {
    std::vector<RigidMatrix> poses;
    for (const TrackedFrame& frame : report.frames) {
        if (frame.isAccepted) poses.push_back(frame.pose * toRecorded);
    }
    return poses;
}

fs::path mesh_file(const ScanOptions& options) {
    return fs::path(options.out) / ("mesh." + options.format);
}

Outcome<Done> write_model(const ScanRun& run, const BaseTriMesh& mesh, TrackReport& report) {
    const Outcome<Done> written =
        report.clock.time("write mesh", [&] { return write_mesh_file(mesh_file(run.options), mesh); });
    if (!written) return written;
    return report.clock.time("draw", [&] {
        return write_preview(fs::path(run.options.out) / "preview.png", mesh, run.camera, report.imageSize,
                             accepted_views(report, run.toRecorded), report.threads);
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
    return write_model(run, *mesh, report);
}

void print_results(const ScanOptions& options, const TrackReport& report) {
    const fs::path folder = options.out;
    print_text('\n' + summary_text(report));
    print_line("\nMesh          " + mesh_file(options).string());
    print_line("Trajectory    " + (folder / "trajectory.txt").string());
    print_line("Pictures      " + (folder / "preview.png").string() + ", plot.png");
    print_line("Report        " + (folder / "report.txt").string() + ", report.json");
}

}  // namespace

int run_scan(const ScanRun& run, TrackReport& report) {
    const Outcome<Done> recording = begin_debug_recording(run.options);
    if (!recording) return report_failure(recording.failure());
    const ScanSession session(run.settings);
    if (session.handle() == nullptr) return report_failure({"the session refused its settings"});
    if (report.rig) print_rig(*report.rig);
    std::vector<ComparedFrame> compared;
    const Outcome<Done> scanned = scan_frames(session, run.frames, run.source, report, compared);
    if (!scanned) return report_failure(scanned.failure());
    if (report.isInterrupted) {
        print_line(
            format_text("interrupted: writing what the first %d frames gave", static_cast<int>(report.frames.size())));
    }

    take_to_recorded(run.toRecorded, report, compared);
    const Outcome<Done> modelMade = make_model(run, session, report);
    compare(run.options.truth, run.given, compared, report);
    const Outcome<Done> accountWritten = write_account(run.options.out, report, compared);
    if (!modelMade) return report_failure(modelMade.failure());
    if (!accountWritten) return report_failure(accountWritten.failure());
    print_results(run.options, report);
    return report.isInterrupted ? EXIT_INTERRUPTED : EXIT_OK;
}

}  // namespace VexelAlgorithm::Apps
