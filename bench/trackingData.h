// Pairs of frames that follow each other, with the motion between them.
#pragma once

#include <vector>

#include "foundation/PointImage.h"
#include "recording/DepthImage.h"

namespace VexelBench {

/// A frame to be registered and the one before it, in their cameras' coordinates (mm).
struct FramePair {
    VexelAlgorithm::PointImage fixed, moving;
    VexelAlgorithm::DepthImage fixedDepth, movingDepth;
    VexelAlgorithm::RigidMatrix movingToFixed;  ///< as given or rendered
};

/// What the registration of such frames needs.
struct IcpSettings {
    int iterNum = 20;
    int iterNumFixed = 6;
    VexelAlgorithm::Vector2f icpDis;  ///< mm
    float disAvgThread = 0.0f;        ///< mm
    VexelAlgorithm::Vector2f rata{0.15f, 0.3f};
    VexelAlgorithm::Vector2f corrRatio{0.7f, 0.9f};
};

struct FramePairs {
    std::vector<FramePair> pairs;
    IcpSettings settings;
};

/// Made on first use and kept; null when there are no such frames.
using FramePairsSource = const FramePairs* (*)(VexelAlgorithm::ImageSize);

/// Every tenth pair (i, i + 1) with i < 120 of the recording `office_depth`, prepared as tracking takes it; at 320 x
/// 240, every second pixel of every second row.
const FramePairs* office_pairs(VexelAlgorithm::ImageSize size);
/// Twelve steps of 3.6 degrees around the simulated demo object on its table at 400 mm, with the noise of a good
/// scanner.
const FramePairs* rendered_pairs(VexelAlgorithm::ImageSize size);

/// RMS distance (mm) between the frame's points moved by two poses.
double rms_distance(const VexelAlgorithm::PointImage& frame, const VexelAlgorithm::RigidMatrix& one,
                    const VexelAlgorithm::RigidMatrix& other);
double median(std::vector<double> values);

}  // namespace VexelBench
