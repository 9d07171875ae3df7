// Gaussian smoothing of an image of floats.
#pragma once

#include <vector>

namespace VexelAlgorithm::Simulation {

/// Two passes of a sampled Gaussian with standard deviation `sigma` (pixels), cut at 3.5 sigma and normalised; the
/// border pixels are repeated outwards. No effect below 0.05 pixels.
void gaussian_blur(std::vector<float>& image, int width, int height, double sigma, int threads);

}  // namespace VexelAlgorithm::Simulation
