// Local reference frames and descriptors of surface patches. Internal to the library.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "platform/sampledCloud.h"

namespace VexelAlgorithm {

/// A place on the surface with its own axes (columns of `axes`, right-handed, z out of the surface).
struct SurfaceFrame {
    Vector3f position;
    Matrix3f axes;
};

/// Descriptors stand in the columns and have unit length.
struct SurfaceFeatures {
    static constexpr int AZIMUTH_SECTORS = 8;
    static constexpr int ELEVATION_HALVES = 2;
    static constexpr int RADIAL_SHELLS = 2;
    static constexpr int COSINE_BINS = 11;
    static constexpr int LENGTH = AZIMUTH_SECTORS * ELEVATION_HALVES * RADIAL_SHELLS * COSINE_BINS;

    std::vector<SurfaceFrame> frames;
    Eigen::MatrixXf descriptors;

    std::size_t size() const { return frames.size(); }
};

struct FeatureSettings {
    float spacing = 1.0F;           ///< of the samples, mm
    float frameRadius = 1.0F;       ///< support of a frame, mm
    float descriptorRadius = 1.0F;  ///< support of a descriptor, mm
    std::size_t mostFeatures = 1000;
};

/// Features at the samples around which the surface bends most, a little apart from each other: the same places in
/// every view, and none on planes.
///
/// Frames: z is the mean normal of the inner support; x sums the directions in which the surface leaves the tangent
/// plane (Yang, Zhang, Xiao and Cao, "TOLDI: an effective and robust approach for 3D local shape description", Pattern
/// Recognition 65, 2017). Descriptors: histograms of the angle between a neighbour's normal and z, one for each of the
/// sectors of a ball around the sample, neighbouring bins sharing each entry (Salti, Tombari and Di Stefano, "SHOT:
/// unique signatures of histograms for surface and texture description", CVIU 125, 2014).
SurfaceFeatures describe_surface(const SampledCloud& samples, const FeatureSettings& settings);

}  // namespace VexelAlgorithm
