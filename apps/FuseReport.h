// What a fusion run did, for people and for programs.
#pragma once

#include <string>

#include "apps/reportParts.h"
#include "recording/DepthImage.h"

namespace VexelAlgorithm::Apps {

/// The figures of one run. All but the last two depend on input and options only: with one thread they are
/// the same run after run.
struct FuseReport {
    // input
    std::string recording;
    ImageSize imageSize;
    int framesSelected = 0;
    int framesFused = 0;
    int framesWithoutPoints = 0;
    int firstFrame = 0;
    int lastFrame = 0;
    int step = 1;
    int threads = 1;
    bool isInterrupted = false;
    std::uint64_t points = 0;
    std::uint64_t pointsOutside = 0;  ///< not fused because they lie outside the volume

    // volume
    float voxel = 0.0f;  ///< mm
    int treeDepth = 0;
    Vector3f shift = Vector3f::Zero();
    int fusionRange = 0;
    float minWeight = 0.0f;
    std::uint64_t voxels = 0;  ///< to which some point contributed

    MeshFigures mesh;

    // differs from run to run
    StageClock clock;
    double peakMemoryMib = 0.0;
};

/// Times and memory stand in objects "timing" and "memory" of their own.
std::string json_text(const FuseReport& report);
/// Times and memory stand below the line "This run".
std::string plain_text(const FuseReport& report);

}  // namespace VexelAlgorithm::Apps
