#include "apps/givenPoses.h"

#include <algorithm>
#include <cmath>

#include "apps/numberOptions.h"
#include "foundation/diagnostics.h"
#include "recording/numberText.h"
#include "recording/trajectoryText.h"

namespace VexelAlgorithm::Apps {
namespace {

GivenPoses recorded_poses(const std::vector<PosedFrame>& frames) {
    GivenPoses poses;
    for (const PosedFrame& frame : frames) poses.push_back(frame.given);
    return poses;
}

/// The pose nearest in time to each frame, at most half a frame away.
GivenPoses poses_at_frames(const std::vector<TimedPose>& trajectory, const std::vector<PosedFrame>& frames,
                           double rate) {
    GivenPoses poses;
    const auto isBefore = [](const TimedPose& pose, double time) { return pose.time < time; };
    for (const PosedFrame& frame : frames) {
        const double time = frame.number / rate;
        auto nearest = std::lower_bound(trajectory.begin(), trajectory.end(), time, isBefore);
        const bool isPreviousNearer =
            nearest == trajectory.end() ||
            (nearest != trajectory.begin() && time - std::prev(nearest)->time < nearest->time - time);
        if (isPreviousNearer) --nearest;
        const bool isNear = std::abs(nearest->time - time) <= 0.5 / rate;
        poses.push_back(isNear ? std::optional<RigidMatrix>(nearest->cameraToWorld) : std::nullopt);
    }
    return poses;
}

Outcome<FrameRange> range_of(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon != std::string::npos) {
        const Outcome<std::vector<double>> numbers =
            parse_numbers(text.substr(0, colon) + ' ' + text.substr(colon + 1), 2);
        const double largest = 999999999.0;
        if (numbers && (*numbers)[0] >= 0.0 && (*numbers)[0] <= (*numbers)[1] && (*numbers)[1] <= largest) {
            return FrameRange{static_cast<int>((*numbers)[0]), static_cast<int>((*numbers)[1])};
        }
    }
    return Failure{"'" + text + "' is no range of frames like 0:121"};
}

/// All frames, then the given ranges or else those between jumps.
std::vector<FrameRange> ranges_to_compare(const TruthOptions& options, const std::vector<ComparedFrame>& compared) {
    std::vector<FrameRange> ranges{{compared.front().number, compared.back().number}};
    for (const std::string& text : options.ranges) ranges.push_back(*range_of(text));
    if (!options.ranges.empty()) return ranges;
    const std::vector<FrameRange> pieces = ranges_between_jumps(compared);
    if (pieces.size() > 1) ranges.insert(ranges.end(), pieces.begin(), pieces.end());
    return ranges;
}

}  // namespace

void add_truth_options(const CommandLine& command, TruthOptions& options) {
    command.add_flag("--truth", options.isCompared, "Compares the trajectory with the recording's own poses");
    command.add_option("--truth-file", options.file,
                       "Compares the trajectory with this one: lines of time (s), translation (m), quaternion x y z w");
    command
        .add_option("--truth-range", options.ranges,
                    "Frames FIRST:LAST to give the figures for beside those of all; may be repeated. Without it the "
                    "frames are cut where the poses jump against each other")
        .check(ArgumentCheck([](const std::string& text) {
            const Outcome<FrameRange> range = range_of(text);
            return range ? std::string() : range.failure().reason;
        }));
    command.add_option("--rate", options.rate, "Frames a second: frame number / rate is the time in trajectories")
        .check(number_between(0.001, 1e6))
        .show_default();
}

Outcome<GivenPoses> given_poses(const TruthOptions& options, const std::string& recording,
                                const std::vector<PosedFrame>& frames) {
    GivenPoses poses;
    if (!options.file.empty()) {
        const Outcome<std::vector<TimedPose>> trajectory = read_trajectory(options.file);
        if (!trajectory) return trajectory.failure();
        poses = poses_at_frames(*trajectory, frames, options.rate);
    } else if (options.isCompared || !options.ranges.empty()) {
        poses = recorded_poses(frames);
    }
    const bool hasPose = std::any_of(poses.begin(), poses.end(), [](const auto& pose) { return pose.has_value(); });
    if (poses.empty() || hasPose) return poses;
    if (options.file.empty()) {
        return Failure{recording + " holds no poses to compare with; name a --truth-file"};
    }
    return Failure{options.file + format_text(" has no pose at the times of the frames; they are the frames' numbers "
                                              "divided by the --rate of %g",
                                              options.rate)};
}

void compare(const TruthOptions& options, const GivenPoses& given, std::vector<ComparedFrame>& compared,
             TrackReport& report) {
    if (given.empty()) return compared.clear();
    for (std::size_t i = 0; i < compared.size(); ++i) compared[i].given = given[i];
    report.truth = options.file.empty() ? "the recording's own poses" : options.file;
    for (const FrameRange range : ranges_to_compare(options, compared)) {
        report.errors.push_back(evaluate_trajectory(compared, range));
    }
}

}  // namespace VexelAlgorithm::Apps
