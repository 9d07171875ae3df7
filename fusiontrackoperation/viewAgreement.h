// Whether a frame shows what the model would show from a pose.
#pragma once

#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"

namespace VexelAlgorithm {

/// Pixels of two views of one place. A pixel that one of them leaves empty speaks neither for nor against the pose.
struct ViewAgreement {
    int framePoints = 0;    ///< points of the frame that were looked at
    int agreeing = 0;       ///< of them, those on the surface that the prediction has there
    int contradicting = 0;  ///< those in front of it or behind it: one of both is not there
    int seen = 0;           ///< pixels of the prediction where the frame has the same surface
    int missed = 0;         ///< where it has another one

    double explained() const;     ///< share of the frame's points that agree
    double contradicted() const;  ///< share that contradicts among all that were judged, the worse of both ways
};

/// Compares a frame with the prediction, both in the coordinates of their own cameras; `frameToPrediction` takes the
/// one to the other. A point agrees when a pixel next to its own has a plane within `tolerance` (mm) and a normal of
/// about its direction. At depth edges, where not every pixel around has a point, nothing contradicts. Every how
/// many-th column and row is chosen so that about 20000 points are looked at.
ViewAgreement compare_views(const PointImage& prediction, const PointImage& frame, const RigidMatrix& frameToPrediction,
                            float tolerance);

}  // namespace VexelAlgorithm
