// Pairs of a recording become frames, one ahead of the one that is worked on.
#pragma once

#include <future>
#include <vector>

#include "apps/ScanSettings.h"
#include "foundation/PointImage.h"
#include "recording/Outcome.h"
#include "recording/StereoRecording.h"

namespace VexelAlgorithm::Apps {

struct ReconstructedPair {
    StereoImages images;
    PointImage points;  ///< rectified-left coordinates, mm, with normals, weights and marked edges
    double readMs = 0.0;
    double reconstructMs = 0.0;
};

/// The reconstruction's handle and the pair that is under way on a thread of its own. For one thread.
class PairReconstruction {
public:
    /// `rig` is complete, see `make_rig`. Without a handle when the settings or the calibration are refused; the
    /// library's lines say why.
    PairReconstruction(const RigSettings& rig, std::vector<RecordedPair> pairs);
    ~PairReconstruction();
    PairReconstruction(const PairReconstruction&) = delete;
    PairReconstruction& operator=(const PairReconstruction&) = delete;

    bool is_ready() const { return _handle != nullptr; }
    const std::vector<RecordedPair>& pairs() const { return _pairs; }

    /// Waits for the next pair, in their order, and starts the one after it. As often as there are pairs.
    Outcome<ReconstructedPair> take();

private:
    void start();
    Outcome<ReconstructedPair> reconstruct(const RecordedPair& pair) const;

    const RigSettings _rig;
    const std::vector<RecordedPair> _pairs;
    void* _handle;
    std::size_t _started = 0;
    std::future<Outcome<ReconstructedPair>> _next;
};

}  // namespace VexelAlgorithm::Apps
