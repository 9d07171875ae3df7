// What the frames of the benchmarks of tracking and of the session show, at any size.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "foundation/PointImage.h"
#include "recording/DepthImage.h"
#include "recording/Recording.h"
#include "simulation/primitives.h"

namespace VexelBench {

/// The recording `office_depth`, of whose pixels every n-th of every n-th row is read.
class OfficeRecording {
public:
    /// None, after one line unless VEXEL_RECORDINGS is not set, when it cannot be read.
    static std::optional<OfficeRecording> open(VexelAlgorithm::ImageSize size);

    const VexelAlgorithm::CameraInParam& camera() const { return _camera; }
    /// The frames `first` to `last` of it.
    std::vector<VexelAlgorithm::RecordedFrame> frames(int first, int last) const;
    /// None when the file cannot be read.
    std::optional<VexelAlgorithm::DepthImage> depth(const VexelAlgorithm::RecordedFrame& recorded) const;

private:
    OfficeRecording(VexelAlgorithm::Recording recording, int sampling);

    VexelAlgorithm::Recording _recording;
    int _sampling;
    VexelAlgorithm::CameraInParam _camera;
};

/// Steps of 3.6 degrees around the simulated demo object on its table at 400 mm, seen with the noise of a good scanner.
class ObjectWalk {
public:
    explicit ObjectWalk(VexelAlgorithm::ImageSize size);

    const VexelAlgorithm::CameraInParam& camera() const { return _camera; }
    /// Camera to world, one a step.
    const std::vector<VexelAlgorithm::RigidMatrix>& poses() const { return _poses; }
    /// The frame that is seen at a step, prepared for tracking.
    VexelAlgorithm::PointImage view(std::size_t step, std::size_t noiseSeed) const;

private:
    VexelAlgorithm::ImageSize _size;
    VexelAlgorithm::Simulation::ShapePtr _scene;
    VexelAlgorithm::CameraInParam _camera;
    std::vector<VexelAlgorithm::RigidMatrix> _poses;
};

/// Frames by image size, made on first use and kept. What failed once is not tried again.
template <class Frames>
class MadeBySize {
public:
    /// Null when `make(size)` has none.
    template <class Make>
    const Frames* get(VexelAlgorithm::ImageSize size, const Make& make) {
        const auto [kept, isNew] = _kept.try_emplace(std::pair(size.width, size.height));
        if (isNew) kept->second = make(size);
        return kept->second ? &*kept->second : nullptr;
    }

private:
    std::map<std::pair<int, int>, std::optional<Frames>> _kept;
};

}  // namespace VexelBench
