// The library's public header: everything an application may use.
//
// Units. Lengths are in millimetres, angles in radians, image positions in pixels with the centre of the first pixel at
// (0, 0), colours in [0, 1] as RGB, times as each function says (reconstruction in ms, frame steps in microseconds).
//
// Frames of reference. A camera looks along +z, x points right and y down. A pose (`RigidMatrix`) takes camera
// coordinates to model coordinates; model coordinates are the camera coordinates of the first frame of a scan. Voxel
// (i, j, k) of a volume has its centre at shift + (i + 0.5, j + 0.5, k + 0.5) pointDis in model coordinates.
//
// Failures. No exception leaves the library, but for std::bad_alloc and std::length_error from operations of the
// geometry types that need memory, which behave as std::vector does. Most functions return a `RetVal`, of which only
// `RET_SUCCESS` is success, or a bool; a function that creates returns null. A failure prints one line on standard
// output and leaves what it was given as it was, unless its description says otherwise.
//
// Who frees what. Geometry types, records and volumes are values or ordinary objects of the caller and own their
// arrays. A handle (`void*` from a function named `..._ini`) owns everything behind it and is given back to its
// `..._release` function, exactly once; releasing null only prints a line. Inputs are read during the call and never
// kept; outputs are cleared or resized by the callee.
//
// Threads. Nothing runs in the background: a call does its work before it returns, on up to as many threads as its
// object is configured for. Different objects may be used from different threads at once. One object may be read from
// several threads; a call that changes it must be alone on it unless its description permits an overlap. With one
// thread configured, the same input gives the same bytes.
#pragma once

#include "foundation/BaseTriMesh.h"
#include "foundation/CameraInParam.h"
#include "foundation/Cloud.h"
#include "foundation/CloudWithWeight.h"
#include "foundation/CommonParameter.h"
#include "foundation/FusionParameter.h"
#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/RigidMatrix.h"
#include "foundation/TextureParam.h"
#include "foundation/TrackParmeter.h"
#include "foundation/TriMesh.h"
#include "foundation/meshExport.h"
#include "foundation/parameterCheck.h"
#include "foundation/parameterPrint.h"
#include "foundation/types.h"
#include "fusion/FusionTsdf.h"
#include "fusion/LaserGrid.h"
#include "fusion/LeafNormal.h"
#include "fusion/rayCast.h"
#include "platform/featureRegistration.h"
#include "platform/textureTracking.h"
#include "readCaliData/CaliParReadIn.h"
