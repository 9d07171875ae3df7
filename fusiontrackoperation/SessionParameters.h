// From the three parameter records to what the parts of a session are made with.
#pragma once

#include <optional>
#include <string>

#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/TrackParmeter.h"

namespace VexelAlgorithm {

/// What no record holds.
struct FixedParameters {
    float coneHalfWidth = 0.5F;          ///< of a pixel's fusion cone, pixels
    float particleMinValidRatio = 0.5F;  ///< least share of a frame's points that count for a particle
    int debugLevel = 0;                  ///< handed to both trackers
    int icpLimitLowerBound = 1500;       ///< least number of valid points, whatever the records say
    float intervalFactor = 3.0F;         ///< least half-width of the guided raycast's interval, half voxels
};

/// The settings of a session's parts, and which fields of the records they come from. Lengths in mm, sizes in pixels.
///
/// - images: imageSize / sample (integer division), campar / sample, view radial (0, 0)
/// - volume: treeDepth, pointDis, the fixed cone half-width, fusionDataSize(0) as fusion range
/// - ICP: icpIterNum, icpInterNumFixed, icpDis, icpDisAvgThread, icpRataRay, `icpKeepRatio`
/// - particle tracker: icpParticleSize as the grid's step, `particle_gate`, the `particle...` values, the fixed ratio
/// - feature registration: the radii 5, 10 and 20 in units of disUniform, 3 candidates
/// - least number of valid points: fusionLimitNum, never below the fixed bound
/// - recovery: icpDisFeature, icpDisAvgFeatureThread and icpRataRayFeature for its ICP, which is otherwise like the
///   usual one; fusionLimitNumFeature, never below the fixed bound, as least number of valid points
/// - prediction: `interval_factor`; normals from the rendered image with pixel step fusionDataSize(1) and
///   `normal_reach`; viewBox as nearest and farthest when the camera is exchanged
/// - display: colorOnInvaildPoint
/// - threads and debug output of all of them: codeNumSet, outputPath
///
/// deviceTag, scanType, the colour camera and currPointOffsetShow are kept with the session and act on nothing in it.
struct SessionParameters {
    CommonParameter common;
    TrackParmeter track;
    FusionParameter fusion;
    FixedParameters fixed;

    Vector2i imageSize;    ///< of a frame
    CameraInParam camera;  ///< of a frame
    int icpLimitNum;
    int icpLimitNumFeature;  ///< of a frame that is found by its features, and of its prediction

    Vector2f icpKeepRatio{0.7F, 0.9F};  ///< share of correspondences kept in the first and in the fine iterations
    int particleIterations = 5;         ///< of the rough stage
    int particleStep = 1;               ///< one in so many points is used: about 10000 of a full image
    Vector3i particleCounts{5, 5, 1};   ///< along x, y, z
    float particleKeepRatio = 0.8F;     ///< share of a particle's correspondences kept

    /// Correspondence gate of the particles: the ICP's widest, and wide enough for a start half a diagonal of the grid
    /// away and a turn of some degrees.
    float particle_gate() const;
    /// Half-width of the guided raycast's interval, half voxels: as far as a point of the guide has changed the volume,
    /// and never below the fixed factor. Noise takes single points as far from the fused surface; with a narrower
    /// interval their slots stay empty, on a noisy camera so many that the particles fall below their least share.
    float interval_factor(int fusionRange) const;
    /// How far points may lie apart that make one normal of the prediction: three times the distance that neighbours
    /// of the window have on a surface seen from the front, so that slopes up to 70 degrees have normals.
    float normal_reach(float pointDis) const;
    /// How far a point may lie from a surface that it shows, mm: the narrow gate after a feature alignment, and never
    /// below half a voxel.
    float agreement_tolerance() const;
};

/// Why no session can be made from the records: field and reason, in one line. What volume and trackers clamp or refuse
/// by themselves is not among the reasons, and so nothing of the `FusionParameter`.
std::optional<std::string> find_unusable(const CommonParameter& common, const TrackParmeter& track);

/// The settings for records that are usable. Values beyond what the parts can take are replaced by the nearest
/// permitted one, with one printed line each.
SessionParameters make_session_parameters(const CommonParameter& common, const TrackParmeter& track,
                                          const FusionParameter& fusion, const FixedParameters& fixed);

}  // namespace VexelAlgorithm
