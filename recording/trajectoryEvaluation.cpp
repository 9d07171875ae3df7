#include "recording/trajectoryEvaluation.h"

#include <Eigen/SVD>
#include <algorithm>
#include <cmath>
#include <limits>

namespace VexelAlgorithm {
namespace {

constexpr double degreesPerRadian = 57.29577951308232;
/// Share of the positions' spread with which orientations count: only where positions say next to nothing.
constexpr double orientationShare = 1e-6;
constexpr double jumpFactor = 10.0;
constexpr double smallestJump = 1.0;  // mm
constexpr std::size_t mostJumps = 3;

using Matrix34d = Eigen::Matrix<double, 3, 4>;

Matrix34d matrix_of(const RigidMatrix& motion) {
    Matrix34d matrix;
    matrix << motion.get_rotation(), motion.get_translation();
    return matrix;
}

/// The rotation nearest to a matrix.
Matrix3d nearest_rotation(const Matrix3d& matrix) {
    const Eigen::JacobiSVD<Matrix3d> svd(matrix, Eigen::ComputeFullU | Eigen::ComputeFullV);
    const double handedness = (svd.matrixU() * svd.matrixV().transpose()).determinant();
    return svd.matrixU() * Vector3d(1.0, 1.0, handedness).asDiagonal() * svd.matrixV().transpose();
}

Matrix3d sum_of_turns(const std::vector<RigidMatrix>& from, const std::vector<RigidMatrix>& to) {
    Matrix3d sum = Matrix3d::Zero();
    for (std::size_t i = 0; i < from.size(); ++i) sum += to[i].get_rotation() * from[i].get_rotation().transpose();
    return sum;
}

/// Chordal mean of the turns from one to the other (Hartley et al., "Rotation averaging", 2013).
Matrix3d mean_rotation(const std::vector<RigidMatrix>& from, const std::vector<RigidMatrix>& to) {
    return nearest_rotation(sum_of_turns(from, to));
}

double median_of(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    if (values.size() % 2 == 1) return *middle;
    return 0.5 * (*middle + *std::max_element(values.begin(), middle));
}

/// Poses with a truth, one list beside the other.
struct PosePairs {
    std::vector<RigidMatrix> found;
    std::vector<RigidMatrix> given;
};

class ErrorList {
public:
    /// The motion from where something should be to where it is.
    void add(const RigidMatrix& error) {
        _translations.push_back(error.get_translation().norm());
        _rotations.push_back(rotation_angle(error) * degreesPerRadian);
    }
    PoseErrors figures() const { return {error_figures(_translations), error_figures(_rotations)}; }

private:
    std::vector<double> _translations, _rotations;
};

PoseErrors absolute_errors(const PosePairs& pairs, const RigidMatrix& foundToGiven) {
    ErrorList errors;
    for (std::size_t i = 0; i < pairs.found.size(); ++i) {
        errors.add(pairs.given[i].inverse() * (foundToGiven * pairs.found[i]));
    }
    return errors.figures();
}

PoseErrors best_absolute_errors(const PosePairs& pairs) {
    const RigidMatrix turn(mean_rotation(pairs.found, pairs.given), Vector3d::Zero());
    const RigidMatrix alignment = best_rigid_alignment(pairs.found, pairs.given);
    return {absolute_errors(pairs, alignment).translation, absolute_errors(pairs, turn).rotation};
}

/// The motion of the later of two frames that follow each other, in the earlier one's camera coordinates.
struct Step {
    RigidMatrix found;
    RigidMatrix given;
    const ComparedFrame* later = nullptr;

    double point_distance() const { return rms_point_distance(later->points, found, given); }
};

bool is_compared(const ComparedFrame& frame) {
    return frame.found && frame.given;
}

std::vector<Step> steps_of(const std::vector<ComparedFrame>& frames) {
    std::vector<Step> steps;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        const ComparedFrame& earlier = frames[i - 1];
        const ComparedFrame& later = frames[i];
        if (!is_compared(earlier) || !is_compared(later)) continue;
        steps.push_back({earlier.found->inverse() * *later.found, earlier.given->inverse() * *later.given, &later});
    }
    return steps;
}

std::vector<double> point_distances(const std::vector<Step>& steps) {
    std::vector<double> distances;
    for (const Step& step : steps) {
        if (step.later->points(3, 3) > 0.0) distances.push_back(step.point_distance());
    }
    return distances;
}

void add_step_errors(const std::vector<Step>& steps, TrajectoryErrors& errors) {
    ErrorList relative;
    for (const Step& step : steps) relative.add(step.given.inverse() * step.found);
    errors.steps = static_cast<int>(steps.size());
    errors.relative = relative.figures();
    errors.pointMotion = error_figures(point_distances(steps));
}

}  // namespace

Matrix4d point_moments(const PointImage& frame) {
    Matrix4d sum = Matrix4d::Zero();
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (!frame.has_point(i)) continue;
        const Eigen::Vector4d point = frame.get_vCoord(i).cast<double>().homogeneous();
        sum += point * point.transpose();
    }
    return sum(3, 3) > 0.0 ? Matrix4d(sum / sum(3, 3)) : sum;
}

double rms_point_distance(const Matrix4d& moments, const RigidMatrix& one, const RigidMatrix& other) {
    const Matrix34d difference = matrix_of(one) - matrix_of(other);
    return std::sqrt(std::max(0.0, (difference * moments * difference.transpose()).trace()));
}

RigidMatrix best_rigid_alignment(const std::vector<RigidMatrix>& from, const std::vector<RigidMatrix>& to) {
    const double count = static_cast<double>(from.size());
    Vector3d fromMean = Vector3d::Zero(), toMean = Vector3d::Zero();
    for (std::size_t i = 0; i < from.size(); ++i) {
        fromMean += from[i].get_translation() / count;
        toMean += to[i].get_translation() / count;
    }
    Matrix3d covariance = Matrix3d::Zero();
    double spread = 0.0;
    for (std::size_t i = 0; i < from.size(); ++i) {
        const Vector3d offset = from[i].get_translation() - fromMean;
        covariance += (to[i].get_translation() - toMean) * offset.transpose();
        spread += offset.squaredNorm();
    }
    constexpr double leastSpread = 1e-6;  // mm^2; a camera on the spot
    covariance += orientationShare * std::max(spread, leastSpread) / count * sum_of_turns(from, to);
    const Matrix3d rotation = nearest_rotation(covariance);
    return {rotation, toMean - rotation * fromMean};
}

ErrorFigures error_figures(std::vector<double> errors) {
    if (errors.empty()) return {};
    double squares = 0.0;
    for (const double error : errors) squares += error * error;
    const double largest = *std::max_element(errors.begin(), errors.end());
    return {std::sqrt(squares / static_cast<double>(errors.size())), median_of(std::move(errors)), largest};
}

TrajectoryErrors evaluate_trajectory(const std::vector<ComparedFrame>& frames, FrameRange range) {
    TrajectoryErrors errors;
    errors.first = range.first;
    errors.last = range.last;
    std::vector<ComparedFrame> inside;
    PosePairs pairs;
    for (const ComparedFrame& frame : frames) {
        if (frame.number < range.first || frame.number > range.last) continue;
        inside.push_back(frame);
        if (frame.found) ++errors.tracked;
        if (!is_compared(frame)) continue;
        pairs.found.push_back(*frame.found);
        pairs.given.push_back(*frame.given);
    }
    errors.frames = static_cast<int>(inside.size());
    errors.compared = static_cast<int>(pairs.found.size());
    if (errors.compared == 0) return errors;

    errors.firstAligned = absolute_errors(pairs, pairs.given.front() * pairs.found.front().inverse());
    errors.bestAligned = best_absolute_errors(pairs);
    add_step_errors(steps_of(inside), errors);
    return errors;
}

std::vector<FrameError> frame_errors(const std::vector<ComparedFrame>& frames) {
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    std::vector<FrameError> errors(frames.size(), {none, none, none});
    const auto first = std::find_if(frames.begin(), frames.end(), is_compared);
    if (first == frames.end()) return errors;
    const RigidMatrix foundToGiven = *first->given * first->found->inverse();
    for (std::size_t i = 0; i < frames.size(); ++i) {
        if (!is_compared(frames[i])) continue;
        const RigidMatrix error = frames[i].given->inverse() * (foundToGiven * *frames[i].found);
        errors[i].translation = error.get_translation().norm();
        errors[i].rotation = rotation_angle(error) * degreesPerRadian;
    }
    for (const Step& step : steps_of(frames)) {
        if (step.later->points(3, 3) > 0.0) {
            errors[static_cast<std::size_t>(step.later - frames.data())].pointMotion = step.point_distance();
        }
    }
    return errors;
}

std::vector<FrameRange> ranges_between_jumps(const std::vector<ComparedFrame>& frames) {
    if (frames.empty()) return {};
    const FrameRange whole{frames.front().number, frames.back().number};
    const std::vector<Step> steps = steps_of(frames);
    const std::vector<double> distances = point_distances(steps);
    if (distances.empty()) return {whole};

    const double limit = std::max(smallestJump, jumpFactor * median_of(distances));
    std::vector<FrameRange> ranges{whole};
    for (const Step& step : steps) {
        if (step.later->points(3, 3) <= 0.0 || step.point_distance() <= limit) continue;
        const std::size_t place = static_cast<std::size_t>(step.later - frames.data());
        ranges.back().last = frames[place - 1].number;
        ranges.push_back({step.later->number, whole.last});
    }
    if (ranges.size() > mostJumps + 1) return {whole};
    return ranges;
}

}  // namespace VexelAlgorithm
