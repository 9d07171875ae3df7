// Debug files of the particle tracker.
#pragma once

#include <string>

#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"
#include "track/FixedImage.h"
#include "track/particleWorkspace.h"

namespace VexelAlgorithm {
namespace Track {

/// `path` / "NAME_FRAMEID.txt", the image's points moved by the pose.
void dump_cloud(const std::string& path, const char* name, int frameId, const PointImage& image,
                const RigidMatrix& pose);

/// `path` / "LABEL_FRAMEID_PARTICLEID.txt": for each correspondence the moving point in the fixed image's frame, red,
/// and the fixed point, green.
void dump_correspondences(const std::string& path, const char* label, int frameId, int particleId,
                          const ParticleWorkspace& workspace, const Alignment& alignment);

}  // namespace Track
}  // namespace VexelAlgorithm
