// Whether a calibration fits the pictures that its cameras take.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/Rig.h"
#include "apps/rowMatches.h"

namespace VexelAlgorithm::Apps {

/// Something that is wrong, in one sentence.
struct CalibrationFinding {
    bool isFatal = false;  ///< nothing useful can be reconstructed
    std::string text;
};

/// Percentiles of the vertical disparity (right row - left row) of partners in the rectified images, pixels.
struct RowErrors {
    double median = 0.0;
    double absoluteMedian = 0.0;
    double absolute95 = 0.0;
    double perThousandRows = 0.0;     ///< how it grows from top to bottom ...
    double perThousandColumns = 0.0;  ///< ... and from left to right, median slopes
};

/// What a pair says about the calibration; from matches whose row errors agree with each other.
struct PairJudgement {
    int tried = 0;
    int matched = 0;
    int consistent = 0;        ///< of the matched, within a few pixels of what most say
    double behindShare = 0.0;  ///< of the consistent: share that would lie behind the cameras
    RowErrors rows;
    Vector2d parallax = Vector2d::Zero();  ///< of 98 % of the points in front of the cameras, pixels
    Vector2d depth = Vector2d::Zero();     ///< their depths, mm, nearest first
};
PairJudgement judge_pair(const RowMatches& matches, const Rebuild::CaliParReadIn& calibration);

/// Share of the rectified left image that shows anything, and of that what the right image can show at a depth (mm).
struct Overlap {
    double covered = 0.0;
    double shared = 0.0;
};
Overlap overlap_at(const Rebuild::CaliParReadIn& calibration, double depth);

/// What looks odd in the numbers of one camera (22 values) for images of this size.
std::vector<CalibrationFinding> camera_findings(const std::vector<float>& camera, ImageSize size, const char* side);

/// What the judgement says in words. `swapped` is the judgement with the images exchanged, where it was made;
/// `depthRange` (mm, rectified-left) is zero when none is known.
std::vector<CalibrationFinding> pair_findings(const PairJudgement& judgement,
                                              const std::optional<PairJudgement>& swapped, const Vector2f& depthRange);

/// Whether partners are so few, so far off their rows or so often behind the cameras that exchanged images are worth a
/// try.
bool looks_wrong(const PairJudgement& judgement);

}  // namespace VexelAlgorithm::Apps
