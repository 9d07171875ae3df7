// Frames that have served, kept for the memory that they hold.
#pragma once

#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

#include "foundation/PointImage.h"

namespace VexelAlgorithm {

/// Copies frames into the memory of earlier copies: the pages of a new frame cost more than its bytes. For any thread.
class SpareFrames {
public:
    SpareFrames() { _frames.reserve(MOST); }

    PointImage copy_of(const PointImage& frame) {
        PointImage copy = take();
        copy = frame;
        return copy;
    }
    /// Keeps a copy that nobody needs any more; a few at most.
    void give_back(PointImage&& frame) {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_frames.size() < MOST) _frames.push_back(std::move(frame));
    }
    void clear() {
        const std::lock_guard<std::mutex> lock(_mutex);
        _frames.clear();
    }

private:
    static constexpr std::size_t MOST = 2;  // one is filled while another is in work

    PointImage take() {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_frames.empty()) return {};
        PointImage frame = std::move(_frames.back());
        _frames.pop_back();
        return frame;
    }

    std::mutex _mutex;
    std::vector<PointImage> _frames;
};

}  // namespace VexelAlgorithm
