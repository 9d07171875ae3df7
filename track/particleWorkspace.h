// Working arrays of the particles, one set for each particle that runs at the same time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "track/correspondenceKernels.h"

namespace VexelAlgorithm {
namespace Track {

/// The correspondences of one iteration of one particle.
struct ParticleWorkspace {
    std::vector<std::int32_t> fixedIndex, movingEntry, mode, pixel;
    std::vector<float> distance;
    std::vector<float> scratch;  ///< of the search for the trimming cut
    std::size_t count = 0;

    /// Room for so many correspondences and for what kernels write behind them.
    void reserve(std::size_t points) {
        count = 0;
        const std::size_t room = points + CorrespondencePadding;
        if (distance.size() >= room) return;
        for (auto* field : {&fixedIndex, &movingEntry, &mode, &pixel}) field->resize(room);
        distance.resize(room);
    }
    CorrespondenceArrays arrays() {
        return {fixedIndex.data(), movingEntry.data(), mode.data(), pixel.data(), distance.data()};
    }

    std::atomic<bool> isLent{false};
};

/// Workspaces that are lent out, the first free one first, so that a quiet tracker keeps few of them filled.
class ParticleWorkspacePool {
public:
    explicit ParticleWorkspacePool(int workspaces)
        : _count(static_cast<std::size_t>(workspaces)), _workspaces(std::make_unique<ParticleWorkspace[]>(_count)) {}

    /// Waits while all are lent; give back with `give_back`.
    ParticleWorkspace& take() {
        for (std::size_t i = 0;; i = (i + 1) % _count) {
            bool lent = false;
            if (_workspaces[i].isLent.compare_exchange_strong(lent, true, std::memory_order_acquire)) {
                return _workspaces[i];
            }
            if (i + 1 == _count) std::this_thread::yield();
        }
    }
    /// None may be lent.
    void release() { _workspaces = std::make_unique<ParticleWorkspace[]>(_count); }
    static void give_back(ParticleWorkspace& workspace) { workspace.isLent.store(false, std::memory_order_release); }

private:
    std::size_t _count;
    std::unique_ptr<ParticleWorkspace[]> _workspaces;
};

/// Lends a workspace for as long as it lives.
class ParticleWorkspaceLoan {
public:
    explicit ParticleWorkspaceLoan(ParticleWorkspacePool& pool) : _workspace(pool.take()) {}
    ~ParticleWorkspaceLoan() { ParticleWorkspacePool::give_back(_workspace); }
    ParticleWorkspaceLoan(const ParticleWorkspaceLoan&) = delete;
    ParticleWorkspaceLoan& operator=(const ParticleWorkspaceLoan&) = delete;

    ParticleWorkspace& operator*() const { return _workspace; }

private:
    ParticleWorkspace& _workspace;
};

}  // namespace Track
}  // namespace VexelAlgorithm
