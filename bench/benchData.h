// Frames, volumes and measures that the benchmarks share.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/CameraInParam.h"
#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"
#include "fusion/FusionTsdf.h"
#include "recording/DepthImage.h"

namespace VexelBench {

using Leaf = VexelAlgorithm::Fusion::LeafTSDFSpeckle;
using Volume = VexelAlgorithm::Fusion::FusionTsdf<Leaf>;

/// A frame in camera coordinates and the motion that takes it to model coordinates (mm).
struct PosedFrame {
    VexelAlgorithm::PointImage frame;
    VexelAlgorithm::RigidMatrix cameraToModel;
};

/// Frames with known poses, and the volume that suits them.
struct Sequence {
    std::string name;
    float pointDis = 0.0f;  ///< mm
    int treeDepth = 10;
    VexelAlgorithm::Vector2f nearFar = VexelAlgorithm::Vector2f::Zero();  ///< mm, of an unguided raycast
    std::vector<PosedFrame> frames;
    std::vector<VexelAlgorithm::DepthImage> depths;  ///< as recorded; empty for rendered frames
    std::size_t pointCount = 0;                      ///< over all frames

    /// The frame in the middle, whose view the raycasts render.
    const PosedFrame& view() const { return frames[frames.size() / 2]; }
};

/// Whether VEXEL_RECORDINGS names a folder that holds `office_depth`.
bool has_recordings();
/// Frames 0, 2, .., 118 of the recording `office_depth` at their given poses, every pixel with a value kept.
/// Read on first use; null, after one line, when it cannot be read.
const Sequence* office_recording();

/// 60 frames of 640 x 480 of the simulated demo object, a walk around it at 400 mm whose pixels see 0.44 mm; voxels of
/// 0.5 mm. Rendered on first use.
const Sequence* rendered_object();

/// A volume for the sequence that holds nothing yet: cone half-width 0.5 pixel, range 5 voxels.
std::unique_ptr<Volume> empty_volume(const Sequence& sequence, int threads);
/// The sequence integrated once with all threads, made on first use and kept.
Volume& fused_volume(const Sequence& sequence);
/// Integrates one frame of the sequence; throws std::runtime_error when the volume refuses it.
void integrate(Volume& volume, const PosedFrame& posed, VexelAlgorithm::Fusion::ChangedLeaves& changed);

/// Used leaves and what they received.
struct LeafCounts {
    std::int64_t used = 0;
    std::int64_t contributions = 0;
};
LeafCounts count_leaves(const Volume& volume);
/// Bytes of all records that the octree has handed out: leaves, their octets' coordinates and child entries.
std::int64_t handed_out_bytes(const Volume& volume);

/// Bytes of this process in physical memory; 0 where the system does not tell.
std::int64_t resident_bytes();

/// How a rendered depth agrees with a measured one.
struct DepthAgreement {
    double coverage = 0.0;     ///< share of the measured pixels that have a rendered depth
    double medianError = 0.0;  ///< mm, of these

    /// Whether the rendering shows the measured surface: what does not is no work to be timed.
    bool is_same_surface(float pointDis) const { return coverage > 0.5 && medianError < 3.0 * pointDis; }
};
/// Rendered and measured depths (z, mm) pixel by pixel; 0 and NaN mean none.
DepthAgreement compare_depths(const std::vector<float>& rendered, const std::vector<float>& measured);
std::vector<float> depths_of(const VexelAlgorithm::PointImage& frame);

}  // namespace VexelBench
