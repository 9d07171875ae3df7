// Feature registration: aligns two clouds with no idea of where they are.
#pragma once

#include "foundation/Cloud.h"
#include "foundation/RetVal.h"
#include "foundation/RigidMatrix.h"
#include "foundation/export.h"

namespace VexelAlgorithm {

// The functions named `pair_lrf_cue_...` work on a handle that holds two clouds as samples with descriptors: a
// reference (`ref`) and an object (`obj`). Whichever is set again replaces the one before, so that one reference serves
// many objects. One handle is used by one thread at a time; different handles may be used at once. Calls run on the
// library's default thread number inside and give the same bytes with any.

/// How well two clouds fit in the pose that was found.
struct FeatureAlignment {
    float overlap = 0.0F;   ///< samples of the object that lie on the reference, as share of the smaller cloud
    float residual = 0.0F;  ///< RMS distance of those samples to the reference's tangent planes, mm
    int samples = 0;        ///< how many those are
    int agreeing = 0;       ///< feature matches that agree with the pose
};

/// Makes a handle for clouds that are sampled to one point per cube of `spacing` (mm). The three radii are in units of
/// the spacing: of the neighbourhood from which a normal is computed where a cloud has none, of the support of a local
/// reference frame, and of the support of a descriptor. `candidates` is the number of reference features, the nearest
/// by descriptor, to which each object feature is matched. Radii outside 1 to 64, a spacing outside 0.001 to 100000 mm,
/// and candidates outside 1 to 16: one line and null.
///
/// The more a descriptor sees, the more it tells, until it sees more than both views share: 5, 10, 20 and 3 suit
/// spacings of a hundredth to a fiftieth of the object.
VEXEL_API void* pair_lrf_cue_create_implementaion(float normalRadius, float frameRadius, float descriptorRadius,
                                                  float spacing, int candidates) noexcept;

/// Samples a cloud (mm) and describes it; the cloud is read during the call only. Points that are not finite, marked
/// deleted, (0, 0, 0) as in the empty slots of point images, or farther than 2^18 spacings from the origin do not
/// count. Normals are used when the cloud has them enabled, and need not point to the outside, but must be turned to
/// one side consistently in both clouds, as those of frames are, which face the camera. Normals that are missing are
/// computed and turned to the cloud's origin of coordinates. `RET_INPUT_ERROR` with one line, and the cloud set before
/// is kept, when there are fewer than 50 or more than 100000 samples; `RET_INI_ERROR` for a null handle.
VEXEL_API RetVal pair_lrf_cue_set_ref_cloud(void* handle, const Cloud& cloud) noexcept;
VEXEL_API RetVal pair_lrf_cue_set_obj_cloud(void* handle, const Cloud& cloud) noexcept;

/// Finds the motion that takes the object's coordinates to the reference's, from features that look alike and the
/// surfaces that then meet. `RET_NOT_CONVERGED`, with one line, when no pose is supported by enough of both, less than
/// three tenths of the smaller cloud meet, the surfaces that meet can slide, as planes and spheres do, or another pose
/// fits as well; `RET_STATE_ERROR`, with one line, while a cloud is missing; `RET_INI_ERROR` for a null handle. The
/// outputs are written on success only.
VEXEL_API RetVal pair_lrf_cue_compute_registration(void* handle, RigidMatrix& objToRef,
                                                   FeatureAlignment& alignment) noexcept;

/// Destroys what the handle stands for and nulls the caller's variable; null already gives one line and
/// `RET_INI_ERROR`.
VEXEL_API RetVal pair_lrf_cue_release_implementation(void*& handle) noexcept;

}  // namespace VexelAlgorithm
