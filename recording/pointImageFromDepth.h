// From a depth image to the point image that fusion and tracking take.
#pragma once

#include "foundation/CameraInParam.h"
#include "foundation/PointImage.h"
#include "recording/DepthImage.h"

namespace VexelAlgorithm {

/// How a depth image becomes points. A triangulating depth camera resolves the inverse depth 1/z evenly,
/// so limits on depth differences are counted in its steps: with `inverseDepthStep` q, one step at depth z
/// is q z^2 millimetres, and never less than `smallestStep`. The defaults suit room-size recordings of
/// structured-light cameras.
struct DepthFrameSettings {
    float nearest = 100.0f;             ///< mm; nearer pixels are taken as without value
    float farthest = 10000.0f;          ///< mm; farther pixels are taken as without value
    float inverseDepthStep = 2.85e-6f;  ///< 1/mm; 11 mm at 2 m, 0.5 mm at 0.4 m
    float smallestStep = 1.0f;          ///< mm; replaced by the image's own step when one is converted
    float edgeJump = 8.0f;              ///< steps; larger differences between near pixels are depth edges
    int edgeMargin = 2;                 ///< pixels; points this near to an edge are dropped, 0 keeps all
    int smallestIsland = 60;            ///< points; smaller connected pieces are dropped, 0 keeps all
    int smoothingRadius = 3;            ///< pixels of the edge-preserving smoothing, 0 for none
    int normalStep = 2;                 ///< pixels between the neighbours that a normal is fitted to
    int normalWindow = 6;               ///< pixels to the farthest such neighbour along each axis
};

/// One step of the camera's depth near this depth, in mm. Also a fair measure of its error there.
float depth_step(float depth, const DepthFrameSettings& settings);

/// Points (mm, camera coordinates) by back-projection of each pixel with a value, without
/// those at depth edges (mixed pixels, fringes of the pattern's shadow) and without small islands; normals
/// by `PointImage::update_VNrv`; points without a normal are dropped; weights; flags enabled. The result
/// carries the camera, sampling 1, view radial (0, 0) and the identity pose, and is what integration asks for.
///
/// Smoothing is a bilateral filter (Tomasi and Manduchi 1998) on inverse depth over pairs of opposite neighbours,
/// whose range kernel ends at four steps: it removes the staircase of the quantisation and keeps edges. A plane,
/// which is linear in inverse depth, stays where it is up to its border.
/// Weights: 1000 mm / z. The depth's standard deviation grows with z^2 (Khoshelham and Elberink 2012), but a
/// registration, which squares the weights, needs the far points, because they hold its rotation, and the grazing ones.
/// On a hand-held recording of a room, weights with the cosine of the angle of view, or with 1 / z^2, drift faster.
PointImage depth_frame_to_point_image(const DepthImage& depth, const CameraInParam& camera,
                                      const DepthFrameSettings& settings, int threads);

/// Every `sample`-th slot of every `sample`-th row, from (0, 0) on, with the camera divided by `sample`. 1 hands the
/// frame on as it is.
PointImage every_sample_th(PointImage frame, int sample);

}  // namespace VexelAlgorithm
