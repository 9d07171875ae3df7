// Start poses of the particle tracker, and which of them go on.
#pragma once

#include <vector>

#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {
namespace Track {

/// Grid counts as they are used: odd, at least 1, within the limits of `ParticleTrack`; one line when that lowers them.
Vector3i usable_particle_counts(const Vector3i& counts);
/// A step (mm) that is not finite becomes 0.
Vector3f usable_particle_sizes(const Vector3f& sizes);

}  // namespace Track
}  // namespace VexelAlgorithm
