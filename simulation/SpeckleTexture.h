// The pattern of a speckle projector, as a texture that knows how it looks from any distance.
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm::Simulation {

/// Irregular spots of one size, half of the area bright: white noise, filtered to a band around one wavelength,
/// and cut at zero (binary band-limited patterns: J. Wiegmann, H. Wagner, R. Kowarschik, "Human face measurement by
/// projecting bandlimited random patterns", Optics Express 14, 2006).
struct SpecklePattern {
    int width = 1280;  ///< projector pixels
    int height = 1024;
    double spotSize = 4.0;    ///< projector pixels; half the middle wavelength
    double blur = 0.8;        ///< projector pixels, standard deviation of the projector's image of an edge
    double darkLevel = 0.04;  ///< what an unlit spot still gets, relative to a lit one
    std::uint64_t seed = 7;
};

/// The pattern, seen through round Gaussian footprints whose variances double from level to level, with fewer texels
/// where the blur allows it (L. Williams, "Pyramidal parametrics", SIGGRAPH 1983, with finer steps: cameras that see a
/// speckle under different footprints must agree on its place to some thousandths of a pixel).
class SpeckleTexture {
public:
    explicit SpeckleTexture(const SpecklePattern& pattern, int threads = 2);

    /// Mean intensity in [0, 1] under a Gaussian footprint on the projector's image: `centre` in projector pixels, and
    /// the covariance of the footprint in squared projector pixels, symmetric and positive definite. Several round
    /// footprints along the longer axis make up a long one (J. McCormack et al., "Feline: fast elliptical lines for
    /// anisotropic texture mapping", SIGGRAPH 1999). 0 outside the image.
    float mean_under(const Vector2d& centre, const Eigen::Matrix2d& covariance) const;

private:
    struct Level {
        int width = 0;
        int height = 0;
        double blur = 0.0;  ///< projector pixels, standard deviation of the footprint
        std::vector<float> texels;
    };
    float bilinear(const Level& level, double size, const Vector2d& place) const;
    float round_mean(const Vector2d& centre, double sigma) const;

    int _width;
    int _height;
    double _patternBlur = 0.0;  ///< projector pixels
    std::vector<Level> _levels;
};

}  // namespace VexelAlgorithm::Simulation
