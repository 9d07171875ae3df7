#include "apps/TrackReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "foundation/diagnostics.h"

namespace VexelAlgorithm::Apps {
namespace {

struct OutcomeName {
    FrameOutcome outcome;
    const char* name;
};

constexpr OutcomeName outcomeNames[] = {
    {FrameOutcome::NoFrameYet, "no frame yet"},
    {FrameOutcome::FirstFrame, "first frame"},
    {FrameOutcome::Fused, "fused"},
    {FrameOutcome::TrackedOnly, "tracked, not fused"},
    {FrameOutcome::MissingAttributes, "missing attributes"},
    {FrameOutcome::BadFrame, "bad frame"},
    {FrameOutcome::TooFewPoints, "too few points"},
    {FrameOutcome::EmptyPrediction, "empty prediction"},
    {FrameOutcome::NoCorrespondences, "no correspondences"},
    {FrameOutcome::ResidualTooLarge, "residual too large"},
    {FrameOutcome::TooFewValid, "too few correspondences"},
    {FrameOutcome::NotConverged, "not converged"},
    {FrameOutcome::TooFast, "too fast"},
    {FrameOutcome::Failed, "failed"},
    {FrameOutcome::GivenUp, "given up"},
    {FrameOutcome::Recovered, "recovered"},
    {FrameOutcome::Contradicted, "contradicts the model"},
};

Json json_of(const ErrorFigures& figures) {
    return {{"rmse", figures.rmse}, {"median", figures.median}, {"max", figures.max}};
}

Json json_of(const PoseErrors& errors) {
    return {{"translation_mm", json_of(errors.translation)}, {"rotation_degrees", json_of(errors.rotation)}};
}

Json json_of(const TrajectoryErrors& errors) {
    return {{"first_frame", errors.first},
            {"last_frame", errors.last},
            {"frames", errors.frames},
            {"tracked", errors.tracked},
            {"compared", errors.compared},
            {"steps", errors.steps},
            {"absolute_first_pose_equal", json_of(errors.firstAligned)},
            {"absolute_best_alignment", json_of(errors.bestAligned)},
            {"relative_per_step", json_of(errors.relative)},
            {"point_distance_per_step_mm", json_of(errors.pointMotion)}};
}

Json json_of(const TrackedFrame& frame) {
    Json json = {{"frame", frame.number},
                 {"accepted", frame.isAccepted},
                 {"outcome", outcome_text(frame.state.outcome)},
                 {"stable", frame.state.isStable},
                 {"residual_mm", frame.state.residual},
                 {"correspondences", frame.state.correspondences},
                 {"frame_points", frame.state.frameValid},
                 {"prediction_points", frame.state.predictionValid},
                 {"display_points", frame.displayPoints}};
    return json;
}

Json timing_of(const TrackReport& report) {
    Json timing = json_of(report.clock);
    Json frames = Json::array();
    for (const TrackedFrame& frame : report.frames) {
        Json row = {{"frame", frame.number}};
        for (const FrameStage& stage : report.frame_stages()) row[stage.name] = stage.milliseconds(frame);
        row["step"] = frame.stepMs;
        frames.push_back(std::move(row));
    }
    timing["frames_ms"] = std::move(frames);
    return timing;
}

Json json_of(const RigSummary& rig) {
    return {{"baseline_mm", rig.baseline},
            {"rectified_focal_length_pixels", rig.focalLength},
            {"sample_ratio", rig.sampleRatio},
            {"depth_range_mm", {rig.depthRange(0), rig.depthRange(1)}},
            {"search_range_pixels", {rig.findRange(0), rig.findRange(1)}}};
}

std::string figures_text(const ErrorFigures& figures) {
    return format_text("%10.2f%10.2f%10.2f", figures.rmse, figures.median, figures.max);
}

std::string figures_text(const PoseErrors& errors) {
    return figures_text(errors.translation) +
           format_text("%12.3f%10.3f%10.3f", errors.rotation.rmse, errors.rotation.median, errors.rotation.max);
}

std::string errors_text(const TrajectoryErrors& errors) {
    std::string text =
        format_text("\nFrames %d .. %d: %d of %d tracked (%.1f %%), %d compared\n", errors.first, errors.last,
                    errors.tracked, errors.frames, 100.0 * errors.tracked_share(), errors.compared);
    if (errors.compared == 0) return text;
    text += format_text("%-24s%10s%10s%10s%12s%10s%10s\n", "", "rmse mm", "median", "max", "rmse deg", "median", "max");
    text += format_text("%-24s", "first pose made equal") + figures_text(errors.firstAligned) + '\n';
    text += format_text("%-24s", "best rigid alignment") + figures_text(errors.bestAligned) + '\n';
    text += format_text("%-24s", "from frame to frame") + figures_text(errors.relative) + '\n';
    text += format_text("%-24s", "its effect on the points") + figures_text(errors.pointMotion) + '\n';
    return text;
}

std::string frame_line(const TrackReport& report, const TrackedFrame& frame) {
    std::string line =
        format_text("%6d  %-24s%9.3f%9d%9d%9d%4s ", frame.number, outcome_text(frame.state.outcome).c_str(),
                    frame.state.residual, frame.state.correspondences, frame.state.frameValid,
                    frame.state.predictionValid, frame.state.isStable ? "" : "no");
    for (const FrameStage& stage : report.frame_stages()) line += format_text("%9.1f", stage.milliseconds(frame));
    return line + '\n';
}

std::string frame_header(const TrackReport& report) {
    std::string line = format_text("%6s  %-24s%9s%9s%9s%9s%5s", "frame", "outcome", "residual", "corresp.", "points",
                                   "predicted", "stable");
    for (const FrameStage& stage : report.frame_stages()) line += format_text("%9.8s", stage.name);
    return line + '\n';
}

}  // namespace

std::string outcome_text(FrameOutcome outcome) {
    const auto known = std::find_if(std::begin(outcomeNames), std::end(outcomeNames),
                                    [&](const OutcomeName& name) { return name.outcome == outcome; });
    return known == std::end(outcomeNames) ? format_text("outcome %d", static_cast<int>(outcome)) : known->name;
}

std::array<FrameStage, 9> TrackReport::frame_stages() const {
    return {{
        {"read", [](const TrackedFrame& frame) { return frame.readMs; }},
        {pointsStage, [](const TrackedFrame& frame) { return frame.pointsMs; }},
        {"prepare", [](const TrackedFrame& frame) { return frame.state.times.prepare; }},
        {"particles", [](const TrackedFrame& frame) { return frame.state.times.particles; }},
        {"icp", [](const TrackedFrame& frame) { return frame.state.times.icp; }},
        {"contribution", [](const TrackedFrame& frame) { return frame.state.times.contribution; }},
        {"integrate", [](const TrackedFrame& frame) { return frame.state.times.integrate; }},
        {"predict", [](const TrackedFrame& frame) { return frame.state.times.predict; }},
        {"display", [](const TrackedFrame& frame) { return frame.displayMs; }},
    }};
}

int TrackReport::accepted() const {
    return static_cast<int>(
        std::count_if(frames.begin(), frames.end(), [](const TrackedFrame& frame) { return frame.isAccepted; }));
}

std::vector<TimedPose> TrackReport::trajectory() const {
    std::vector<TimedPose> poses;
    for (const TrackedFrame& frame : frames) {
        if (frame.isAccepted) poses.push_back({frame.number / rate, frame.pose});
    }
    return poses;
}

std::string json_text(const TrackReport& report) {
    Json json;
    json["input"] = {{"recording", report.recording},
                     {"preset", report.preset},
                     {"settings_file", report.settingsFile},
                     {"resumed", report.resumed},
                     {"image_size", {report.imageSize.width, report.imageSize.height}},
                     {"step", report.step},
                     {"threads", report.threads},
                     {"voxel_mm", report.voxel},
                     {"frames_selected", report.framesSelected},
                     {"frames_seen", report.frames.size()},
                     {"frames_tracked", report.accepted()},
                     {"interrupted", report.isInterrupted}};
    if (report.rig) json["rig"] = json_of(*report.rig);
    json["mesh"] = json_of(report.mesh);
    if (!report.truth.empty()) {
        Json ranges = Json::array();
        for (const TrajectoryErrors& errors : report.errors) ranges.push_back(json_of(errors));
        json["comparison"] = {{"truth", report.truth}, {"ranges", std::move(ranges)}};
    }
    json["frames"] = Json::array();
    for (const TrackedFrame& frame : report.frames) json["frames"].push_back(json_of(frame));
    json["timing"] = timing_of(report);
    json["memory"] = {{"peak_mib", report.peakMemoryMib}};
    return text_of(json);
}

std::string summary_text(const TrackReport& report) {
    std::string text;
    const int seen = static_cast<int>(report.frames.size());
    add_line(text, "Recording", report.recording);
    if (!report.resumed.empty()) add_line(text, "Resumed", report.resumed);
    add_line(
        text, "Frames",
        format_text("%d of %d tracked (%d .. %d, every %d)%s", report.accepted(), seen, report.frames.front().number,
                    report.frames.back().number, report.step, report.isInterrupted ? ", interrupted" : ""));
    add_line(text, "Settings",
             "preset " + report.preset + (report.settingsFile.empty() ? "" : ", " + report.settingsFile) +
                 format_text(", voxel %g mm, %d threads", report.voxel, report.threads));
    if (report.rig) {
        add_line(text, "Rig",
                 format_text("baseline %.2f mm, focal length %.1f pixels, search range %d .. %d pixels",
                             report.rig->baseline, report.rig->focalLength, report.rig->findRange(0),
                             report.rig->findRange(1)));
    }
    add_mesh(text, report.mesh);
    if (!report.truth.empty()) text += "\nCompared with " + report.truth + '\n';
    for (const TrajectoryErrors& errors : report.errors) text += errors_text(errors);
    add_run(text, report.clock, report.peakMemoryMib);
    return text;
}

std::string plain_text(const TrackReport& report) {
    std::string text = summary_text(report) + "\nFrames: residual in mm, times in ms\n" + frame_header(report);
    for (const TrackedFrame& frame : report.frames) text += frame_line(report, frame);
    return text;
}

}  // namespace VexelAlgorithm::Apps
