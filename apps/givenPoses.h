// Comparing a trajectory with poses that are known.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/CommandLine.h"
#include "apps/TrackReport.h"
#include "recording/Outcome.h"
#include "recording/trajectoryEvaluation.h"

namespace VexelAlgorithm::Apps {

/// What the command line says about the comparison.
struct TruthOptions {
    double rate = 30.0;  ///< frames a second, also for the trajectory that is written
    bool isCompared = false;
    std::string file;
    std::vector<std::string> ranges;
};
/// Adds --truth, --truth-file, --truth-range and --rate.
void add_truth_options(const CommandLine& command, TruthOptions& options);

/// A frame's number and the pose that its recording gives (camera to world, mm).
struct PosedFrame {
    int number = 0;
    std::optional<RigidMatrix> given;
};

/// One for each frame; empty when nothing is to be compared.
using GivenPoses = std::vector<std::optional<RigidMatrix>>;

/// Those of the recording or of the file, as the options say; fails when there is none among them. `recording` names
/// it in that case.
Outcome<GivenPoses> given_poses(const TruthOptions& options, const std::string& recording,
                                const std::vector<PosedFrame>& frames);

/// Completes the frames with their given poses and adds the figures to the report; without a truth they are dropped.
void compare(const TruthOptions& options, const GivenPoses& given, std::vector<ComparedFrame>& compared,
             TrackReport& report);

}  // namespace VexelAlgorithm::Apps
