#include "apps/PairReconstruction.h"

#include <chrono>
#include <utility>

#include "SpeckleRebCPU/speckleRebuild.h"

namespace VexelAlgorithm::Apps {
namespace {

using Clock = std::chrono::steady_clock;

double milliseconds_since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

PairReconstruction::PairReconstruction(const RigSettings& rig, std::vector<RecordedPair> pairs)
    : _rig(rig), _pairs(std::move(pairs)), _handle(speckle_rebuild_cpu_ini(rig.rebuild)) {
    if (is_ready()) start();
}

PairReconstruction::~PairReconstruction() {
    if (_next.valid()) _next.wait();
    if (is_ready()) speckle_rebuild_cpu_release(_handle);
}

void PairReconstruction::start() {
    if (_started == _pairs.size()) return;
    const RecordedPair& pair = _pairs[_started++];
    _next = std::async(std::launch::async, [this, &pair] { return reconstruct(pair); });
}

Outcome<ReconstructedPair> PairReconstruction::take() {
    Outcome<ReconstructedPair> taken = _next.get();
    start();
    return taken;
}

Outcome<ReconstructedPair> PairReconstruction::reconstruct(const RecordedPair& pair) const {
    const Vector2i size = _rig.rebuild.imgSize;
    const Clock::time_point begin = Clock::now();
    Outcome<StereoImages> images = read_pair(pair, {size.x(), size.y()});
    if (!images) return images.failure();
    ReconstructedPair result;
    result.readMs = milliseconds_since(begin);
    result.images = std::move(*images);

    const Clock::time_point beginReconstruction = Clock::now();
    result.points.ini(size.x() / _rig.rebuild.sampleRatio, size.y() / _rig.rebuild.sampleRatio);
    int milliseconds = 0;
    const RetVal outcome = run_speckle_rebuild_cpu(_handle, result.images.left.pixels.data(),
                                                   result.images.right.pixels.data(), result.points, milliseconds);
    if (outcome != RET_SUCCESS)
        return Failure{pair.leftFile.string() + " and its partner cannot be reconstructed; the line above says why"};
    result.points.enable_vFlag();
    if (_rig.edgeMargin > 0) result.points.find_egde_point(_rig.edgeMargin, _rig.edgeJump, _rig.smallestPiece);
    result.reconstructMs = milliseconds_since(beginReconstruction);
    return result;
}

}  // namespace VexelAlgorithm::Apps
