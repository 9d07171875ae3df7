// How far a trajectory that was found is from one that is given.
#pragma once

#include <optional>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {

/// One frame with what is known of it. Poses take camera coordinates to the model's or the given world's (mm); these
/// two may differ by any rigid motion.
struct ComparedFrame {
    int number = 0;
    std::optional<RigidMatrix> found;  ///< none: the frame was lost
    std::optional<RigidMatrix> given;
    Matrix4d points = Matrix4d::Zero();  ///< `point_moments` of the frame; zero leaves it out of the point figures
};

/// The mean of [p; 1] [p; 1]^T over the points of a frame (mm); zero for a frame without points.
Matrix4d point_moments(const PointImage& frame);

/// The RMS distance (mm) between the frame's points moved by one and by the other motion: with the difference D of the
/// two 3 x 4 matrices it is sqrt(trace(D M D^T)), so the points themselves are not needed.
double rms_point_distance(const Matrix4d& moments, const RigidMatrix& one, const RigidMatrix& other);

/// The rigid motion that takes the positions of `from` nearest to those of `to` in the least-squares sense (Umeyama,
/// "Least-squares estimation of transformation parameters between two point patterns", 1991, without scale). Turns
/// about which the positions say nothing, such as those about a straight path, follow the orientations. Both lists have
/// the same length, at least 1.
RigidMatrix best_rigid_alignment(const std::vector<RigidMatrix>& from, const std::vector<RigidMatrix>& to);

/// Zero when there is nothing to compare.
struct ErrorFigures {
    double rmse = 0.0;
    double median = 0.0;
    double max = 0.0;
};
ErrorFigures error_figures(std::vector<double> errors);

struct PoseErrors {
    ErrorFigures translation;  ///< mm
    ErrorFigures rotation;     ///< degrees
};

/// Absolute trajectory error and relative pose error as Sturm et al., "A benchmark for the evaluation of RGB-D SLAM
/// systems" (2012), define them, for translation and rotation.
struct TrajectoryErrors {
    int first = 0;  ///< frame numbers
    int last = 0;
    int frames = 0;           ///< in the range
    int tracked = 0;          ///< with a pose found
    int compared = 0;         ///< with both poses; 0: the other figures say nothing
    int steps = 0;            ///< frames that follow each other, both compared
    PoseErrors firstAligned;  ///< absolute, the first compared pose made equal
    /// Absolute: positions after `best_rigid_alignment`, rotations after the turn that is best for them, because short
    /// paths say little about it.
    PoseErrors bestAligned;
    PoseErrors relative;       ///< of the steps
    ErrorFigures pointMotion;  ///< of the steps: `rms_point_distance` of the later frame's points, mm

    double tracked_share() const { return frames > 0 ? static_cast<double>(tracked) / frames : 0.0; }
};

struct FrameRange {
    int first = 0;
    int last = 0;
};

/// The figures of the frames with numbers in the range. Frames are in the order in which they were tracked.
TrajectoryErrors evaluate_trajectory(const std::vector<ComparedFrame>& frames, FrameRange range);

/// The errors of each frame with the first compared pose made equal; NaN where a pose is missing.
struct FrameError {
    double translation;  ///< mm
    double rotation;     ///< degrees
    double pointMotion;  ///< of the step to this frame, mm
};
std::vector<FrameError> frame_errors(const std::vector<ComparedFrame>& frames);

/// Cuts the frames where one of the trajectories jumps: at steps in which the points move differently by more than ten
/// times the median step, and at least 1 mm. Trackers that relocate leave such jumps in given poses, and across them
/// absolute errors mean nothing. A single range when there is no jump, or when there are more than three, which is bad
/// tracking rather.
std::vector<FrameRange> ranges_between_jumps(const std::vector<ComparedFrame>& frames);

}  // namespace VexelAlgorithm
