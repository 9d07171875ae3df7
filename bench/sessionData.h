// Sequences of frames as a session gets them.
#pragma once

#include <string>
#include <vector>

#include "apps/ScanSettings.h"
#include "foundation/PointImage.h"
#include "recording/DepthImage.h"

namespace VexelBench {

/// A frame in camera coordinates (mm), its depths as recorded, and where its camera truly was.
struct ScanFrame {
    VexelAlgorithm::PointImage frame;
    VexelAlgorithm::DepthImage depth;
    VexelAlgorithm::RigidMatrix cameraToWorld;
};

/// Frames that follow each other, and the settings of a session for them.
struct ScanSequence {
    std::vector<ScanFrame> frames;
    VexelAlgorithm::Apps::ScanSettings settings;
};

/// Made on first use and kept; null when there are no such frames.
using ScanSource = const ScanSequence* (*)(VexelAlgorithm::ImageSize);

/// Frames 0 to 59 of the recording `office_depth` with the preset "room"; at 320 x 240, every second pixel of every
/// second row.
const ScanSequence* office_scan(VexelAlgorithm::ImageSize size);
/// 40 steps of 3.6 degrees around the simulated demo object on its table at 400 mm, with the noise of a good scanner,
/// and the preset "object".
const ScanSequence* rendered_scan(VexelAlgorithm::ImageSize size);
/// One view of that object eight times, each time with other noise.
const ScanSequence* still_scan(VexelAlgorithm::ImageSize size);

/// RMS distance (mm) between the found and the true camera positions, both seen from the first camera.
double trajectory_error(const ScanSequence& sequence, const std::vector<VexelAlgorithm::RigidMatrix>& cameraToFirst);

}  // namespace VexelBench
