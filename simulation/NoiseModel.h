// Measurement errors of a stereo scanner, added to ideal frames.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/PointImage.h"

namespace VexelAlgorithm::Simulation {

/// A stereo scanner measures disparity, which is inverse to depth, with an error that does not depend on it;
/// its depth error therefore grows with the square of the depth. A tilted surface adds to it, because the matching
/// window then covers a range of depths. Defaults: a good scanner at arm's length.
struct NoiseModel {
    std::uint64_t seed = 1;
    double referenceDepth = 400.0;   ///< mm; the depth at which the two figures below hold
    double depthSigma = 0.1;         ///< mm, standard deviation of z of a surface seen from the front; 0 for none
    double depthExponent = 2.0;      ///< the error grows with this power of the depth; 0 for the same error everywhere
    double depthStep = 0.02;         ///< mm between neighbouring depths that can be told apart; 0 for no steps
    double tiltGain = 0.5;           ///< sigma grows by the factor 1 + tiltGain tan^2(incidence)
    double largestIncidence = 80.0;  ///< degrees in (0, 90]; pixels seen at a larger angle are lost
    double dropFraction = 0.01;      ///< of all pixels in [0, 1], lost at random

    /// Standard deviation (mm) of z before the steps are applied; incidence is the angle between normal and viewing
    /// ray.
    double sigma(double depth, double cosIncidence) const;
    /// Distance (mm) between neighbouring depths near this one; grows with the square of the depth.
    double step(double depth) const;
    /// Empty when all fields are usable, otherwise a line that names the wrong one.
    std::string fault() const;
};

/// Moves the points of a frame in camera coordinates along their viewing rays, so that each still lies on its pixel,
/// and empties the lost slots; normals stay those of the true surface, and weights are kept. Needs normals. The
/// randomness of a slot depends on seed, frame number and slot alone: the same call gives the same frame with any
/// number of threads. An unusable model or a frame without normals: one line, false, frame unchanged.
bool apply_noise(PointImage& frame, const NoiseModel& noise, std::uint64_t frameNumber, int threads = 2);

}  // namespace VexelAlgorithm::Simulation
