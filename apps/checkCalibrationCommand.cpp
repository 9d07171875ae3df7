// vexel-scan check-calibration: a calibration against a pair that its cameras took.
#include <algorithm>
#include <cmath>
#include <memory>

#include "apps/calibrationFindings.h"
#include "apps/commands.h"
#include "apps/pairPictures.h"
#include "apps/resultFiles.h"
#include "apps/scanOptions.h"
#include "apps/searchRange.h"
#include "apps/settingsFile.h"
#include "apps/stereoOptions.h"
#include "foundation/diagnostics.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm::Apps {
namespace {

/// What the command line says.
struct CheckOptions {
    StereoOptions stereo;
    std::string picture;
};

double angle_between_axes(const Rebuild::CaliParReadIn& calibration) {
    const double cosine = calibration.get_left_to_right().get_rotation()(2, 2);
    return std::acos(std::clamp(cosine, -1.0, 1.0)) * 180.0 / 3.14159265358979;
}

void print_geometry(const Rig& rig) {
    const Rebuild::CaliParReadIn& calibration = rig.calibration;
    const ParallaxOfDepth parallax(calibration);
    print_line(format_text("Baseline         %.3f mm, angle between the axes %.2f degrees",
                           parallax.baseline(calibration), angle_between_axes(calibration)));
    print_line(format_text("Rectified        focal length %.2f pixels, principal points %.2f pixels apart",
                           calibration.get_fxRect(), parallax.centreOffset));
}

void print_judgement(const PairJudgement& judgement) {
    print_line(format_text("Partners         %d of %d textured places, %d agree with each other", judgement.matched,
                           judgement.tried, judgement.consistent));
    if (judgement.consistent == 0) return;
    const RowErrors& rows = judgement.rows;
    print_line(format_text("Row error        median %+.3f, absolute median %.3f, 95 %% within %.3f pixels", rows.median,
                           rows.absoluteMedian, rows.absolute95));
    print_line(format_text("                 growing by %+.3f for 1000 rows, %+.3f for 1000 columns",
                           rows.perThousandRows, rows.perThousandColumns));
    if (judgement.behindShare >= 1.0) return;
    print_line(
        format_text("Seen             depths %.1f .. %.1f mm, parallaxes %.1f .. %.1f pixels (98 %% of the partners)",
                    judgement.depth(0), judgement.depth(1), judgement.parallax(0), judgement.parallax(1)));
}

void print_overlap(const Rig& rig, double nearest, double farthest) {
    print_line(
        format_text("Overlap          %.0f %% of the left image is seen by the right one at %g mm, %.0f %% at %g mm",
                    100.0 * overlap_at(rig.calibration, nearest).shared, nearest,
                    100.0 * overlap_at(rig.calibration, farthest).shared, farthest));
}

/// What the given depths need, and what the pair would need.
void print_ranges(const Rig& rig, const Vector2f& depthRange, const PairJudgement& judgement) {
    if (!depthRange.isZero()) {
        print_line(format_text("Search range     %d .. %d pixels for depths of %g .. %g mm", rig.param.findRange(0),
                               rig.param.findRange(1), depthRange(0), depthRange(1)));
        print_overlap(rig, depthRange(0), depthRange(1));
    }
    if (judgement.depth(1) <= 0.0) return;
    const double nearest = std::floor(0.97 * judgement.depth(0)), farthest = std::ceil(1.03 * judgement.depth(1));
    const Outcome<Vector2i> range = search_range(rig.calibration, nearest, farthest, rig.param.sampleRatio);
    if (!range) return;
    print_line(format_text("This pair needs  --depth-range %.0f %.0f: search range %d .. %d pixels", nearest, farthest,
                           (*range)(0), (*range)(1)));
    if (depthRange.isZero()) print_overlap(rig, nearest, farthest);
}

/// Where the images as they are do not fit, they are tried the other way round, to tell what is wrong.
std::vector<CalibrationFinding> judge(const Rig& rig, const StereoImages& images, const Vector2f& depthRange) {
    const int threads = default_thread_number();
    const Outcome<RectifiedPair> pair = rectified_pair(images, rig);
    if (!pair) return {{true, pair.failure().reason}};
    const PairJudgement judgement = judge_pair(find_row_matches(pair->left, pair->right, threads), rig.calibration);
    print_judgement(judgement);
    print_ranges(rig, depthRange, judgement);
    std::optional<PairJudgement> swapped;
    if (looks_wrong(judgement)) {
        const Outcome<RectifiedPair> other = rectified_pair({images.right, images.left}, rig);
        if (other) swapped = judge_pair(find_row_matches(other->left, other->right, threads), rig.calibration);
    }
    return pair_findings(judgement, swapped, depthRange);
}

int print_findings(const std::vector<CalibrationFinding>& findings) {
    bool isFatal = false;
    for (const CalibrationFinding& finding : findings) {
        print_line(std::string(finding.isFatal ? "Wrong            " : "Doubtful         ") + finding.text);
        isFatal = isFatal || finding.isFatal;
    }
    print_line(std::string("Verdict          ") + (isFatal            ? "the calibration does not fit"
                                                   : findings.empty() ? "the calibration fits"
                                                                      : "usable, with doubts"));
    return isFatal ? EXIT_FAILED : EXIT_OK;
}

int run_check(const CheckOptions& options) {
    const Outcome<StereoRecording> recording = open_stereo(options.stereo);
    if (!recording) return report_failure(recording.failure());
    const Outcome<std::vector<RecordedPair>> pairs = selected_pairs(*recording, options.stereo.selection);
    if (!pairs) return report_failure(pairs.failure());
    ScanSettings settings = preset_settings("desk");
    settings.rig.depthRange.setZero();
    if (recording->settings_file()) {
        const Outcome<Done> read = read_settings_file(*recording->settings_file(), settings);
        if (!read) return report_failure(read.failure());
    }
    apply(options.stereo, settings);
    const Outcome<Done> usable = check_usable(settings);
    if (!usable) return report_failure(usable.failure());
    const Outcome<Rig> rig = make_rig(settings, calibration_files(options.stereo, *recording), recording->image_size());
    if (!rig) return report_failure(rig.failure());
    const Outcome<StereoImages> images = read_pair(pairs->front(), recording->image_size());
    if (!images) return report_failure(images.failure());

    print_line("Pair             " + pairs->front().leftFile.string());
    print_geometry(*rig);
    std::vector<CalibrationFinding> findings = camera_findings(rig->param.leftCalib, recording->image_size(), "left");
    for (const auto& more : {camera_findings(rig->param.rightCalib, recording->image_size(), "right"),
                             judge(*rig, *images, settings.rig.depthRange)})
        findings.insert(findings.end(), more.begin(), more.end());
    if (!options.picture.empty()) {
        const Outcome<Done> written =
            write_picture(options.picture, draw_rectified_pair(*images, *rig), "rectified pair");
        if (!written) return report_failure(written.failure());
    }
    return print_findings(findings);
}

}  // namespace

void add_check_calibration_command(const CommandLine& app, Command& chosen) {
    const CommandLine command = app.add_command(
        "check-calibration", "Judges the calibration of a stereo scanner against the first of the chosen pairs.");
    const auto options = std::make_shared<CheckOptions>();
    add_stereo_options(command, options->stereo);
    command.add_option("--picture", options->picture,
                       "Draws the rectified pair with lines along its rows into this PNG file");
    command.when_given([options, &chosen] { chosen = [options] { return run_check(*options); }; });
}

}  // namespace VexelAlgorithm::Apps
