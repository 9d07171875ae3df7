// The names, units and meanings of all settings, in one place for reading, writing and tests.
#pragma once

#include "apps/ScanSettings.h"

namespace VexelAlgorithm::Apps {

// Each function hands every field of its record to `visitor.field(name, value, meaning)`. The structured bindings stop
// the compiler when a record gets a field that is not listed here.

template <class Visitor, class Record>
void visit_common(Visitor& visitor, Record& record) {
    auto& [imageSize, colorImageSize, sample, rawPointDis, outputPath, deviceTag, scanType, campar] = record;
    visitor.field("imageSize", imageSize, "width, height of the camera image, pixels; [ 0, 0 ] takes the recording's");
    visitor.field("colorImageSize", colorImageSize,
                  "width, height of the colour image, pixels; [ 0, 0 ] without a colour camera");
    visitor.field("sample", sample, "one point per sample x sample pixels; 1 is full resolution");
    visitor.field("rawPointDis", rawPointDis, "nominal spacing of the points of a raw frame, mm");
    visitor.field("outputPath", outputPath, "folder of debug output; empty takes the folder of the results");
    visitor.field("deviceTag", deviceTag, "the application's own mark of the device; handed on unchanged");
    visitor.field("scanType", scanType, "kind of scan; 0 is a hand-held scan");
    visitor.field("campar", campar,
                  "fx, fy, cx, cy of the full-resolution camera, pixels; [ 0, 0, 0, 0 ] takes the recording's");
}

template <class Visitor, class Record>
void visit_track(Visitor& visitor, Record& record) {
    auto& [icpIterNum, icpInterNumFixed, icpDis, icpDisFeature, icpDisAvgThread, icpDisAvgFeatureThread, icpRataRay,
           icpRataRayFeature, icpParticleSize, disUniform] = record;
    visitor.field("icpIterNum", icpIterNum, "total number of ICP iterations");
    visitor.field("icpInterNumFixed", icpInterNumFixed,
                  "leading iterations with a scheduled distance gate; at least four fewer than all");
    visitor.field("icpDis", icpDis,
                  "point-to-plane distance gates, mm: of the last iterations, of the first one (not smaller)");
    visitor.field("icpDisFeature", icpDisFeature, "the same after a feature alignment, mm");
    visitor.field("icpDisAvgThread", icpDisAvgThread,
                  "largest mean point-to-plane distance of an accepted registration, mm");
    visitor.field("icpDisAvgFeatureThread", icpDisAvgFeatureThread, "the same after a feature alignment, mm");
    visitor.field("icpRataRay", icpRataRay,
                  "least share, 0 to 1, that must end as correspondences: of the prediction's valid pixels, of the "
                  "frame's valid points (not smaller)");
    visitor.field("icpRataRayFeature", icpRataRayFeature, "the same after a feature alignment");
    visitor.field("icpParticleSize", icpParticleSize,
                  "grid step between the start positions of the particle tracker, mm");
    visitor.field("disUniform", disUniform, "spacing of the uniformly sampled clouds of the feature registration, mm");
}

template <class Visitor, class Record>
void visit_fusion(Visitor& visitor, Record& record) {
    auto& [treeDepth, pointDis, fusionDataSize, currPointOffsetShow, viewBox, fusionLimitNum, fusionLimitNumFeature,
           colorOnInvaildPoint, codeNumSet, colorImageRange, colorImagePar, tranLeftToColor, colorImageSize] = record;
    visitor.field("treeDepth", treeDepth, "the volume has 2^treeDepth voxels along each axis, 10 to 20");
    visitor.field("pointDis", pointDis, "edge of a voxel and spacing of output points, mm");
    visitor.field("fusionDataSize", fusionDataSize,
                  "edge of the cube around a point whose voxels the point may change, voxels (made odd); pixel step of "
                  "the neighbourhood from which the prediction's normals are computed");
    visitor.field("currPointOffsetShow", currPointOffsetShow,
                  "shift along their normals of the current frame's points when shown, mm");
    visitor.field("viewBox", viewBox, "nearest and farthest distance from the camera that is looked at, mm");
    visitor.field("fusionLimitNum", fusionLimitNum,
                  "least number of valid points of a frame that is tracked and fused");
    visitor.field("fusionLimitNumFeature", fusionLimitNumFeature, "the same for frames tracked through features");
    visitor.field("colorOnInvaildPoint", colorOnInvaildPoint, "red, green, blue of points without a colour, 0 to 1");
    visitor.field("codeNumSet", codeNumSet, "worker threads, 1 to 256; with 1 results repeat bit by bit");
    visitor.field("colorImageRange", colorImageRange,
                  "usable region of the colour image, pixels: left, top, right, bottom; right and bottom lie just "
                  "outside");
    visitor.field("colorImagePar", colorImagePar,
                  "camera matrix of the colour camera, pixels, row by row: fx s cx, 0 fy cy, 0 0 1");
    visitor.field("tranLeftToColor", tranLeftToColor,
                  "left-camera to colour-camera coordinates: three rows of rotation and translation (mm)");
    visitor.field("colorImageSize", colorImageSize,
                  "width, height of the colour image, pixels; [ 0, 0 ] without a colour camera");
}

template <class Visitor, class Record>
void visit_session(Visitor& visitor, Record& record) {
    auto& [icpStableThreadhold, icpKeepRatio, recovery] = record;
    visitor.field("icpStableThreadhold", icpStableThreadhold,
                  "smallest eigenvalue of the ICP's normal matrix (squared weights, mm) from which on a registration "
                  "counts as stable; noise of a bare plane must stay below it");
    visitor.field("icpKeepRatio", icpKeepRatio,
                  "shares of the ICP's correspondences that are kept, the nearest ones, in the first and in the fine "
                  "iterations; above 0, below 1");
    visitor.field("recovery", recovery, "1 looks for lost frames by their features, 0 waits for what was seen last");
}

template <class Visitor, class Record>
void visit_texture(Visitor& visitor, Record& record) {
    auto& [isUsed, param, leftToTexture] = record;
    auto& [trackerSettings, camera, featureCount, trackerFlags, matchFlags, trackerToken] = param;
    visitor.field("isUsed", isUsed, "1 prepares texture-based tracking, 0 leaves it out");
    visitor.field("trackerSettings", trackerSettings, "handed to the texture tracker unchanged");
    visitor.field("camera", camera, "fx, fy, cx, cy of the texture camera, pixels");
    visitor.field("featureCount", featureCount, "features looked for in one image, at least 1");
    visitor.field("trackerFlags", trackerFlags, "flags of the texture tracker, each 0 or 1");
    visitor.field("matchFlags", matchFlags, "flags of its matching, each 0 or 1");
    visitor.field("trackerToken", trackerToken, "handed to the texture tracker unchanged");
    visitor.field("leftToTexture", leftToTexture,
                  "left-camera to texture-camera coordinates: three rows of rotation and translation (mm)");
}

template <class Visitor, class Record>
void visit_frame(Visitor& visitor, Record& record) {
    auto& [nearest, farthest, inverseDepthStep, smallestStep, edgeJump, edgeMargin, smallestIsland, smoothingRadius,
           normalStep, normalWindow] = record;
    visitor.field("nearest", nearest, "nearer pixels are taken as without value, mm");
    visitor.field("farthest", farthest, "farther pixels are taken as without value, mm");
    visitor.field("inverseDepthStep", inverseDepthStep,
                  "the camera's resolution of inverse depth, 1/mm: q gives steps of q z^2 mm at depth z");
    visitor.field("smallestStep", smallestStep,
                  "smallest such step, mm; the step of the recording's images replaces it");
    visitor.field("edgeJump", edgeJump, "larger differences between near pixels are depth edges, steps");
    visitor.field("edgeMargin", edgeMargin, "points this near to a depth edge are dropped, pixels; 0 keeps all");
    visitor.field("smallestIsland", smallestIsland, "smaller connected pieces are dropped, points; 0 keeps all");
    visitor.field("smoothingRadius", smoothingRadius, "radius of the edge-preserving smoothing, pixels; 0 for none");
    visitor.field("normalStep", normalStep, "step between the neighbours that a normal is fitted to, pixels");
    visitor.field("normalWindow", normalWindow, "distance of the farthest such neighbour along each axis, pixels");
}

template <class Visitor, class Record>
void visit_rig(Visitor& visitor, Record& record) {
    auto& [depthRange, rebuild, edgeMargin, edgeJump, smallestPiece] = record;
    auto& [imgSize, sampleRatio, isDebug2OutPut, gradientTh, findRange, pixMatchWin, subPixMatchWin, imageRange,
           leftCalib, rightCalib, debugPath] = rebuild;
    visitor.field(
        "depthRange", depthRange,
        "nearest, farthest depth, mm, perpendicular to the line from camera to camera, from which findRange follows; "
        "[ 0, 0 ] takes findRange as it stands");
    visitor.field("imgSize", imgSize, "width, height of the raw images, pixels; [ 0, 0 ] takes the recording's");
    visitor.field("sampleRatio", sampleRatio,
                  "one point per sampleRatio x sampleRatio pixels, 1 to 16; takes the place of common.sample");
    visitor.field("isDebug2OutPut", isDebug2OutPut, "1 writes the result of every stage to debugPath, 0 does not");
    visitor.field("gradientTh", gradientTh,
                  "window (sampled pixels) and threshold (grey values, root mean square) of the test for texture");
    visitor.field("findRange", findRange,
                  "first and last (just outside) parallax: right column minus left column, rectified full-size pixels");
    visitor.field("pixMatchWin", pixMatchWin,
                  "width, height of the window of the search for partners, odd, sampled pixels");
    visitor.field("subPixMatchWin", subPixMatchWin,
                  "width, height of the window of the sub-pixel matching, odd, full-size pixels; larger for less "
                  "noise, smaller for finer detail");
    visitor.field("imageRange", imageRange,
                  "rectified pixels that are reconstructed: left, right, top, bottom; right and bottom lie just "
                  "outside; [ 0, 0, 0, 0 ] takes all");
    visitor.field("leftCalib", leftCalib,
                  "left camera: fx, fy, cx, cy, alpha, k1, k2, p1, p2, k3, translation (mm), rotation row by row; [ ] "
                  "takes the recording's calib_left.txt");
    visitor.field("rightCalib", rightCalib, "right camera, likewise; [ ] takes the recording's calib_right.txt");
    visitor.field("debugPath", debugPath,
                  "folder, which must exist, and prefix of the results of the stages: dumps/ or dumps/first_");
    visitor.field("edgeMargin", edgeMargin,
                  "points this near to a depth edge are dropped, because windows there see two surfaces, sampled "
                  "pixels; 0 keeps all");
    visitor.field("edgeJump", edgeJump, "a depth edge: difference of depth beyond what the slope predicts, mm");
    visitor.field("smallestPiece", smallestPiece,
                  "smaller pieces of surface are dropped, smaller gaps make no edge, points");
}

/// `visitor.section(name, meaning)` stands before the fields of each record; where it returns false they are left out.
template <class Visitor, class Settings>
void visit_settings(Visitor& visitor, Settings& settings) {
    if (visitor.section("common", "camera and frames")) visit_common(visitor, settings.common);
    if (visitor.section("track", "registration of a frame against the model")) visit_track(visitor, settings.track);
    if (visitor.section("fusion", "volume, display and colour camera")) visit_fusion(visitor, settings.fusion);
    if (visitor.section("session", "what a session is told after it was made")) {
        visit_session(visitor, settings.session);
    }
    if (visitor.section("texture", "texture-based tracking")) visit_texture(visitor, settings.texture);
    if (visitor.section("frame", "from depth images to points")) visit_frame(visitor, settings.frame);
    if (visitor.section("rig", "stereo scanner: from pairs of images to points")) visit_rig(visitor, settings.rig);
}

}  // namespace VexelAlgorithm::Apps
