// A mesh as a camera sees it.
#pragma once

#include "foundation/BaseTriMesh.h"
#include "foundation/PointImage.h"
#include "recording/DepthImage.h"

namespace VexelAlgorithm::Apps {

/// A camera at a place; pixels of a picture of the given size.
struct View {
    RigidMatrix cameraToWorld;
    CameraInParam camera;
    ImageSize size;
};

/// The nearest surface point of the mesh in every pixel's middle, with the normal interpolated between the
/// vertices, in camera coordinates. Faces seen from behind are left out, so that one looks into a room
/// through the back of its walls; faces that reach behind the camera are left out too. The mesh must have
/// vertex normals.
PointImage drawn_mesh(const BaseTriMesh& mesh, const View& view);

}  // namespace VexelAlgorithm::Apps
