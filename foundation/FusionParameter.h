// Settings of the fused volume, of display and of the colour camera.
#pragma once

#include <algorithm>
#include <thread>

#include "foundation/RigidMatrix.h"
#include "foundation/types.h"

namespace VexelAlgorithm {

/// The defaults give a volume of 2 m edge with voxels of 0.5 mm.
struct FusionParameter {
    int treeDepth = 12;     ///< the volume has 2^treeDepth voxels per axis; values below 10 are raised to 10
    float pointDis = 0.5F;  ///< voxel edge length and spacing of output points, mm

    /// (0) edge, in voxels, of the cube around a point whose voxels the point may change (made odd);
    /// (1) pixel step of the neighbourhood from which the prediction's normals are computed.
    Vector2i fusionDataSize{5, 2};

    float currPointOffsetShow = 0.0F;   ///< shift along their normals of the current frame's points when shown, mm
    Vector2f viewBox{200.0F, 1500.0F};  ///< nearest and farthest distance from the camera that is looked at, mm

    int fusionLimitNum = 1500;         ///< least number of valid points of a frame that is tracked and fused
    int fusionLimitNumFeature = 1500;  ///< the same for frames tracked through features

    Vector3f colorOnInvaildPoint{0.5F, 0.5F, 0.5F};  ///< RGB in [0, 1] of points without a colour

    /// Number of threads of the session's parallel loops, 1 to 256. With 1 results repeat bit by bit. This is
    /// not the sub-sampling step of the ICP, which its own interface also calls a code number.
    int codeNumSet = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, 256U));

    /// Usable region of the colour image, pixels: left, top, right, bottom; right and bottom lie just outside.
    Vector4i colorImageRange{0, 0, 1280, 1024};
    /// Camera matrix of the colour camera, pixels: [fx s cx; 0 fy cy; 0 0 1].
    Matrix3d colorImagePar = (Matrix3d() << 2000.0, 0.0, 639.5, 0.0, 2000.0, 511.5, 0.0, 0.0, 1.0).finished();
    RigidMatrix tranLeftToColor;          ///< takes left-camera coordinates to colour-camera coordinates, mm
    Vector2i colorImageSize{1280, 1024};  ///< width, height of the colour image, pixels; (0, 0) without a colour camera
};

}  // namespace VexelAlgorithm
