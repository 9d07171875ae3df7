#include "simulation/handTremor.h"

#include <algorithm>
#include <cmath>

#include "simulation/counterRandom.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kTurn = 6.283185307179586;
constexpr double kDegrees = 360.0 / kTurn;
constexpr int kBands = 8;

/// Root mean square 1.
double band_limited(const HandTremor& tremor, std::uint64_t axis, double time) {
    const double lowest = 0.1 * tremor.highestFrequency;
    const double bandWidth = (tremor.highestFrequency - lowest) / kBands;
    double sum = 0.0;
    for (std::uint64_t band = 0; band < kBands; ++band) {
        const PixelRandom random(tremor.seed, axis, band);
        const double frequency = lowest + bandWidth * (static_cast<double>(band) + random.uniform(0));
        sum += std::sin(kTurn * (frequency * time + random.uniform(1)));
    }
    return sum * std::sqrt(2.0 / kBands);
}

}  // namespace

RigidMatrix tremor_motion(const HandTremor& tremor, double time) {
    Vector3d translation, axisAngle;
    for (std::uint64_t axis = 0; axis < 3; ++axis) {
        const auto i = static_cast<Eigen::Index>(axis);
        translation[i] = tremor.translation * band_limited(tremor, axis, time);
        axisAngle[i] = tremor.rotation / kDegrees * band_limited(tremor, 3 + axis, time);
    }
    Matrix3d rotation;
    rodrigures(axisAngle, rotation);
    return {rotation, translation};
}

std::vector<RigidMatrix> shaken(const std::vector<RigidMatrix>& poses, const HandTremor& tremor) {
    std::vector<RigidMatrix> walked;
    for (const RigidMatrix& pose : poses)
        walked.push_back(pose * tremor_motion(tremor, static_cast<double>(walked.size())));
    return walked;
}

PathSpeed path_speed(const std::vector<RigidMatrix>& poses) {
    PathSpeed speed;
    if (poses.size() < 2) return speed;
    const auto steps = static_cast<double>(poses.size() - 1);
    for (std::size_t i = 1; i < poses.size(); ++i) {
        const RigidMatrix step = poses[i - 1].inverse() * poses[i];
        const double translation = step.get_translation().norm();
        const double rotation = rotation_angle(step) * kDegrees;
        speed.meanTranslation += translation / steps;
        speed.meanRotation += rotation / steps;
        speed.largestTranslation = std::max(speed.largestTranslation, translation);
        speed.largestRotation = std::max(speed.largestRotation, rotation);
    }
    return speed;
}

}  // namespace VexelAlgorithm::Simulation
